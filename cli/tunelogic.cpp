#include "tunelogic.h"

#include "wire.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <algorithm>
#include <functional>

namespace {

// Networks deliver a datagram late by seconds at most. What seems older than this was sent by a clock that
// has been set, or by another service.
constexpr unsigned int kLateMost = 60; // s

// Writes the group anew if it is one. Returns an empty text if not.
std::string groupOf(const std::string &sAddress) {
    struct in_addr address {};
    std::array<char, INET_ADDRSTRLEN> aText{};
    if (sAddress.find('\0') != std::string::npos || inet_pton(AF_INET, sAddress.c_str(), &address) != 1 ||
        !IN_MULTICAST(ntohl(address.s_addr)) ||
        inet_ntop(AF_INET, &address, aText.data(), aText.size()) == nullptr) {
        return "";
    }
    return aText.data();
}

// Reads the cast that is announced. Returns false when a receiver cannot play it. current: most announcements
// repeat its station file, which is not read again then.
bool readCast(const AirRecord &record, const std::optional<TuneCast> &current, TuneCast *pCast) {
    if (!record.uiType || !record.uiFormat || !record.uiST) {
        return false;
    }
    pCast->uiEPGID = *record.uiEPGID;
    pCast->uiType = *record.uiType;
    pCast->uiST = *record.uiST;
    if (*record.uiFormat == BCI_FORMAT_H264 && record.sAddress && record.usPort) {
        pCast->sGroup = groupOf(*record.sAddress);
        pCast->usPort = *record.usPort;
    } else if (*record.uiFormat == BCI_FORMAT_ASF && record.sStation &&
               record.eStationCheck == AIR_CHECK_GOOD) {
        pCast->bASF = true;
        pCast->sStation = *record.sStation;
        if (current && current->bASF && current->sStation == pCast->sStation) {
            pCast->formats = current->formats;
            pCast->sGroup = current->sGroup;
            pCast->usPort = current->usPort;
            return true;
        }
        std::string sAddress;
        if (!msbReadStation(pCast->sStation, &pCast->formats, &sAddress, &pCast->usPort).empty()) {
            return false;
        }
        pCast->sGroup = groupOf(sAddress);
    }
    return !pCast->sGroup.empty() && pCast->usPort != 0;
}

bool isSame(const TuneCast &one, const TuneCast &other) {
    return one.uiEPGID == other.uiEPGID && one.uiType == other.uiType && one.uiST == other.uiST &&
           one.bASF == other.bASF && one.sGroup == other.sGroup && one.usPort == other.usPort &&
           one.sStation == other.sStation;
}

// Whether an announcement was sent before one that has already counted. Of two that were sent in the same
// second an end is the later one.
bool isOvertaken(const TuneState &state, const AirRecord &record, unsigned long ulNow) {
    if (!state.uiSent || ulNow - state.ulCounted > kTunePatience) {
        return false;
    }
    const unsigned int uiLate = *state.uiSent - record.uiSendTime;
    return uiLate == 0 ? state.bEnded && record.eKind == AIR_ANNOUNCEMENT : uiLate <= kLateMost;
}

void hearAnnouncement(TuneState *pState, const AirRecord &record, unsigned long ulNow,
                      std::vector<TuneCommand> *pCommands) {
    if (record.eCheck != AIR_CHECK_GOOD || isOvertaken(*pState, record, ulNow)) {
        return;
    }
    TuneCast cast;
    const bool bEnd = record.eKind == AIR_END;
    // The CRC does not cover the frame's command. But an end has none of what is only in the other kind.
    if (bEnd ? record.uiST || record.uiET || record.sAddress || record.usPort || record.sStation
             : !readCast(record, pState->cast, &cast)) {
        return;
    }
    pState->uiSent = record.uiSendTime;
    pState->bEnded = bEnd;
    pState->ulCounted = ulNow;
    if (bEnd) {
        if (pState->cast && pState->cast->uiEPGID == *record.uiEPGID &&
            pState->cast->uiType == record.uiType) {
            pState->cast.reset();
            pCommands->push_back({TUNE_STOP, {}, {}});
        }
        return;
    }
    pState->ulAnnounced = ulNow;
    if (!pState->cast || !isSame(*pState->cast, cast)) {
        pState->cast = cast;
        pCommands->push_back({TUNE_PLAY, std::move(cast), {}});
    }
}

void showPage(TuneState *pState, unsigned long ulNow, std::vector<TuneCommand> *pCommands) {
    pState->ulPageEnd = ulNow + pState->pages.front().ulShown;
    pCommands->push_back({TUNE_SHOW, {}, pState->pages.front()});
}

// The newest message takes the place of the one that is shown. The service never sends one before the last
// one has been read.
void hearMessage(TuneState *pState, const AirRecord &record, unsigned long ulNow,
                 std::vector<TuneCommand> *pCommands) {
    const TuneHeard heard{record.uiMessageTime.value_or(record.uiSendTime),
                          std::hash<std::string>{}(*record.sText) ^ record.uiST.value_or(0)};
    const bool bTwice =
        std::any_of(pState->aHeard.begin(), pState->aHeard.end(), [&heard](const TuneHeard &known) {
            return known.uiSent == heard.uiSent && known.uHash == heard.uHash;
        });
    std::vector<BannerPage> pages = bannerPages(*record.sText);
    if (bTwice || pages.empty()) {
        return;
    }
    pState->aHeard[pState->uHeard++ % pState->aHeard.size()] = heard;
    pState->pages = std::move(pages);
    showPage(pState, ulNow, pCommands);
}

} // namespace

std::vector<TuneCommand> tuneHear(TuneState *pState, const AirRecord &record, unsigned long ulNow) {
    std::vector<TuneCommand> commands;
    if (!record.sProblems.empty()) {
        return commands;
    }
    if (record.eKind == AIR_ANNOUNCEMENT || record.eKind == AIR_END) {
        hearAnnouncement(pState, record, ulNow, &commands);
    } else if (record.eKind == AIR_MESSAGE) {
        hearMessage(pState, record, ulNow, &commands);
    }
    return commands;
}

std::vector<TuneCommand> tuneTick(TuneState *pState, unsigned long ulNow) {
    std::vector<TuneCommand> commands;
    if (pState->cast && ulNow - pState->ulAnnounced > kTunePatience) {
        pState->cast.reset();
        commands.push_back({TUNE_STOP, {}, {}});
    }
    if (!pState->pages.empty() && ulNow >= pState->ulPageEnd) {
        pState->pages.erase(pState->pages.begin());
        if (pState->pages.empty()) {
            commands.push_back({TUNE_HIDE, {}, {}});
        } else {
            showPage(pState, ulNow, &commands);
        }
    }
    return commands;
}

std::vector<TuneCommand> tuneResume(const TuneState &state) {
    std::vector<TuneCommand> commands;
    if (state.cast) {
        commands.push_back({TUNE_PLAY, *state.cast, {}});
    }
    if (!state.pages.empty()) {
        commands.push_back({TUNE_SHOW, {}, state.pages.front()});
    }
    return commands;
}

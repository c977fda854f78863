#include "watchtable.h"

#include "airtext.h"
#include "clitext.h"
#include "safetext.h"

#include <algorithm>
#include <array>

namespace {

constexpr size_t kEntriesKept = 50;
constexpr unsigned long kDay = 86400;
constexpr size_t kColumnBytes = 4; // of a text, at the most
constexpr size_t kTimesWidth = 4;  // how often a message was heard: "999x"
// A cast is announced every 11 s; two missed ones in a row mean that its sender is silent.
constexpr unsigned long kSilentAfter = 25;

struct Column {
    const char *pszTitle;
    size_t uWidth;
};
// The most important columns come first: up to STATE they fit into 80.
constexpr std::array<Column, 10> kCastColumns{{{"EPG", 10},
                                               {"KIND", 6},
                                               {"FORMAT", 6},
                                               {"DESTINATION", 21},
                                               {"UNTIL", 8},
                                               {"STATE", 16},
                                               {"LEFT", 8},
                                               {"FROM", 8},
                                               {"IDENTITY", 38},
                                               {"BY", 0}}};

constexpr const char *kGreen = "\033[32m";
constexpr const char *kRed = "\033[31m";
constexpr const char *kDim = "\033[2m";
constexpr const char *kBold = "\033[1m";

// Cuts the line to the columns, then colours the whole of it.
std::string drawn(const std::string &sLine, const WatchWindow &window, const char *pszColour) {
    const std::string sCut = textCut(sLine, window.uColumns);
    return window.bColour && pszColour != nullptr ? pszColour + sCut + "\033[0m" : sCut;
}

std::string padded(const std::string &sText, size_t uWidth) {
    if (uWidth == 0) {
        return sText;
    }
    const std::string sCut = textCut(sText, uWidth);
    return sCut + std::string(uWidth - textColumns(sCut) + 2, ' ');
}

std::string ago(unsigned long ulThen, unsigned long ulNow) {
    return ulNow <= ulThen ? "now" : std::to_string(ulNow - ulThen) + " s ago";
}

// The time of day; the date when it is not within a day from now.
std::string shortTime(const std::optional<unsigned int> &uiTime, unsigned long ulNow) {
    if (!uiTime) {
        return "";
    }
    return *uiTime > ulNow + kDay || *uiTime + kDay < ulNow ? writeTime(*uiTime).substr(2, 8)
                                                            : writeTimeOfDay(*uiTime);
}

bool isOver(const WatchCast &cast, unsigned long ulNow) {
    return cast.ulEnded != 0 || (cast.record.uiET && *cast.record.uiET <= ulNow);
}

std::string castState(const WatchCast &cast, unsigned long ulNow, const char **ppszColour) {
    *ppszColour = kDim;
    if (isOver(cast, ulNow)) {
        return cast.ulEnded == 0 ? "over" : "ended " + writeTimeOfDay(cast.ulEnded);
    }
    *ppszColour = kRed;
    if (cast.record.eCheck != AIR_CHECK_GOOD) {
        return cast.record.eCheck == AIR_CHECK_WRONG ? "CRC wrong" : "no CRC";
    }
    if (ulNow > cast.ulHeard + kSilentAfter) {
        return "silent, " + ago(cast.ulHeard, ulNow);
    }
    *ppszColour = kGreen;
    return "on air, " + ago(cast.ulHeard, ulNow);
}

std::string castLine(const WatchCast &cast, unsigned long ulNow, const WatchWindow &window) {
    const AirRecord &record = cast.record;
    const char *pszColour = nullptr;
    const bool bLeft = !isOver(cast, ulNow) && record.uiET;
    const std::array<std::string, kCastColumns.size()> aCell{std::to_string(*record.uiEPGID),
                                                             airTypeText(record),
                                                             airFormatText(record),
                                                             airDestination(record),
                                                             shortTime(record.uiET, ulNow),
                                                             castState(cast, ulNow, &pszColour),
                                                             bLeft ? writeTimeLeft(*record.uiET - ulNow) : "",
                                                             shortTime(record.uiST, ulNow),
                                                             airIdentity(record),
                                                             cast.sSender};
    std::string sLine = "  ";
    for (size_t i = 0; i < aCell.size(); ++i) {
        sLine += padded(aCell[i], kCastColumns[i].uWidth);
    }
    return drawn(sLine, window, pszColour);
}

// The rows of a message, at most uLines of them. Of the text no more is made safe than they can show.
std::vector<std::string> messageLines(const WatchMessage &message, unsigned long ulNow,
                                      const WatchWindow &window, size_t uLines) {
    const bool bOver = message.record.uiET && *message.record.uiET <= ulNow;
    const std::string sHead = "  " + writeTimeOfDay(message.ulHeard) + "  " +
                              padded(std::to_string(message.ulTimes) + "x", kTimesWidth);
    const size_t uIndent = textColumns(sHead);
    if (window.uColumns <= 2 * uIndent) {
        uLines = 1; // too narrow to indent
    }
    const size_t uColumns = window.uColumns - std::min(window.uColumns, uIndent);
    const std::string sText =
        textForTerminal(message.record.sText->substr(0, (uColumns + 1) * uLines * kColumnBytes));
    std::vector<std::string> lines = textWrap(sText, uColumns, uLines);
    for (std::string &sLine : lines) {
        sLine.insert(0, &sLine == &lines.front() ? sHead : std::string(uIndent, ' '));
        sLine = drawn(sLine, window, bOver ? kDim : nullptr);
    }
    return lines;
}

// The rows of the newest messages. Each gets one; rows that are left go to the texts, the newest first.
std::vector<std::string> allMessageLines(const WatchState &state, unsigned long ulNow,
                                         const WatchWindow &window, size_t uRoom) {
    std::vector<std::string> lines;
    size_t uFree = uRoom - std::min(uRoom, state.messages.size());
    for (const WatchMessage &message : state.messages) {
        if (lines.size() > uRoom) {
            break; // addSection counts the rest
        }
        const std::vector<std::string> own = messageLines(message, ulNow, window, 1 + uFree);
        uFree -= own.size() - 1;
        lines.insert(lines.end(), own.begin(), own.end());
    }
    return lines;
}

void noteCast(WatchState *pState, const AirRecord &record, unsigned long ulNow, const std::string &sSender) {
    const bool bSound = record.eCheck == AIR_CHECK_GOOD;
    const bool bEnd = record.eKind == AIR_END;
    const auto isLive = [&](const WatchCast &cast) { return cast.sSender == sSender && cast.ulEnded == 0; };
    const auto found = std::find_if(pState->casts.begin(), pState->casts.end(), [&](const WatchCast &cast) {
        return isLive(cast) && cast.record.uiEPGID == record.uiEPGID &&
               (bEnd || (cast.record.uiST == record.uiST && cast.record.uiET == record.uiET));
    });
    if (bEnd) { // of a cast that was never shown, the end is not shown either
        if (bSound && found != pState->casts.end()) {
            found->ulEnded = ulNow;
            found->ulHeard = ulNow;
        }
        return;
    }
    WatchCast cast{sSender, record, ulNow, 0};
    if (found != pState->casts.end()) {
        *found = cast;
        return;
    }
    if (bSound) {
        for (WatchCast &other : pState->casts) {
            other.ulEnded = isLive(other) ? ulNow : other.ulEnded;
        }
    }
    pState->casts.push_front(std::move(cast));
}

void noteMessage(WatchState *pState, const AirRecord &record, unsigned long ulNow,
                 const std::string &sSender) {
    WatchMessage message{sSender, record, ulNow, 1};
    const auto found =
        std::find_if(pState->messages.begin(), pState->messages.end(), [&](const WatchMessage &known) {
            return known.sSender == sSender && known.record.sText == record.sText &&
                   known.record.uiST == record.uiST && known.record.uiET == record.uiET;
        });
    if (found != pState->messages.end()) {
        message.ulTimes += found->ulTimes;
        pState->messages.erase(found);
    }
    pState->messages.push_front(message);
}

// A part of the table: its heading and its lines. uAll counts lines that were not even made.
struct Section {
    const char *pszHeading;
    std::vector<std::string> lines = {};
    size_t uRoom = 0;
    size_t uAll = 0;
};

// Adds the section with as many lines as it has room for. The last one counts those left out.
void addSection(std::vector<std::string> *pLines, const Section &section, const WatchWindow &window) {
    pLines->emplace_back();
    pLines->push_back(drawn(section.pszHeading, window, kBold));
    const bool bAll = section.uAll <= section.uRoom;
    const size_t uShown = bAll ? section.lines.size() : section.uRoom - std::min<size_t>(section.uRoom, 1);
    for (size_t i = 0; i < std::min(uShown, section.lines.size()); ++i) {
        pLines->push_back(section.lines[i]);
    }
    if (!bAll && section.uRoom != 0) {
        pLines->push_back(drawn("  and " + std::to_string(section.uAll - uShown) + " more", window, kDim));
    }
}

} // namespace

void watchNote(WatchState *pState, const AirRecord &record, unsigned long ulNow, const std::string &sSender) {
    ++pState->ulDatagrams;
    for (const std::string &sProblem : record.sProblems) {
        pState->problems.push_front({sSender, sProblem, ulNow});
    }
    if (record.eKind == AIR_ANNOUNCEMENT || record.eKind == AIR_END) {
        noteCast(pState, record, ulNow, sSender);
    } else if (record.eKind == AIR_MESSAGE) {
        noteMessage(pState, record, ulNow, sSender);
    }
    pState->casts.resize(std::min(pState->casts.size(), kEntriesKept));
    pState->messages.resize(std::min(pState->messages.size(), kEntriesKept));
    pState->problems.resize(std::min(pState->problems.size(), kEntriesKept));
}

std::vector<std::string> watchDraw(const WatchState &state, unsigned long ulNow, const WatchWindow &window) {
    Section onAir{"ON AIR"};
    Section messages{"MESSAGES"};
    Section ended{"ENDED"};
    Section problems{"PROBLEMS"};
    messages.uAll = state.messages.size();
    for (const WatchCast &cast : state.casts) {
        (isOver(cast, ulNow) ? ended : onAir).lines.push_back(castLine(cast, ulNow, window));
    }
    for (const WatchProblem &problem : state.problems) {
        problems.lines.push_back(
            drawn("  " + writeTimeOfDay(problem.ulHeard) + "  " + problem.sText + ", by " + problem.sSender,
                  window, kRed));
    }
    if (onAir.lines.empty()) {
        onAir.lines.push_back(
            drawn(state.casts.empty() ? "  nothing heard yet (a cast is announced every 11 s)" : "  nothing",
                  window, kDim));
    }
    std::string sTitles = "  ";
    for (const Column &column : kCastColumns) {
        sTitles += padded(column.pszTitle, column.uWidth);
    }
    onAir.lines.insert(onAir.lines.begin(), drawn(sTitles, window, kDim));

    // The first line and two headings cost five rows. Problems and ended casts stand only in a window with
    // more than a few rows, and get up to a quarter of the room each, as do the messages. The casts on air
    // get what they need of the rest. Room that is left over goes to the messages.
    size_t uRoom = std::max<size_t>(window.uRows, 9) - 5;
    for (Section *const pSection : {&problems, &ended}) {
        if (uRoom < 7) {
            pSection->lines.clear();
        }
        if (!pSection->lines.empty()) {
            uRoom -= 2;
            pSection->uRoom = std::min(pSection->lines.size(), uRoom / 4);
            uRoom -= pSection->uRoom;
        }
    }
    const size_t uMessages = std::min(std::max<size_t>(state.messages.size(), 1), uRoom / 4);
    onAir.uRoom = std::min(onAir.lines.size(), uRoom - uMessages);
    messages.uRoom = uRoom - onAir.uRoom;
    messages.lines = allMessageLines(state, ulNow, window, messages.uRoom);
    if (messages.lines.empty()) {
        messages.lines.push_back(drawn("  none", window, kDim));
    }
    for (Section *const pSection : {&onAir, &ended, &problems}) {
        pSection->uAll = pSection->lines.size();
    }

    std::vector<std::string> lines;
    lines.push_back(drawn("pccast watch   " + writeTime(ulNow) + "   " + std::to_string(state.ulDatagrams) +
                              " datagrams heard" +
                              (window.pszEnds == nullptr ? "" : "   " + std::string(window.pszEnds)),
                          window, nullptr));
    for (const Section *const pSection : {&onAir, &messages, &ended, &problems}) {
        if (!pSection->lines.empty()) {
            addSection(&lines, *pSection, window);
        }
    }
    lines.resize(std::min(lines.size(), window.uRows));
    return lines;
}

#include "listtext.h"

#include "clitext.h"
#include "safetext.h"

#include <pccast/castinfo.h>

#include <algorithm>
#include <array>
#include <map>
#include <string_view>
#include <utility>

namespace {

constexpr size_t kTextColumns = 60; // of a message
constexpr size_t kFailures = 5;
constexpr size_t kBarWidth = 24;
constexpr const char *kBold = "\033[1m";
constexpr const char *kGreen = "\033[32m";
constexpr const char *kRed = "\033[31m";
constexpr const char *kDim = "\033[2m";

// ---- the values of an object

unsigned long numberOf(const Json &object, const char *pszKey) {
    const auto found = object.find(pszKey);
    return found != object.end() && found->is_number_unsigned() ? found->get<unsigned long>() : 0;
}

// Safe to show.
std::string textOf(const Json &object, const char *pszKey) {
    const auto found = object.find(pszKey);
    return found != object.end() && found->is_string() ? textForTerminal(found->get<std::string>()) : "";
}

const Json &partOf(const Json &object, const char *pszKey) {
    static const Json empty = Json::object();
    const auto found = object.find(pszKey);
    return found != object.end() && found->is_structured() ? *found : empty;
}

// ---- words

std::string plural(unsigned long ulCount, const std::string &sOne) {
    return std::to_string(ulCount) + " " + sOne + (ulCount == 1 ? "" : "s");
}

std::string coloured(const std::string &sText, const char *pszColour, const Screen &screen) {
    return screen.bColour && pszColour != nullptr ? pszColour + sText + "\033[0m" : sText;
}

} // namespace

std::string moment(unsigned long ulTime, unsigned long ulNow) {
    const std::string sTime = writeTime(ulTime);
    const size_t uDate = sizeof "YYYY-MM-DD" - 1;
    return sTime.substr(0, uDate) == writeTime(ulNow).substr(0, uDate) ? sTime.substr(uDate + 1) : sTime;
}

namespace {

std::string timeFromMs(unsigned long ulMs) {
    return writeTimeLeft(ulMs / 1000);
}

// "3.4 Mbit/s", of bytes in a second.
std::string bitRate(unsigned long ulBytes) {
    const unsigned long ulBits = ulBytes * 8;
    if (ulBits < 10'000) {
        return std::to_string(ulBits) + " bit/s";
    }
    if (ulBits < 10'000'000) {
        return std::to_string(ulBits / 1000) + " kbit/s";
    }
    return std::to_string(ulBits / 1'000'000) + "." + std::to_string(ulBits / 100'000 % 10) + " Mbit/s";
}

// What the request is: where a stream comes from, the file, the text. Empty for a stop or cancel request.
std::string whatOf(const Json &request, size_t uColumns) {
    if (request.contains("text")) {
        return "\"" + textCut(textOf(request, "text"), uColumns) + "\"";
    }
    return request.contains("file") ? textOf(request, "file") : textOf(request, "source");
}

std::string routeOf(const Json &request) {
    const std::string sKind = textOf(request, "kind");
    if (sKind == "stop" || sKind == "cancel") {
        return "";
    }
    const std::string sDestination = textOf(request, "destination");
    return whatOf(request, kTextColumns) + (sDestination.empty() ? "" : " -> " + sDestination);
}

// "relay 7:2:...", of a request or of what caused an event.
std::string nameOf(const Json &request) {
    return textOf(request, "kind") + " " + textOf(request, "identity");
}

} // namespace

std::string shortNameOf(const Json &request) {
    return textOf(request, "kind") + " of EPG " + std::to_string(numberOf(request, "epg"));
}

namespace {

// ---- events

struct Reason {
    const char *pszReason;
    const char *pszText; // "by" and "for": the other request follows
};
constexpr std::array<Reason, 18> kReasons{{
    {"end-time", "its end time has come"},
    {"stop", "by"},
    {"newer", "for"},
    {"source-lost", "its source socket failed"},
    {"file-end", "the file has ended"},
    {"repeats", "sent as often as asked"},
    {"closing", "the service closes"},
    {"send-failed", "it could not be sent"},
    {"source", "its source cannot be opened"},
    {"destination", "its destination cannot be opened"},
    {"key", "it must be decrypted but brings no key"},
    {"loop", "it would feed itself"},
    {"file", "the file cannot be opened or played"},
    {"format", "no driver plays its format"},
    {"incomplete", "it is incomplete, or of an unknown type"},
    {"memory", "memory has run out"},
    {"lock", "the lock of its list could not be taken"},
    {"nothing", "it found nothing to end"},
}};

} // namespace

std::string reasonText(const Json &event) {
    const std::string sReason = textOf(event, "reason");
    const Json &other = partOf(event, "other");
    const auto found = std::find_if(kReasons.begin(), kReasons.end(),
                                    [&](const Reason &reason) { return sReason == reason.pszReason; });
    const std::string sText = found == kReasons.end() ? sReason : found->pszText;
    if (other.empty()) {
        return sText == "by" || sText == "for" ? sReason : sText;
    }
    return (sText.empty() ? "by" : sText) + " " + nameOf(other);
}

namespace {

std::string trafficText(const Json &traffic) {
    std::string sText = plural(numberOf(traffic, "datagrams"), "datagram") + ", " +
                        plural(numberOf(traffic, "bytes"), "byte");
    for (const auto &[pszKey, pszWord] :
         {std::pair{"dropped", "dropped"}, {"failed", "not sent"}, {"late", "late"}}) {
        if (numberOf(traffic, pszKey) != 0) {
            sText += ", " + std::to_string(numberOf(traffic, pszKey)) + " " + pszWord;
        }
    }
    if (numberOf(traffic, "silence") != 0) {
        sText += ", silent for " + std::to_string(numberOf(traffic, "silence")) + " s";
    }
    if (traffic.contains("position_ms")) {
        sText += ", played " + timeFromMs(numberOf(traffic, "position_ms"));
        if (traffic.contains("length_ms")) {
            sText += " of " + timeFromMs(numberOf(traffic, "length_ms"));
        }
    }
    return sText;
}

void addPart(std::string *psText, const std::string &sPart) {
    if (!sPart.empty()) {
        *psText += (psText->empty() ? "" : ", ") + sPart;
    }
}

// What follows the identity.
std::string eventDetails(const Json &event, EventMemory *pMemory) {
    const std::string sEvent = textOf(event, "event");
    const unsigned long ulTime = numberOf(event, "time");
    const unsigned long ulRequest = numberOf(event, "request");
    if (sEvent == "silent") {
        // The event comes after a second of silence.
        *pMemory = {ulRequest, ulTime - 1};
        return "silent since " + moment(ulTime - 1, ulTime) + ", nothing comes to " + textOf(event, "source");
    }
    if (sEvent == "heard") {
        return pMemory->ulRequest == ulRequest
                   ? "heard again after " + std::to_string(ulTime - pMemory->ulSilentSince) + " s"
                   : "heard again";
    }
    std::string sText;
    if (sEvent == "filed" || sEvent == "refused" || sEvent == "started" || sEvent == "returned" ||
        sEvent == "current") {
        sText = routeOf(event);
        if (sEvent == "filed" && numberOf(event, "start") > ulTime) {
            sText += " from " + moment(numberOf(event, "start"), ulTime);
        }
        sText += (sText.empty() ? "until " : " until ") + moment(numberOf(event, "end"), ulTime);
    }
    addPart(&sText, reasonText(event));
    if (sEvent == "sent") {
        const unsigned long ulLeft = numberOf(event, "repeats_left");
        addPart(&sText, numberOf(event, "repeats") == 0
                            ? "repeated until " + moment(numberOf(event, "end"), ulTime)
                            : std::to_string(ulLeft) + " more to come");
    }
    if (event.contains("traffic")) {
        addPart(&sText, trafficText(event["traffic"]));
    }
    return sText;
}

// ---- the order of the list, and why a request waits

using ByNumber = std::map<unsigned long, const Json *>;

// The service files relays in one list, files in another, messages in others.
enum List { LIST_RELAYS, LIST_FILES, LIST_MESSAGES };

List listOf(const Json &request) {
    const std::string sKind = textOf(request, "kind");
    CastIdentity identity{};
    if (sKind == "message" || sKind == "cancel") {
        return LIST_MESSAGES;
    }
    if (sKind == "stop") {
        readCastIdentity(textOf(request, "identity"), &identity);
    }
    return sKind == "file" || identity.ulType == CAST_TYPE_FILE ? LIST_FILES : LIST_RELAYS;
}

bool hasPlace(const Json &request, const char *pszPlace) {
    return textOf(request, "place") == pszPlace;
}

// What the schedule of the casts holds just now.
struct Schedule {
    ByNumber byNumber;
    const Json *pRelay = nullptr;           // on air
    std::array<const Json *, 2> aCurrent{}; // the current cast of each list
    unsigned long ulNow = 0;
};

Schedule scheduleOf(const Json &view) {
    Schedule schedule;
    schedule.ulNow = numberOf(view, "time");
    for (const Json &request : partOf(view, "requests")) {
        schedule.byNumber[numberOf(request, "request")] = &request;
        const List eList = listOf(request);
        if (eList == LIST_MESSAGES || hasPlace(request, "waiting")) {
            continue;
        }
        const Json *&pCurrent = schedule.aCurrent[eList];
        if (pCurrent == nullptr || numberOf(request, "created") > numberOf(*pCurrent, "created")) {
            pCurrent = &request;
        }
        if (eList == LIST_RELAYS && hasPlace(request, "on-air")) {
            schedule.pRelay = &request;
        }
    }
    return schedule;
}

struct Prospect {
    unsigned long ulWhen; // when something will happen to it
    std::string sWhy;
};

Prospect prospectOf(const Json &request, const Schedule &schedule) {
    const List eList = listOf(request);
    const unsigned long ulEnd = numberOf(request, "end");
    Prospect prospect{std::max(numberOf(request, "start"), schedule.ulNow), ""};
    const bool bWaiting = hasPlace(request, "waiting");
    if (eList == LIST_MESSAGES || (!bWaiting && !hasPlace(request, "pending"))) {
        return prospect;
    }
    const auto preempted = schedule.byNumber.find(numberOf(request, "preempted_by"));
    const Json *const pCurrent = schedule.aCurrent[eList];
    const Json *pBefore = nullptr;
    if (bWaiting && preempted != schedule.byNumber.end()) {
        pBefore = preempted->second;
        prospect.sWhy = "preempted, returns when EPG " + std::to_string(numberOf(*pBefore, "epg")) + " ends";
    } else if (bWaiting && pCurrent != nullptr && textOf(request, "kind") != "stop" &&
               numberOf(*pCurrent, "created") >= numberOf(request, "created") &&
               numberOf(*pCurrent, "end") > prospect.ulWhen) {
        pBefore = pCurrent;
        prospect.sWhy = "behind the " + shortNameOf(*pBefore) + " until " +
                        moment(numberOf(*pBefore, "end"), schedule.ulNow);
    } else if (eList == LIST_FILES && textOf(request, "kind") == "file" && schedule.pRelay != nullptr &&
               numberOf(*schedule.pRelay, "end") > prospect.ulWhen) {
        pBefore = schedule.pRelay;
        prospect.sWhy = "waits for the " + shortNameOf(*pBefore) + " to end";
    }
    if (pBefore != nullptr) {
        prospect.ulWhen = std::max(prospect.ulWhen, numberOf(*pBefore, "end"));
        prospect.sWhy += numberOf(*pBefore, "end") >= ulEnd ? "; expires before that" : "";
    }
    return prospect;
}

int rankOf(const Json &request) {
    return hasPlace(request, "on-air") ? 0 : hasPlace(request, "over") ? 2 : 1;
}

// ---- the table of list

enum ColumnIndex { STATE, EPG, KIND, WHAT, WHERE, FROM, UNTIL, LEFT, IDENTITY, COLUMNS };
constexpr std::array<const char *, COLUMNS> kTitles{"STATE", "EPG",   "KIND", "WHAT",    "WHERE",
                                                    "FROM",  "UNTIL", "LEFT", "IDENTITY"};
using Cells = std::array<std::string, COLUMNS>;

// How long it still goes on, or how often a message still comes.
std::string leftOf(const Json &request, const Json &view) {
    const unsigned long ulNow = numberOf(view, "time");
    if (!hasPlace(request, "on-air")) {
        return "";
    }
    if (request.contains("repeats") && numberOf(request, "repeats") != 0) {
        return std::to_string(numberOf(request, "repeats_left")) + " more";
    }
    const Json &playout = partOf(view, "playout");
    if (numberOf(playout, "request") == numberOf(request, "request") && playout.contains("length_ms")) {
        const unsigned long ulLength = numberOf(playout, "length_ms");
        return timeFromMs(ulLength - std::min(ulLength, numberOf(playout, "position_ms")));
    }
    const unsigned long ulEnd = numberOf(request, "end");
    return writeTimeLeft(ulEnd - std::min(ulEnd, ulNow));
}

Cells cellsOf(const Json &request, const Json &view) {
    const unsigned long ulNow = numberOf(view, "time");
    Cells cells;
    cells[STATE] = hasPlace(request, "on-air") ? "on air" : textOf(request, "place");
    cells[EPG] = std::to_string(numberOf(request, "epg"));
    cells[KIND] = textOf(request, "kind");
    const bool bStop = cells[KIND] == "stop" || cells[KIND] == "cancel";
    cells[WHAT] = bStop ? "" : whatOf(request, kTextColumns);
    cells[WHERE] = bStop ? "" : textOf(request, "destination");
    cells[FROM] = moment(numberOf(request, "start"), ulNow);
    cells[UNTIL] = moment(numberOf(request, "end"), ulNow);
    cells[LEFT] = leftOf(request, view);
    cells[IDENTITY] = textOf(request, "identity");
    return cells;
}

std::string padded(const std::string &sText, size_t uWidth) {
    const std::string sCut = textCut(sText, uWidth);
    return sCut + std::string(uWidth - textColumns(sCut), ' ');
}

// One line with the cells of the columns, two blanks between them, none behind the last.
std::string joined(const Cells &cells, const std::array<size_t, COLUMNS> &aWidth, ColumnIndex eEnd) {
    std::string sLine;
    for (size_t i = 0; i < eEnd; ++i) {
        if (aWidth[i] > 0) {
            sLine += (sLine.empty() ? "" : "  ") + padded(cells[i], aWidth[i]);
        }
    }
    sLine.resize(sLine.find_last_not_of(' ') + 1);
    return sLine;
}

const char *colourOf(const Json &request) {
    return hasPlace(request, "on-air") ? kGreen : hasPlace(request, "over") ? kDim : nullptr;
}

} // namespace

std::string eventText(const Json &event, EventMemory *pMemory) {
    const std::string sDetails = eventDetails(event, pMemory);
    return textOf(event, "event") + " " + nameOf(event) + (sDetails.empty() ? "" : "  " + sDetails);
}

std::string eventLine(const Json &event, EventMemory *pMemory) {
    const std::string sMilliseconds = std::to_string(1000 + numberOf(event, "milliseconds")).substr(1);
    return std::to_string(numberOf(event, "number")) + "  " + writeTime(numberOf(event, "time")) + "." +
           sMilliseconds + "  " + eventText(event, pMemory);
}

std::string lostText(unsigned long ulLost) {
    return plural(ulLost, "event") + (ulLost == 1 ? " is" : " are") + " missing here: no longer kept";
}

std::vector<Json> listRequests(const Json &view) {
    const Schedule schedule = scheduleOf(view);
    struct Entry {
        int iRank;
        unsigned long ulWhen;
        unsigned long ulCreated;
        Json request;
    };
    std::vector<Entry> entries;
    for (const Json &request : partOf(view, "requests")) {
        Prospect prospect = prospectOf(request, schedule);
        entries.push_back({rankOf(request), prospect.ulWhen, numberOf(request, "created"), request});
        if (!prospect.sWhy.empty()) {
            entries.back().request["why"] = std::move(prospect.sWhy);
        }
    }
    // Of those that could start at the same time the newest comes first, as in the service.
    std::stable_sort(entries.begin(), entries.end(), [](const Entry &a, const Entry &b) {
        return std::tuple(a.iRank, a.ulWhen, b.ulCreated) < std::tuple(b.iRank, b.ulWhen, a.ulCreated);
    });
    std::vector<Json> requests;
    requests.reserve(entries.size());
    for (Entry &entry : entries) {
        requests.push_back(std::move(entry.request));
    }
    return requests;
}

std::vector<std::string> listLines(const Json &view, const Screen &screen) {
    const std::vector<Json> requests = listRequests(view);
    if (requests.empty()) {
        return {"nothing is on air and nothing waits"};
    }
    std::vector<Cells> rows;
    std::array<size_t, COLUMNS> aWidth{};
    for (size_t i = 0; i < COLUMNS; ++i) {
        aWidth[i] = std::string_view(kTitles[i]).size();
    }
    size_t uWhy = 0;
    for (const Json &request : requests) {
        rows.push_back(cellsOf(request, view));
        for (size_t i = 0; i < COLUMNS; ++i) {
            aWidth[i] = std::max(aWidth[i], textColumns(rows.back()[i]));
        }
        const std::string sWhy = textOf(request, "why");
        uWhy = std::max(uWhy, sWhy.empty() ? 0 : textColumns(sWhy) + 2);
    }
    size_t uAll = uWhy;
    for (const size_t uWidth : aWidth) {
        uAll += uWidth + 2;
    }
    const bool bWide = screen.uColumns == 0 || uAll - 2 <= screen.uColumns;
    Cells titles;
    std::copy(kTitles.begin(), kTitles.end(), titles.begin());
    if (!bWide) {
        // Destination, identity and reason go to lines of their own. What is cast takes the room that is
        // left.
        aWidth[WHERE] = 0;
        size_t uRest = 0;
        for (const size_t i : {STATE, EPG, KIND, FROM, UNTIL, LEFT}) {
            uRest += aWidth[i] + 2;
        }
        aWidth[WHAT] = std::min(aWidth[WHAT], std::max<size_t>(screen.uColumns, uRest + 10) - uRest);
    }
    const ColumnIndex eEnd = bWide ? COLUMNS : IDENTITY;
    std::vector<std::string> lines{coloured(joined(titles, aWidth, eEnd), kDim, screen)};
    const std::string sIndent(aWidth[STATE] + 2, ' ');
    for (size_t i = 0; i < rows.size(); ++i) {
        const std::string sWhy = textOf(requests[i], "why");
        std::string sLine = joined(rows[i], aWidth, eEnd);
        if (bWide) {
            sLine += sWhy.empty() ? "" : "  " + sWhy;
            lines.push_back(coloured(sLine, colourOf(requests[i]), screen));
            continue;
        }
        lines.push_back(coloured(sLine, colourOf(requests[i]), screen));
        lines.push_back(sIndent + (rows[i][WHERE].empty() ? "" : "to " + rows[i][WHERE] + "  ") +
                        rows[i][IDENTITY]);
        if (!sWhy.empty()) {
            lines.push_back(sIndent + sWhy);
        }
    }
    return lines;
}

std::string progressBar(unsigned long ulDone, unsigned long ulAll, size_t uWidth) {
    const unsigned long ulReached = std::min(ulDone, ulAll);
    const size_t uFilled = ulAll == 0 ? 0 : uWidth * ulReached / ulAll;
    const std::string sPercent = std::to_string(ulAll == 0 ? 0 : 100 * ulReached / ulAll);
    return "[" + std::string(uFilled, '#') + std::string(uWidth - uFilled, '-') + "] " +
           std::string(3 - std::min<size_t>(3, sPercent.size()), ' ') + sPercent + "%";
}

namespace {

// ---- status

// What the relay on air brings just now, and what it has brought.
std::string rateLine(const Json &relay) {
    return std::to_string(numberOf(relay, "datagrams_per_second")) + " datagrams/s, " +
           bitRate(numberOf(relay, "bytes_per_second"));
}

std::string relayLine(const Json &relay) {
    std::string sLine = plural(numberOf(relay, "datagrams"), "datagram") + " in all, " +
                        std::to_string(numberOf(relay, "dropped")) + " dropped, " +
                        std::to_string(numberOf(relay, "failed")) + " not sent";
    if (const unsigned long ulSilence = numberOf(relay, "silence"); ulSilence != 0) {
        sLine += ", silent for " + std::to_string(ulSilence) + " s";
    }
    return sLine;
}

std::string playoutLine(const Json &playout) {
    return "at " + timeFromMs(numberOf(playout, "position_ms")) +
           (playout.contains("length_ms") ? " of " + timeFromMs(numberOf(playout, "length_ms")) : "") + ", " +
           plural(numberOf(playout, "datagrams"), "datagram") + ", " +
           std::to_string(numberOf(playout, "failed")) + " not sent, " +
           std::to_string(numberOf(playout, "late")) + " late";
}

} // namespace

std::string trafficLine(const Json &view, unsigned long ulRequest) {
    if (numberOf(partOf(view, "relay"), "request") == ulRequest) {
        const Json &relay = partOf(view, "relay");
        const unsigned long ulSilent = numberOf(relay, "silent_since");
        return (ulSilent == 0 ? rateLine(relay)
                              : "silent since " + moment(ulSilent, numberOf(view, "time"))) +
               ", " + relayLine(relay);
    }
    return numberOf(partOf(view, "playout"), "request") == ulRequest ? playoutLine(partOf(view, "playout"))
                                                                     : "";
}

std::string onAirBar(const Json &view, const Json &request) {
    const unsigned long ulNow = numberOf(view, "time");
    const unsigned long ulStart = numberOf(request, "started");
    const unsigned long ulEnd = numberOf(request, "end");
    const Json &playout = partOf(view, "playout");
    if (numberOf(playout, "request") == numberOf(request, "request")) {
        return playout.contains("length_ms")
                   ? progressBar(numberOf(playout, "position_ms"), numberOf(playout, "length_ms"), kBarWidth)
                   : "";
    }
    return ulEnd > ulStart && ulNow >= ulStart ? progressBar(ulNow - ulStart, ulEnd - ulStart, kBarWidth)
                                               : "";
}

namespace {

void addLine(std::vector<std::string> *pLines, const std::string &sText) {
    if (!sText.empty()) {
        pLines->push_back("    " + sText);
    }
}

void addOnAir(std::vector<std::string> *pLines, const Json &request, const Json &view, const Screen &screen) {
    const unsigned long ulNow = numberOf(view, "time");
    pLines->push_back("  " + coloured(shortNameOf(request), kGreen, screen) + "  " + routeOf(request));
    pLines->push_back("    until " + moment(numberOf(request, "end"), ulNow) + ", left " +
                      leftOf(request, view) + "  " + textOf(request, "identity"));
    const Json &relay = partOf(view, "relay");
    const bool bRelay = numberOf(relay, "request") == numberOf(request, "request");
    if (screen.bBar) {
        addLine(pLines, onAirBar(view, request));
    }
    if (bRelay) {
        const unsigned long ulSilent = numberOf(relay, "silent_since");
        addLine(pLines, ulSilent == 0 ? rateLine(relay)
                                      : coloured("silent since " + moment(ulSilent, ulNow), kRed, screen));
        addLine(pLines, relayLine(relay));
    } else if (numberOf(partOf(view, "playout"), "request") == numberOf(request, "request")) {
        addLine(pLines, playoutLine(partOf(view, "playout")));
    }
}

std::string senderLine(const char *pszName, const Json &sender, unsigned long ulNow) {
    const unsigned long ulLast = numberOf(sender, "last");
    return std::string("  ") + pszName + ": " + std::to_string(numberOf(sender, "sent")) + " sent, " +
           std::to_string(numberOf(sender, "failed")) + " failed" +
           (ulLast == 0 ? "" : ", the last at " + moment(ulLast, ulNow));
}

bool isFailure(const Json &event) {
    const std::string sEvent = textOf(event, "event");
    const std::string sReason = textOf(event, "reason");
    return sEvent == "failed" || sEvent == "dropped" || sEvent == "refused" || sEvent == "expired" ||
           sReason == "source-lost" || sReason == "send-failed";
}

// What is kept of the state.
std::string stateLine(const Json &view, const Screen &screen) {
    const Json &state = partOf(view, "state");
    const std::string sPath = textForTerminal(textOf(state, "path"));
    if (!state.value("ok", true)) {
        return coloured("NOTHING IS KEPT: " + sPath + ": " + textForTerminal(textOf(state, "error")), kRed,
                        screen);
    }
    std::string sLine = "kept in " + sPath;
    if (numberOf(state, "behind") != 0) {
        addPart(&sLine, plural(numberOf(state, "behind"), "event") + " behind");
    }
    if (state.contains("restoring")) {
        addPart(&sLine, "restored " + std::to_string(numberOf(state, "restored")) + " of " +
                            plural(numberOf(state, "restoring"), "request"));
    }
    return sLine;
}

} // namespace

std::vector<std::string> statusLines(const Json &view, const std::vector<Json> &events,
                                     const Screen &screen) {
    const unsigned long ulNow = numberOf(view, "time");
    const unsigned long ulSince = numberOf(view, "since");
    const auto heading = [&](const char *pszText) { return coloured(pszText, kBold, screen); };
    std::vector<std::string> onAir;
    std::vector<std::string> messages;
    std::map<std::string, unsigned long> waiting;
    for (const Json &request : listRequests(view)) {
        const bool bMessage = listOf(request) == LIST_MESSAGES;
        if (hasPlace(request, "on-air") && !bMessage) {
            addOnAir(&onAir, request, view, screen);
        } else if (hasPlace(request, "on-air")) {
            messages.push_back("  " + coloured("on air", kGreen, screen) + "  " + routeOf(request));
            messages.push_back("    until " + moment(numberOf(request, "end"), ulNow) + ", left " +
                               leftOf(request, view) + "  " + textOf(request, "identity"));
        } else if (!hasPlace(request, "over")) {
            ++waiting[textOf(request, "kind")];
        }
    }
    std::string sWaiting;
    for (const auto &[sKind, ulCount] : waiting) {
        addPart(&sWaiting, plural(ulCount, sKind));
    }

    std::vector<std::string> lines{"since " + writeTime(ulSince) + ", for " +
                                       writeTimeLeft(ulNow - std::min(ulSince, ulNow)) + "; " +
                                       plural(numberOf(view, "events"), "event"),
                                   "", heading("ON AIR")};
    if (onAir.empty()) {
        onAir.emplace_back("  nothing");
    }
    lines.insert(lines.end(), onAir.begin(), onAir.end());
    lines.insert(lines.end(), {"", heading("MESSAGES")});
    if (messages.empty()) {
        messages.emplace_back("  none");
    }
    lines.insert(lines.end(), messages.begin(), messages.end());
    lines.insert(lines.end(), {"", heading("WAITING"), "  " + (sWaiting.empty() ? "nothing" : sWaiting)});
    lines.insert(lines.end(),
                 {"", heading("SENT"), senderLine("announcements", partOf(view, "announcements"), ulNow),
                  senderLine("broadcasts of messages", partOf(view, "broadcasts"), ulNow)});
    if (view.contains("state")) {
        lines.insert(lines.end(), {"", heading("STATE"), "  " + stateLine(view, screen)});
    }
    lines.insert(lines.end(), {"", heading("THREADS")});
    for (const Json &thread : partOf(view, "threads")) {
        const std::string sState = textOf(thread, "state");
        const bool bAlive = thread.value("alive", false);
        lines.push_back("  " + padded(textOf(thread, "name"), 24) + "  " +
                        coloured(bAlive ? sState : "does not run",
                                 !bAlive || sState == "failed" ? kRed : nullptr, screen));
    }
    lines.insert(lines.end(), {"", heading("LAST FAILURES")});
    EventMemory memory;
    std::vector<std::string> failures;
    for (const Json &event : events) {
        if (isFailure(event)) {
            failures.push_back("  " + moment(numberOf(event, "time"), ulNow) + "  " +
                               eventText(event, &memory));
        }
    }
    if (failures.empty()) {
        failures.emplace_back("  none among the events that are kept");
    }
    failures.erase(failures.begin(),
                   failures.end() - static_cast<long>(std::min(failures.size(), kFailures)));
    lines.insert(lines.end(), failures.begin(), failures.end());
    return lines;
}

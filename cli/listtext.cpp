#include "listtext.h"

#include "clitext.h"
#include "safetext.h"

#include <pccast/castinfo.h>

#include <algorithm>
#include <array>
#include <map>
#include <string_view>
#include <tuple>
#include <utility>

namespace {

// ---- the order of the list, and why a request waits

using ByNumber = std::map<unsigned long, const Json *>;

// The service files relays in one list, files in another, messages in others.
enum List { LIST_RELAYS, LIST_FILES, LIST_MESSAGES };

List listOf(const Json &request) {
    if (isOfMessages(request)) {
        return LIST_MESSAGES;
    }
    const std::string sKind = textOf(request, "kind");
    CastIdentity identity{};
    if (sKind == "stop") {
        readCastIdentity(textOf(request, "identity"), &identity);
    }
    return sKind == "file" || identity.ulType == CAST_TYPE_FILE ? LIST_FILES : LIST_RELAYS;
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

// ---- the table

enum ColumnIndex { STATE, EPG, KIND, WHAT, WHERE, FROM, UNTIL, LEFT, IDENTITY, COLUMNS };
constexpr std::array<const char *, COLUMNS> kTitles{"STATE", "EPG",   "KIND", "WHAT",    "WHERE",
                                                    "FROM",  "UNTIL", "LEFT", "IDENTITY"};
using Cells = std::array<std::string, COLUMNS>;

Cells cellsOf(const Json &request, const Json &view) {
    const unsigned long ulNow = numberOf(view, "time");
    Cells cells;
    cells[STATE] = hasPlace(request, "on-air") ? "on air" : textOf(request, "place");
    cells[EPG] = std::to_string(numberOf(request, "epg"));
    cells[KIND] = textOf(request, "kind");
    const bool bStop = cells[KIND] == "stop" || cells[KIND] == "cancel";
    cells[WHAT] = bStop ? "" : whatOf(request);
    cells[WHERE] = bStop ? "" : textOf(request, "destination");
    cells[FROM] = moment(numberOf(request, "start"), ulNow);
    cells[UNTIL] = moment(numberOf(request, "end"), ulNow);
    cells[LEFT] = leftOf(request, view);
    cells[IDENTITY] = textOf(request, "identity");
    return cells;
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

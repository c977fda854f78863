#include "watchtable.h"

#include "airtext.h"
#include "clitext.h"
#include "safetext.h"

#include <algorithm>
#include <array>

namespace {

constexpr size_t kEntriesKept = 50;
// A cast is announced every 11 s; two missed ones in a row mean that its sender is silent.
constexpr unsigned long kSilentAfter = 25;

struct Column {
    const char *pszTitle;
    size_t uWidth;
};
// The most important columns come first: they fit into 80.
constexpr std::array<Column, 10> kCastColumns{{{"EPG", 10},
                                               {"KIND", 6},
                                               {"FORMAT", 6},
                                               {"DESTINATION", 21},
                                               {"LEFT", 8},
                                               {"STATE", 16},
                                               {"FROM", 8},
                                               {"UNTIL", 8},
                                               {"IDENTITY", 38},
                                               {"BY", 0}}};

constexpr const char *kGreen = "\033[32m";
constexpr const char *kRed = "\033[31m";
constexpr const char *kDim = "\033[2m";
constexpr const char *kBold = "\033[1m";

// Cuts the line to the columns, then colours the whole of it.
std::string coloured(const std::string &sLine, size_t uColumns, const char *pszColour, bool bColour) {
    const std::string sCut = textCut(sLine, uColumns);
    return bColour && pszColour != nullptr ? pszColour + sCut + "\033[0m" : sCut;
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

std::string castState(const WatchCast &cast, unsigned long ulNow, const char **ppszColour) {
    *ppszColour = kDim;
    if (cast.ulEnded != 0) {
        return "ended " + writeTimeOfDay(cast.ulEnded);
    }
    if (cast.record.uiET && *cast.record.uiET <= ulNow) {
        return "over";
    }
    *ppszColour = kRed;
    if (cast.record.eCheck == AIR_CHECK_WRONG) {
        return "CRC wrong";
    }
    if (ulNow > cast.ulHeard + kSilentAfter) {
        return "silent, " + ago(cast.ulHeard, ulNow);
    }
    *ppszColour = kGreen;
    return "on air, " + ago(cast.ulHeard, ulNow);
}

std::string castLine(const WatchCast &cast, unsigned long ulNow, const char **ppszColour) {
    const AirRecord &record = cast.record;
    const bool bLeft = cast.ulEnded == 0 && record.uiET && *record.uiET > ulNow;
    const std::array<std::string, 10> aCell{std::to_string(*record.uiEPGID),
                                            airTypeText(record),
                                            airFormatText(record),
                                            airDestination(record),
                                            bLeft ? writeTimeLeft(*record.uiET - ulNow) : "",
                                            castState(cast, ulNow, ppszColour),
                                            record.uiST ? writeTimeOfDay(*record.uiST) : "",
                                            record.uiET ? writeTimeOfDay(*record.uiET) : "",
                                            airIdentity(record),
                                            cast.sSender};
    std::string sLine = "  ";
    for (size_t i = 0; i < aCell.size(); ++i) {
        sLine += padded(aCell[i], kCastColumns[i].uWidth);
    }
    return sLine;
}

void noteCast(WatchState *pState, const AirRecord &record, unsigned long ulNow, const std::string &sSender) {
    const auto found = std::find_if(pState->casts.begin(), pState->casts.end(), [&](const WatchCast &cast) {
        return cast.sSender == sSender && cast.ulEnded == 0;
    });
    const bool bSame =
        found != pState->casts.end() && found->record.uiEPGID == record.uiEPGID &&
        (record.eKind == AIR_END || (found->record.uiST == record.uiST && found->record.uiET == record.uiET));
    if (record.eKind == AIR_END) {
        if (bSame) {
            found->ulEnded = ulNow;
            found->ulHeard = ulNow;
        }
        return; // the table does not show the end of a cast that it never showed
    }
    if (bSame) {
        found->record = record;
        found->ulHeard = ulNow;
        return;
    }
    if (found != pState->casts.end()) {
        found->ulEnded = ulNow;
    }
    pState->casts.push_front({sSender, record, ulNow, 0});
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

// Adds a heading and as many lines as there is room for. The last one counts those left out.
void addSection(std::vector<std::string> *pLines, const std::string &sHeading,
                const std::vector<std::string> &lines, size_t uColumns, size_t uRoom, bool bColour) {
    pLines->emplace_back();
    pLines->push_back(coloured(sHeading, uColumns, kBold, bColour));
    for (size_t i = 0; i < lines.size(); ++i) {
        if (i + 1 == uRoom && lines.size() > uRoom) {
            pLines->push_back(
                coloured("  and " + std::to_string(lines.size() - i) + " more", uColumns, kDim, bColour));
            return;
        }
        pLines->push_back(lines[i]);
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

std::vector<std::string> watchDraw(const WatchState &state, unsigned long ulNow, size_t uColumns,
                                   size_t uRows, bool bColour) {
    std::vector<std::string> casts;
    std::vector<std::string> messages;
    std::vector<std::string> problems;
    for (const WatchCast &cast : state.casts) {
        const char *pszColour = nullptr;
        const std::string sLine = castLine(cast, ulNow, &pszColour);
        casts.push_back(coloured(sLine, uColumns, pszColour, bColour));
    }
    for (const WatchMessage &message : state.messages) {
        const bool bOver = message.record.uiET && *message.record.uiET <= ulNow;
        messages.push_back(coloured("  " + writeTimeOfDay(message.ulHeard) + "  " +
                                        padded(std::to_string(message.ulTimes) + "x", 4) +
                                        textForTerminal(*message.record.sText),
                                    uColumns, bOver ? kDim : nullptr, bColour));
    }
    for (const WatchProblem &problem : state.problems) {
        problems.push_back(coloured("  " + writeTimeOfDay(problem.ulHeard) + "  " + problem.sText + ", by " +
                                        problem.sSender,
                                    uColumns, kRed, bColour));
    }
    if (casts.empty()) {
        casts.push_back(
            coloured("  nothing heard yet (a cast is announced every 11 s)", uColumns, kDim, bColour));
    }
    if (messages.empty()) {
        messages.push_back(coloured("  none", uColumns, kDim, bColour));
    }

    std::string sTitles = "  ";
    for (const Column &column : kCastColumns) {
        sTitles += padded(column.pszTitle, column.uWidth);
    }
    std::vector<std::string> lines;
    lines.push_back(coloured("pccast watch   " + writeTime(ulNow) + "   " +
                                 std::to_string(state.ulDatagrams) + " datagrams heard   Ctrl-C ends",
                             uColumns, nullptr, bColour));
    casts.insert(casts.begin(), coloured(sTitles, uColumns, kDim, bColour));
    // Messages and problems get up to a quarter of the room each. The casts get the rest. Room that the casts
    // do not need goes to the messages.
    const size_t uHeadings = problems.empty() ? 5 : 7;
    const size_t uRoom = std::max<size_t>(uRows, uHeadings + 4) - uHeadings;
    const size_t uProblems = std::min(problems.size(), uRoom / 4);
    const size_t uKept = uProblems + std::min(messages.size(), uRoom / 4);
    const size_t uCasts = std::min(casts.size(), uRoom - uKept);
    addSection(&lines, "ON AIR", casts, uColumns, uCasts, bColour);
    addSection(&lines, "MESSAGES", messages, uColumns, uRoom - uCasts - uProblems, bColour);
    if (!problems.empty()) {
        addSection(&lines, "PROBLEMS", problems, uColumns, uProblems, bColour);
    }
    lines.resize(std::min(lines.size(), uRows));
    return lines;
}

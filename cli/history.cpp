// pccast history - shows what was really on air.
#include "clitext.h"
#include "command.h"
#include "commands.h"
#include "historytext.h"
#include "statestore.h"
#include "viewcommand.h"

#include <vexa_pgl.h>

#include <algorithm>
#include <cstdio>
#include <memory>

namespace {

constexpr unsigned long kDay = 86400;

struct HistoryOptions {
    std::string sSince;
    std::string sEPG;
    std::string sState;
    bool bJSON = false;
    bool bCSV = false;
};

// A time of the past, or how long ago it is.
std::string readSince(const std::string &sText, unsigned long ulNow, unsigned long *pulTime) {
    unsigned long ulAgo = 0;
    if (readDuration(sText, &ulAgo).empty()) {
        *pulTime = ulNow - std::min(ulNow, ulAgo);
        return "";
    }
    std::string sProblem = readTime(sText, ulNow, pulTime);
    // The clock shows it next tomorrow, so it last did today.
    const bool bClock = sText.find_first_not_of("0123456789:") == std::string::npos;
    if (sProblem.empty() && bClock && *pulTime > ulNow) {
        *pulTime -= kDay;
    }
    if (sProblem.empty() && *pulTime > ulNow) {
        return "'" + sText +
               "' is still to come; give a time of the past, or how long ago it is, such as 1h30m";
    }
    return sProblem;
}

// Asks the service, or the file when a folder is given, for the next entries.
int ask(const HistoryOptions &options, const HistoryQuery &query, Json *pAnswer) {
    if (options.sState.empty()) {
        std::string sProblem;
        return checkAnswer(getHistory(query, pAnswer, &sProblem), sProblem);
    }
    const std::string sPath = options.sState + "/" + kStateFile;
    try {
        *pAnswer = Store(sPath, Store::READ).history(query);
        return EXIT_DONE;
    } catch (const StoreError &failure) {
        return sayAndReturn(EXIT_NO_INPUT, sPath + ": " + failure.what());
    }
}

int history(const HistoryOptions &options) {
    HistoryQuery query;
    query.bEPG = !options.sEPG.empty();
    int iExit = checkArguments(
        {{"--since",
          options.sSince.empty() ? "" : readSince(options.sSince, vexa_time(nullptr), &query.ulSince)},
         {"--epg", query.bEPG ? readNumber(options.sEPG, kNumberMax, &query.ulEPGID) : ""}});
    std::vector<Json> entries;
    if (iExit == EXIT_DONE && options.bCSV) {
        std::printf("%s\n", historyCSVHead().c_str());
    }
    while (iExit == EXIT_DONE) {
        Json answer;
        iExit = ask(options, query, &answer);
        if (iExit != EXIT_DONE) {
            return iExit;
        }
        const Json page = answer.value("entries", Json::array());
        if (page.empty()) {
            break;
        }
        for (const Json &entry : page) {
            if (options.bJSON || options.bCSV) {
                std::printf("%s\n", (options.bJSON ? writeJSON(entry) : historyCSV(entry)).c_str());
            } else {
                entries.push_back(entry);
            }
        }
        query.ulAfter = answer.value("last", query.ulAfter);
    }
    if (iExit == EXIT_DONE && !options.bJSON && !options.bCSV && entries.empty()) {
        return sayAndReturn(EXIT_DONE, "the history has no such entry");
    }
    for (const std::string &sLine : historyLines(entries)) {
        std::printf("%s\n", sLine.c_str());
    }
    return iExit;
}

} // namespace

void addHistoryCommand(CLI::App &app, int &iExitCode) {
    const Command command(app, "history", "show what was really on air, from when to when");
    auto options = std::make_shared<HistoryOptions>();
    command.option("--since", options->sSince, "what was on air then, or later").type("TIME|DURATION");
    command.option("--epg", options->sEPG, "of this programme alone").type("N");
    const Option json = command.flag("--json", options->bJSON, "one JSON object for each entry");
    command.flag("--csv", options->bCSV, "comma-separated values, with a head").excludes(json);
    command.option("--state", options->sState, "read the file of this folder, instead of asking the service")
        .type("FOLDER");
    command.footer(
        "The service keeps a history when it runs with --state. A duration means so long ago.\n\n" +
        helpExample("pccast history --since 1d --csv > log.csv"));
    command.action([options, &iExitCode] { iExitCode = history(*options); });
}

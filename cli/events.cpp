// pccast events - shows what has happened, and what happens.
#include "clitext.h"
#include "command.h"
#include "commands.h"
#include "eventtext.h"
#include "viewcommand.h"

#include <climits>
#include <cstdio>
#include <memory>

namespace {

struct EventsOptions {
    bool bFollow = false;
    bool bJSON = false;
    std::string sAfter;
};

// Shows what one answer holds.
void show(const Json &answer, bool bJSON, EventMemory *pMemory) {
    const unsigned long ulLost = answer.value("lost", 0ul);
    if (ulLost != 0) {
        sayAndReturn(EXIT_DONE, lostText(ulLost));
    }
    for (const Json &event : answer.value("events", Json::array())) {
        std::printf("%s\n", (bJSON ? writeJSON(event) : eventLine(event, pMemory)).c_str());
    }
    std::fflush(stdout);
}

int events(const EventsOptions &options) {
    unsigned long ulAfter = 0;
    int iExit = checkArguments(
        {{"--after", options.sAfter.empty() ? "" : readNumber(options.sAfter, ULONG_MAX, &ulAfter)}});
    EventMemory memory;
    bool bFirst = true;
    while (iExit == EXIT_DONE && std::ferror(stdout) == 0) {
        Json answer;
        std::string sProblem;
        const unsigned int uiWait = options.bFollow && !bFirst ? kViewWaitMax : 0;
        iExit = checkAnswer(getEvents(ulAfter, uiWait, &answer, &sProblem), sProblem);
        if (iExit != EXIT_DONE) {
            break;
        }
        show(answer, options.bJSON, &memory);
        ulAfter = answer.value("last", ulAfter);
        bFirst = false;
        if (!options.bFollow && answer.value("events", Json::array()).empty()) {
            break;
        }
    }
    return iExit;
}

} // namespace

void addEventsCommand(CLI::App &app, int &iExitCode) {
    const Command command(app, "events", "show what has happened to every request, oldest first");
    auto options = std::make_shared<EventsOptions>();
    command.flag("--follow", options->bFollow, "go on with what happens, until the service ends");
    command.flag("--json", options->bJSON, "one JSON object for each event");
    command.option("--after", options->sAfter, "only events with numbers above this").type("N");
    command.footer("The service keeps the last 1024 events.\n\n" +
                   helpExample("pccast events --json | jq 'select(.event == \"failed\")'"));
    command.action([options, &iExitCode] { iExitCode = events(*options); });
}

// pccast status - shows how the service does.
#include "command.h"
#include "commands.h"
#include "statustext.h"
#include "viewcommand.h"

#include <cstdio>
#include <memory>

namespace {

int status(bool bJSON) {
    Json view;
    std::string sProblem;
    int iExit = checkAnswer(getView(&view, &sProblem), sProblem);
    if (iExit != EXIT_DONE) {
        return iExit;
    }
    if (bJSON) {
        std::printf("%s\n", writeJSON(view).c_str());
        return EXIT_DONE;
    }
    std::vector<Json> events;
    unsigned long ulLost = 0;
    iExit = fetchEvents(0, &events, &ulLost);
    if (iExit != EXIT_DONE) {
        return iExit;
    }
    for (const std::string &sLine : statusLines(view, events, readScreen())) {
        std::printf("%s\n", sLine.c_str());
    }
    return EXIT_DONE;
}

} // namespace

void addStatusCommand(CLI::App &app, int &iExitCode) {
    const Command command(app, "status",
                          "show how the service does: rate, loss, position, threads, failures");
    auto bJSON = std::make_shared<bool>(false);
    command.flag("--json", *bJSON, "one JSON object");
    command.footer(helpExample("watch -n 1 pccast status"));
    command.action([bJSON, &iExitCode] { iExitCode = status(*bJSON); });
}

// pccast list - shows what is on air and what waits.
#include "command.h"
#include "commands.h"
#include "listtext.h"
#include "viewcommand.h"

#include <cstdio>
#include <memory>

namespace {

int list(bool bJSON) {
    Json view;
    std::string sProblem;
    const int iExit = checkAnswer(getView(&view, &sProblem), sProblem);
    if (iExit != EXIT_DONE) {
        return iExit;
    }
    if (bJSON) {
        std::printf(
            "%s\n",
            writeJSON(Json{{"time", view.value("time", 0ul)}, {"requests", listRequests(view)}}).c_str());
        return EXIT_DONE;
    }
    for (const std::string &sLine : listLines(view, readScreen())) {
        std::printf("%s\n", sLine.c_str());
    }
    return EXIT_DONE;
}

} // namespace

void addListCommand(CLI::App &app, int &iExitCode) {
    const Command command(app, "list", "show what is on air and what waits");
    auto bJSON = std::make_shared<bool>(false);
    command.flag("--json", *bJSON, "one JSON object");
    command.footer(
        "First what is on air, then in the order in which things will happen.\n\n" +
        helpExample("pccast list --json | jq -r '.requests[] | select(.kind == \"relay\").identity'"));
    command.action([bJSON, &iExitCode] { iExitCode = list(*bJSON); });
}

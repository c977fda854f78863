#include "viewcommand.h"

#include "commands.h"
#include "consolepump.h"

#include <sys/ioctl.h>
#include <unistd.h>

Screen readScreen() {
    if (isatty(STDOUT_FILENO) != 1) {
        return {0, false, false};
    }
    struct winsize size {};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0) {
        size.ws_col = 80;
    }
    return {size.ws_col, isColourful(STDOUT_FILENO), true};
}

int checkAnswer(ViewResult eResult, const std::string &sProblem) {
    return eResult == VIEW_ANSWERED ? EXIT_DONE : sayAndReturn(EXIT_UNAVAILABLE, sProblem);
}

int fetchEvents(unsigned long ulAfter, std::vector<Json> *pEvents, unsigned long *pulLost) {
    *pulLost = 0;
    for (;;) {
        Json answer;
        std::string sProblem;
        const int iExit = checkAnswer(getEvents(ulAfter, 0, &answer, &sProblem), sProblem);
        if (iExit != EXIT_DONE) {
            return iExit;
        }
        const Json events = answer.value("events", Json::array());
        if (events.empty()) {
            return EXIT_DONE;
        }
        *pulLost += answer.value("lost", 0ul);
        ulAfter = answer.value("last", 0ul);
        pEvents->insert(pEvents->end(), events.begin(), events.end());
    }
}

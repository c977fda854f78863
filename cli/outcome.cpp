#include "outcome.h"
#include "command.h"

#include "commands.h"
#include "eventtext.h"
#include "listtext.h"
#include "safetext.h"
#include "statustext.h"
#include "viewclient.h"
#include "viewwords.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <optional>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kFirstWord{2};
constexpr const char *kLeft = "\npccast: no longer following; what was requested goes on\n";

// What an event says of the request that it is about.
struct Ending {
    const char *pszEvent;
    const char *pszReason; // null: any other
    ExitCode eExit;
};
constexpr std::array<Ending, 11> kEndings{{
    {"refused", nullptr, EXIT_REFUSED},
    {"dropped", nullptr, EXIT_REFUSED},
    {"failed", nullptr, EXIT_FAILED},
    {"cancelled", nullptr, EXIT_STOPPED},
    {"expired", nullptr, EXIT_EXPIRED},
    {"ended", "end-time", EXIT_DONE},
    {"ended", "file-end", EXIT_DONE},
    {"ended", "stop", EXIT_STOPPED},
    {"ended", "closing", EXIT_CLOSED},
    {"ended", nullptr, EXIT_FAILED},
    {"finished", nullptr, EXIT_DONE},
}};

// What is known of the request so far.
struct Followed {
    RequestMark mark;
    unsigned long ulAfter = 0;   // the last event that was read
    unsigned long ulRequest = 0; // its number; 0: not filed yet
    bool bOnAir = false;
    bool bWasOnAir = false;
    bool bForEver = false;          // a message that is repeated until its end
    bool bReplaced = false;         // just now
    std::vector<std::string> ended; // what it took off the air
    std::optional<int> exit;        // it is over
};

bool isOurs(const Followed &followed, const Json &event) {
    if (followed.ulRequest != 0) {
        return numberAt(event, "request") == followed.ulRequest;
    }
    return textAt(event, "kind") == followed.mark.sKind &&
           textAt(event, "identity") == followed.mark.sIdentity &&
           numberAt(event, "created") == followed.mark.ulCT;
}

int endingOf(const Followed &followed, const Ending &ending) {
    if (ending.eExit != EXIT_EXPIRED || !followed.bWasOnAir) {
        return ending.eExit;
    }
    return followed.bForEver ? EXIT_DONE : EXIT_PREEMPTED;
}

void note(Followed *pFollowed, const Json &event) {
    const std::string sEvent = textAt(event, "event");
    if (pFollowed->ulRequest != 0 && sEvent == "preempted" &&
        numberAt(event.value("other", Json::object()), "request") == pFollowed->ulRequest) {
        pFollowed->ended.push_back(shortNameOf(event));
    }
    if (!isOurs(*pFollowed, event)) {
        return;
    }
    pFollowed->ulRequest = numberAt(event, "request");
    pFollowed->bForEver = event.contains("text") && numberAt(event, "repeats") == 0;
    if (sEvent == "started" || sEvent == "returned" || sEvent == "current") {
        pFollowed->bOnAir = pFollowed->bWasOnAir = true;
    } else if (sEvent == "preempted" || sEvent == "replaced") {
        pFollowed->bOnAir = false;
        pFollowed->bReplaced = true;
    }
    for (const Ending &ending : kEndings) {
        if (sEvent == ending.pszEvent &&
            (ending.pszReason == nullptr || textAt(event, "reason") == ending.pszReason)) {
            pFollowed->exit = endingOf(*pFollowed, ending);
            return;
        }
    }
}

// Reads the next events, waiting up to uiWait seconds for the first. Those of the request go into *pOwn.
// Returns EXIT_DONE, or what is to be said of the request when the service gives no further word (said).
int readOn(Followed *pFollowed, unsigned int uiWait, std::vector<Json> *pOwn) {
    Json answer;
    std::string sProblem;
    const ViewResult eResult = getEvents(pFollowed->ulAfter, uiWait, &answer, &sProblem);
    if (eResult == VIEW_ABSENT ||
        (eResult == VIEW_ANSWERED && numberAt(answer, "last") < pFollowed->ulAfter)) {
        return sayAndReturn(EXIT_CLOSED,
                            "the service has been closed; what became of the request is not known");
    }
    if (eResult != VIEW_ANSWERED) {
        return sayAndReturn(EXIT_NO_WORD, sProblem + "; what becomes of the request is not known");
    }
    if (numberAt(answer, "lost") != 0) {
        sayAndReturn(EXIT_DONE, lostText(numberAt(answer, "lost")));
    }
    pFollowed->ulAfter = numberAt(answer, "last");
    for (const Json &event : answer.value("events", Json::array())) {
        note(pFollowed, event);
        if (pFollowed->ulRequest != 0 && numberAt(event, "request") == pFollowed->ulRequest) {
            pOwn->push_back(event);
        }
    }
    return EXIT_DONE;
}

// The request in the view, with the reason why it waits; null when it is no longer there.
Json findRequest(const Json &view, unsigned long ulRequest) {
    for (Json &request : listRequests(view)) {
        if (numberAt(request, "request") == ulRequest) {
            return std::move(request);
        }
    }
    return nullptr;
}

// Why the request does not go on air now; empty when nothing is in the way.
std::string waitText(const Json &view, const Json &request) {
    const std::string sWhy = textAt(request, "why");
    if (!sWhy.empty()) {
        return sWhy.starts_with("behind") ? "waits " + sWhy : sWhy;
    }
    const unsigned long ulNow = numberAt(view, "time");
    return numberAt(request, "start") > ulNow ? "waits until " + moment(numberAt(request, "start"), ulNow)
                                              : "";
}

std::string joined(const std::vector<std::string> &parts) {
    std::string sAll;
    for (const std::string &sPart : parts) {
        sAll += (sAll.empty() ? "" : " and ") + sPart;
    }
    return sAll;
}

void sayEnd(const Followed &followed, const Json &event) {
    const std::string sReason = reasonText(event);
    sayAndReturn(*followed.exit,
                 textForTerminal(textAt(event, "event")) + (sReason.empty() ? "" : ": " + sReason));
}

// Waits for the first word and says it. Returns an exit code; EXIT_DONE: it is on air, waits, or is over as
// it was meant to be.
int sayFirstWord(Followed *pFollowed) {
    const Clock::time_point end = Clock::now() + kFirstWord;
    std::string sWait;
    for (bool bLast = false; !bLast;) {
        bLast = Clock::now() + std::chrono::seconds(1) >= end;
        std::vector<Json> own;
        const int iExit = readOn(pFollowed, 1, &own);
        if (iExit != EXIT_DONE) {
            return iExit;
        }
        if (pFollowed->exit) {
            sayEnd(*pFollowed, own.back());
            return *pFollowed->exit;
        }
        if (pFollowed->bOnAir) {
            return sayAndReturn(EXIT_DONE,
                                "on air now" + (pFollowed->ended.empty()
                                                    ? ""
                                                    : "; it ended the " + joined(pFollowed->ended)));
        }
        Json view;
        std::string sProblem;
        if (pFollowed->ulRequest != 0 && getView(&view, &sProblem) == VIEW_ANSWERED) {
            const Json request = findRequest(view, pFollowed->ulRequest);
            sWait = request.is_null() ? "" : waitText(view, request);
            if (!sWait.empty()) {
                return sayAndReturn(EXIT_DONE, sWait);
            }
        }
    }
    if (pFollowed->ulRequest == 0) {
        return sayAndReturn(EXIT_NO_WORD, "the service has not taken it up within 2 s; pccast list shows "
                                          "whether it does later");
    }
    return sayAndReturn(EXIT_DONE, "waits for its turn");
}

// ---- following

extern "C" void leave(int /*iSignal*/) {
    if (write(STDERR_FILENO, kLeft, std::char_traits<char>::length(kLeft)) < 0) {
        _exit(EXIT_INTERNAL);
    }
    _exit(EXIT_INTERRUPTED);
}

size_t terminalColumns() {
    struct winsize size {};
    return ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : 80;
}

// The line that stands at the bottom while the request is followed.
std::string progressLine(const Json &view, const Json &request, unsigned long ulRequest) {
    if (request.is_null()) {
        return "";
    }
    const std::string sTraffic = trafficLine(view, ulRequest);
    if (sTraffic.empty()) {
        return waitText(view, request);
    }
    const std::string sBar = onAirBar(view, request);
    const std::string sBoth = sBar + (sBar.empty() ? "" : " ") + sTraffic;
    // The loss of a relay is of more use than how much of its time is over.
    return textAt(request, "kind") == "relay" && textColumns(sBoth) >= terminalColumns() ? sTraffic : sBoth;
}

// Whether a request that has been taken off the air is off for good.
bool isGone(const Json &request) {
    return request.is_null() || textAt(request, "place") == "over";
}

int follow(Followed *pFollowed) {
    const bool bTerminal = isatty(STDERR_FILENO) == 1;
    std::signal(SIGINT, leave);
    EventMemory memory;
    int iExit = EXIT_DONE;
    while (iExit == EXIT_DONE && !pFollowed->exit) {
        std::vector<Json> own;
        iExit = readOn(pFollowed, bTerminal ? 1 : kViewWaitMax, &own);
        if (bTerminal && (iExit != EXIT_DONE || !own.empty())) {
            std::fprintf(stderr, "\r\033[K");
        }
        for (const Json &event : own) {
            std::fprintf(stderr, "%s\n", eventLine(event, &memory).c_str());
        }
        Json view;
        std::string sProblem;
        const bool bReplaced = pFollowed->bReplaced;
        pFollowed->bReplaced = false;
        if (iExit != EXIT_DONE || pFollowed->exit || (!bTerminal && !bReplaced) ||
            getView(&view, &sProblem) != VIEW_ANSWERED) {
            continue;
        }
        const Json request = findRequest(view, pFollowed->ulRequest);
        if (bReplaced && isGone(request)) {
            return sayAndReturn(EXIT_PREEMPTED, "it will not return");
        }
        if (bTerminal) {
            const std::string sLine = progressLine(view, request, pFollowed->ulRequest);
            std::fprintf(stderr, "\r%s\033[K", textCut(sLine, terminalColumns() - 1).c_str());
        }
    }
    std::signal(SIGINT, SIG_DFL);
    return iExit == EXIT_DONE ? *pFollowed->exit : iExit;
}

} // namespace

void addFollowOption(const Command &command, bool &bFollow) {
    command.flag("--follow", bFollow,
                 "stay until it is over; the exit code tells how it ended (Ctrl-C leaves it running)");
}

int rememberEvents(bool bFollow, EventPlace *pPlace) {
    std::string sProblem;
    const ViewResult eResult = getNewestEvent(&pPlace->ulAfter, &sProblem);
    pPlace->bView = eResult == VIEW_ANSWERED;
    if (pPlace->bView) {
        return EXIT_DONE;
    }
    if (eResult == VIEW_ABSENT) {
        sProblem = "this service's host has no view";
    }
    return bFollow
               ? sayAndReturn(EXIT_UNAVAILABLE, sProblem + ", so --follow is not possible; nothing was sent")
               : sayAndReturn(EXIT_DONE, sProblem + ", so what becomes of the request is not told");
}

int tellOutcome(const EventPlace &place, const RequestMark &mark, bool bFollow) {
    if (!place.bView) {
        return EXIT_DONE;
    }
    Followed followed;
    followed.mark = mark;
    followed.ulAfter = place.ulAfter;
    const int iExit = sayFirstWord(&followed);
    return iExit == EXIT_DONE && bFollow && !followed.exit ? follow(&followed) : iExit;
}

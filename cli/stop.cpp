// pccast stop - takes waiting casts back and ends those on air.
//
// The service ends whichever cast of the same type is on air when a stop request equals no waiting one. So
// this looks first what there is, and sends only what can meet its target and nothing else:
//   waiting   a stop with the target's identity takes it out of its list. It is made as the oldest request of
//             all: if it comes too late it does not become due before anything else, and is taken back.
//   pending   the request has left its list, and a stop of its type would be carried out at its start and end
//             what is then on air. A stop without duration takes its place and is over before it is due.
//   on air    a stop with the target's identity, as old as the target: a newer cast is safe from it.
#include "command.h"
#include "commands.h"
#include "eventtext.h"
#include "listtext.h"
#include "revoke.h"
#include "submit.h"
#include "viewclient.h"
#include "viewwords.h"

#include "castformat.h"

#include <vexa_pgl.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <thread>

namespace {

constexpr unsigned long kHorizon = 2; // the service takes a request so many seconds before its start
constexpr unsigned long kOldest = 1;  // a creation time before all others
constexpr unsigned long kGrace = 10;  // seconds for a stop of a cast that plays beyond its end
constexpr int kTries = 3;             // the target may change its place meanwhile
constexpr std::chrono::milliseconds kLook{100};
constexpr int kLooks = 30; // 3 s for the next cast to take the place of one that was taken back

struct StopOptions {
    std::string sIdentity;
    std::string sEPG;
    std::string sOnAir;
    bool bOnAir = false;
    bool bAll = false;
    // For a host without a view.
    std::string sType;
    std::string sStart;
    std::string sEnd;
    std::string sPort;
    std::string sFormat;
    ServiceOptions service;
};

// The options as read.
struct Wanted {
    CastIdentity identity;
    bool bParts; // the identity is given in parts
};

bool hasParts(const StopOptions &options) {
    return !options.sType.empty() || !options.sStart.empty() || !options.sEnd.empty() ||
           !options.sPort.empty() || !options.sFormat.empty();
}

int readParts(const StopOptions &options, CastIdentity *pIdentity) {
    if (options.sEPG.empty() || options.sStart.empty() || options.sEnd.empty() || options.sPort.empty()) {
        return sayAndReturn(EXIT_USAGE,
                            "which cast? --type, --start, --end, --port and --format name one only "
                            "together with --epg; give IDENTITY, --epg alone, --on-air or --all");
    }
    const unsigned long ulNow = vexa_time(nullptr);
    unsigned long ulPort = 0;
    const int iExit = checkArguments(
        {{"--epg", readNumber(options.sEPG, kNumberMax, &pIdentity->ulEPGID)},
         {"--type", readNumber(options.sType.empty() ? "2" : options.sType, CAST_TYPE_STREAM_2,
                               &pIdentity->ulType, CAST_TYPE_FILE)},
         {"--start", readTime(options.sStart, ulNow, &pIdentity->ulST)},
         {"--end", readTime(options.sEnd, ulNow, &pIdentity->ulET)},
         {"--port", readNumber(options.sPort, 65535, &ulPort, 1)},
         {"--format", readFormat(options.sFormat.empty() ? "ts" : options.sFormat, &pIdentity->ulFormat)}});
    pIdentity->usPort = static_cast<unsigned short>(ulPort);
    return iExit;
}

int readOptions(const StopOptions &options, Wanted *pWanted) {
    pWanted->bParts = hasParts(options);
    if (pWanted->bParts) {
        return readParts(options, &pWanted->identity);
    }
    if (options.sIdentity.empty() && options.sEPG.empty() && !options.bOnAir && !options.bAll) {
        return sayAndReturn(EXIT_USAGE,
                            "which cast? give the IDENTITY that relay or file printed (pccast list "
                            "shows it too), --epg N, --on-air or --all");
    }
    if (!options.sOnAir.empty() && options.sOnAir != "relay" && options.sOnAir != "file") {
        return sayAndReturn(EXIT_USAGE, "--on-air: '" + options.sOnAir + "' is neither relay nor file");
    }
    return checkArguments(
        {{"IDENTITY",
          options.sIdentity.empty() ? "" : readCastIdentity(options.sIdentity, &pWanted->identity)},
         {"--epg",
          options.sEPG.empty() ? "" : readNumber(options.sEPG, kNumberMax, &pWanted->identity.ulEPGID)}});
}

// Fills in what the service uses nothing of, but refuses a record without.
CastRequest stopRequest(const CastIdentity &identity, unsigned long ulCT) {
    CastRequest request{};
    request.identity = identity;
    request.ulCT = ulCT;
    request.sSource = "0.0.0.0";
    request.usSourcePort = identity.usPort;
    request.sDestination = "0.0.0.0";
    request.sFile = "-";
    return request;
}

// ---- without a view

int stopBlindly(const StopOptions &options, const Wanted &wanted, const Service &service) {
    if (options.sIdentity.empty() && !wanted.bParts) {
        return sayAndReturn(EXIT_UNAVAILABLE,
                            "this service's host has no view, so it cannot be looked up what "
                            "there is to stop; give IDENTITY; nothing was sent");
    }
    const unsigned long ulNow = vexa_time(nullptr);
    if (wanted.identity.ulET <= ulNow) {
        return sayAndReturn(EXIT_BAD_DATA, "the time of that cast was over at " +
                                               writeTime(wanted.identity.ulET) +
                                               "; there is nothing left to stop");
    }
    sayAndReturn(EXIT_DONE,
                 "careful: this service's host has no view. If that cast neither waits nor is on air, "
                 "the one of its type that is on air ends in its place");
    const int iExit = submitCast(service, CAST_CMD_STOP, stopRequest(wanted.identity, ulNow));
    return iExit == EXIT_DONE ? sayAndReturn(EXIT_DONE, "stop requested") : iExit;
}

// ---- what there is

bool isCast(const Json &request) {
    const std::string sKind = textAt(request, "kind");
    return sKind == "relay" || sKind == "file";
}

bool hasPlace(const Json &request, const char *pszPlace) {
    return textAt(request, "place") == pszPlace;
}

CastIdentity identityOf(const Json &request) {
    CastIdentity identity{};
    readCastIdentity(textAt(request, "identity"), &identity);
    return identity;
}

// Whether the service takes both for the same.
bool isSame(const CastIdentity &a, const CastIdentity &b) {
    return a.ulEPGID == b.ulEPGID && a.ulType == b.ulType && a.ulST == b.ulST && a.ulET == b.ulET &&
           a.usPort == b.usPort;
}

bool isWanted(const StopOptions &options, const Wanted &wanted, const Json &request) {
    return isCast(request) && (options.sIdentity.empty() || isSame(identityOf(request), wanted.identity)) &&
           (options.sEPG.empty() || numberAt(request, "epg") == wanted.identity.ulEPGID) &&
           (!options.bOnAir || hasPlace(request, "on-air")) &&
           (options.sOnAir.empty() || textAt(request, "kind") == options.sOnAir);
}

// Says the requests as list does.
void sayRequests(Json view, const std::vector<unsigned long> *pOnly) {
    Json &requests = view["requests"];
    Json shown = Json::array();
    for (const Json &request : requests) {
        if (isCast(request) &&
            (pOnly == nullptr ||
             std::find(pOnly->begin(), pOnly->end(), numberAt(request, "request")) != pOnly->end())) {
            shown.push_back(request);
        }
    }
    if (shown.empty()) {
        sayAndReturn(EXIT_DONE, "no cast is on air, and none waits");
        return;
    }
    requests = std::move(shown);
    for (const std::string &sLine : listLines(view, {80, false, false})) {
        std::fprintf(stderr, "  %s\n", sLine.c_str());
    }
}

std::string nameOf(const Json &request) {
    return shortNameOf(request) + " (" + textAt(request, "identity") + ")";
}

// Takes the wanted requests out of the view. Returns EXIT_DONE, or EXIT_BAD_DATA (said) when none is left to
// stop or when it is not clear which one is meant.
int findTargets(const StopOptions &options, const Wanted &wanted, const Json &view,
                std::vector<unsigned long> *pTargets) {
    Json over;
    for (const Json &request : view.value("requests", Json::array())) {
        if (!isWanted(options, wanted, request)) {
            continue;
        }
        if (hasPlace(request, "over")) {
            over = request;
        } else {
            pTargets->push_back(numberAt(request, "request"));
        }
    }
    if (pTargets->empty() && !over.is_null()) {
        return sayAndReturn(EXIT_BAD_DATA, nameOf(over) +
                                               " is over already, though older ones wait for its end at " +
                                               writeTime(numberAt(over, "end")) + "; nothing was sent");
    }
    if (pTargets->empty()) {
        sayAndReturn(EXIT_BAD_DATA, "there is no such cast; nothing was sent. There is:");
        sayRequests(view, nullptr);
        return EXIT_BAD_DATA;
    }
    if (pTargets->size() > 1 && !options.bAll) {
        sayAndReturn(EXIT_BAD_DATA,
                     "several casts match; nothing was sent. Add --all, or name one of these:");
        sayRequests(view, pTargets);
        return EXIT_BAD_DATA;
    }
    return EXIT_DONE;
}

// ---- stopping

// What is still to be stopped, and how far the events have been read.
struct Stopping {
    const Service &service;
    std::vector<unsigned long> targets;
    unsigned long ulAfter;
    int iTries;
    int iExit;          // the first that went wrong
    int iEndedByItself; // what a target that is over meanwhile makes of it: with --all it is all the same
};

void isOver(Stopping *pStopping, unsigned long ulTarget, int iExit) {
    std::erase(pStopping->targets, ulTarget);
    pStopping->iTries = 0;
    if (pStopping->iExit == EXIT_DONE) {
        pStopping->iExit = iExit;
    }
}

// Nothing can be done about those that are left.
void areOver(Stopping *pStopping, int iExit) {
    pStopping->targets.clear();
    isOver(pStopping, 0, iExit);
}

// The target to go on with: waiting ones first, so that none goes on air when another one is stopped.
Json nextTarget(const Stopping &stopping, const Json &view) {
    for (const char *pszPlace : {"waiting", "pending", "on-air"}) {
        for (const Json &request : view.value("requests", Json::array())) {
            if (hasPlace(request, pszPlace) &&
                std::find(stopping.targets.begin(), stopping.targets.end(), numberAt(request, "request")) !=
                    stopping.targets.end()) {
                return request;
            }
        }
    }
    return nullptr;
}

// A waiting request that is not to be stopped, but that a stop of the identity would take back.
Json twinOf(const Stopping &stopping, const Json &view, const CastIdentity &identity) {
    for (const Json &request : view.value("requests", Json::array())) {
        if (isCast(request) && hasPlace(request, "waiting") && isSame(identityOf(request), identity) &&
            std::find(stopping.targets.begin(), stopping.targets.end(), numberAt(request, "request")) ==
                stopping.targets.end()) {
            return request;
        }
    }
    return nullptr;
}

// The stop that meets the target and nothing else.
CastRequest stopFor(const Json &target, const Json &view) {
    const unsigned long ulNow = numberAt(view, "time");
    CastIdentity identity = identityOf(target);
    if (hasPlace(target, "waiting")) {
        return stopRequest(identity, kOldest);
    }
    if (hasPlace(target, "pending")) {
        identity.ulST = identity.ulET = ulNow + kHorizon;
    } else if (identity.ulST > ulNow) { // the clock was stepped back
        identity.ulST = ulNow;
    } else if (identity.ulET <= ulNow) { // the file plays beyond its end
        identity.ulET = ulNow + kGrace;
    }
    return stopRequest(identity, numberAt(target, "created"));
}

// Takes a stop back that still waits. It could meet another cast later.
void withdraw(const Stopping &stopping, const CastRequest &request) {
    Json view;
    std::string sProblem;
    const std::string sIdentity = writeCastIdentity(request.identity);
    if (getView(&view, &sProblem) != VIEW_ANSWERED) {
        return;
    }
    for (const Json &other : view.value("requests", Json::array())) {
        if (textAt(other, "kind") == "stop" && hasPlace(other, "waiting") &&
            textAt(other, "identity") == sIdentity) {
            submitCast(stopping.service, CAST_CMD_STOP, stopRequest(request.identity, kOldest));
            return;
        }
    }
}

// A cast on air that was taken back leaves the air when the cast that is about to start takes its place.
// Returns whether it has left.
bool hasLeftTheAir(unsigned long ulTarget) {
    for (int i = 0; i < kLooks; ++i) {
        Json view;
        std::string sProblem;
        if (getView(&view, &sProblem) != VIEW_ANSWERED) {
            return true;
        }
        bool bOnAir = false;
        for (const Json &request : view.value("requests", Json::array())) {
            bOnAir = bOnAir || (numberAt(request, "request") == ulTarget && hasPlace(request, "on-air"));
        }
        if (!bOnAir) {
            return true;
        }
        std::this_thread::sleep_for(kLook);
    }
    return false;
}

// What the stop has met.
void tellMet(Stopping *pStopping, const Json &event, bool bOnAir) {
    const unsigned long ulMet = numberAt(event, "request");
    const bool bEnded = textAt(event, "event") == "ended";
    if (std::find(pStopping->targets.begin(), pStopping->targets.end(), ulMet) == pStopping->targets.end()) {
        const int iExit = sayAndReturn(EXIT_INTERNAL, "another cast was met: the " + nameOf(event));
        isOver(pStopping, ulMet, iExit);
        return;
    }
    if (!bEnded && bOnAir && !hasLeftTheAir(ulMet)) {
        return; // once more
    }
    isOver(
        pStopping, ulMet,
        sayAndReturn(EXIT_DONE, std::string(bEnded ? "stopped" : "taken back") + ": the " + nameOf(event)));
}

// Looks once more, and sends one stop.
void stopNext(Stopping *pStopping) {
    Json view;
    std::string sProblem;
    if (getView(&view, &sProblem) != VIEW_ANSWERED) {
        return areOver(pStopping, sayAndReturn(EXIT_UNAVAILABLE, sProblem));
    }
    const Json target = nextTarget(*pStopping, view);
    if (target.is_null()) {
        sayAndReturn(EXIT_DONE, "what was left is over meanwhile; nothing more was sent");
        return areOver(pStopping, pStopping->iEndedByItself);
    }
    const unsigned long ulTarget = numberAt(target, "request");
    if (++pStopping->iTries > kTries) {
        isOver(pStopping, ulTarget,
               sayAndReturn(EXIT_NO_WORD, "the " + nameOf(target) + " is still there; pccast list shows it"));
        return;
    }
    const CastRequest request = stopFor(target, view);
    const Json twin = twinOf(*pStopping, view, request.identity);
    if (!twin.is_null()) {
        isOver(
            pStopping, ulTarget,
            sayAndReturn(EXIT_BAD_DATA, "the " + nameOf(twin) +
                                            " that waits has the same identity, and would be taken back in "
                                            "its place; nothing was sent. Stop both: IDENTITY --all"));
        return;
    }
    const int iExit = submitCast(pStopping->service, CAST_CMD_STOP, request);
    if (iExit != EXIT_DONE) {
        return areOver(pStopping, iExit);
    }
    Json event;
    const Revocation revocation{"stop", writeCastIdentity(request.identity), ulTarget};
    switch (awaitRevocation(revocation, &pStopping->ulAfter, &event)) {
    case REVOKE_MET:
        tellMet(pStopping, event, hasPlace(target, "on-air"));
        break;
    case REVOKE_LATE:
        withdraw(*pStopping, request);
        isOver(
            pStopping, ulTarget,
            sayAndReturn(pStopping->iEndedByItself, "the " + nameOf(target) + " came to its end meanwhile: " +
                                                        textAt(event, "event") + ", " + reasonText(event)));
        break;
    case REVOKE_VOID: // look once more where it is now
        break;
    case REVOKE_SILENT:
        withdraw(*pStopping, request);
        break;
    }
}

int stop(const StopOptions &options) {
    Wanted wanted{};
    Service service{};
    Json view;
    std::string sProblem;
    int iExit = readOptions(options, &wanted);
    if (iExit == EXIT_DONE) {
        iExit = reachService(options.service, ServiceKind::Casts, &service);
    }
    if (iExit != EXIT_DONE) {
        return iExit;
    }
    const ViewResult eResult = getView(&view, &sProblem);
    if (eResult == VIEW_ABSENT) {
        return stopBlindly(options, wanted, service);
    }
    if (eResult != VIEW_ANSWERED) {
        return sayAndReturn(EXIT_UNAVAILABLE, sProblem + "; nothing was sent");
    }
    if (wanted.bParts) {
        return sayAndReturn(EXIT_USAGE,
                            "--type, --start, --end, --port and --format are for a host without a "
                            "view; give IDENTITY, --epg, --on-air or --all (pccast list shows what "
                            "there is)");
    }
    Stopping stopping{service, {},        numberAt(view, "events"),
                      0,       EXIT_DONE, options.bAll ? EXIT_DONE : EXIT_BAD_DATA};
    iExit = findTargets(options, wanted, view, &stopping.targets);
    while (iExit == EXIT_DONE && !stopping.targets.empty()) {
        stopNext(&stopping);
    }
    return iExit == EXIT_DONE ? stopping.iExit : iExit;
}

} // namespace

void addStopCommand(CLI::App &app, int &iExitCode) {
    const Command command(app, "stop", "take a waiting cast back, or end the one on air");
    auto options = std::make_shared<StopOptions>();
    const Option identity =
        command.option("IDENTITY", options->sIdentity, "the line that relay or file printed, or list shows")
            .type("");
    const Option epg = command.option("--epg", options->sEPG, "the cast of this programme").type("N");
    const Option onAir =
        command.option("--on-air", options->sOnAir, "the cast on air, of this kind or of any")
            .type("relay|file")
            .expects(0, 1);
    command.flag("--all", options->bAll, "every cast that the other options leave, not one alone");
    identity.excludes(epg).excludes(onAir);
    const std::string sGroup = "Options for a host without a view, all with --epg";
    command.option("--type", options->sType, "1 a file, 2 or 3 a relay (default 2)").type("N").group(sGroup);
    command.option("--start", options->sStart, "its start").type("TIME").group(sGroup);
    command.option("--end", options->sEnd, "its end").type("TIME").group(sGroup);
    command.option("--port", options->sPort, "its destination port").type("PORT").group(sGroup);
    command.option("--format", options->sFormat, "the format that its end is announced with (default ts)")
        .type("ts|asf|NUMBER")
        .group(sGroup);
    addServiceOptions(command, options->service);
    command.footer(
        "It looks first what there is. If nothing matches, or more than one cast does, it says so,\n"
        "sends nothing and exits with 65. It says stopped when the service has told so.\n\n" +
        helpExample("pccast stop 7:2:1790000000:1790003600:5000:0x2021\n"
                    "  pccast stop --on-air file"));
    setRequestAction(
        command,
        [options, onAir] {
            options->bOnAir = onAir.isGiven();
            return stop(*options);
        },
        iExitCode);
}

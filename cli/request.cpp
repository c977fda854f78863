#include "request.h"
#include "command.h"

#include "castformat.h"
#include "commands.h"
#include "outcome.h"

#include <unistd.h>
#include <vexa_pgl.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace {

// Says on standard error when the cast is an ASF cast and this machine has no station file.
void warnWithoutStationFile(unsigned long ulFormat) {
    if (isASFFormat(ulFormat) && access(kStationFile, R_OK) != 0) {
        std::fprintf(
            stderr,
            "pccast: note: %s: %s; without it ASF casts are not announced and ASF files are not played "
            "(pccast station writes one)\n",
            kStationFile, std::strerror(errno));
    }
}

} // namespace

void addRequestOptions(const Command &command, RequestOptions &options, const char *pszDefaultFor) {
    command.option("--epg", options.sEPG, "the programme that it belongs to (default 1)").type("N");
    command.option("--start", options.sStart, "when it starts (default now)").type("TIME");
    const Option end = command.option("--end", options.sEnd, "when it ends").type("TIME");
    command
        .option("--for", options.sFor,
                std::string("how long it lasts, instead of --end (default ") + pszDefaultFor + ")")
        .type("DURATION")
        .excludes(end);
    addFollowOption(command, options.bFollow);
    addServiceOptions(command, options.service);
}

int readRequestOptions(const RequestOptions &options, unsigned long ulDefaultFor, RequestTimes *pTimes) {
    const unsigned long ulNow = vexa_time(nullptr);
    RequestTimes times{0, ulNow, 0, 0};
    unsigned long ulFor = ulDefaultFor;
    const int iExit =
        checkArguments({{"--epg", readNumber(options.sEPG, kNumberMax, &times.ulEPGID)},
                        {"--start", readTime(options.sStart, ulNow, &times.ulST)},
                        {"--end", options.sEnd.empty() ? "" : readTime(options.sEnd, ulNow, &times.ulET)},
                        {"--for", options.sFor.empty() ? "" : readDuration(options.sFor, &ulFor)}});
    if (iExit != EXIT_DONE) {
        return iExit;
    }
    if (options.sEnd.empty()) {
        times.ulET = times.ulST + ulFor;
    }
    if (times.ulET > kNumberMax) {
        return sayAndReturn(EXIT_BAD_DATA,
                            "the end would lie beyond 2106-02-07T06:28:15Z, the last time that fits "
                            "the 32 bits on the wire; give an earlier end or a shorter duration");
    }
    if (times.ulET <= ulNow) {
        return sayAndReturn(EXIT_BAD_DATA, "the end, " + writeTime(times.ulET) +
                                               ", has passed; give an end after " + writeTime(ulNow));
    }
    if (times.ulET <= times.ulST) {
        return sayAndReturn(EXIT_BAD_DATA, "the end, " + writeTime(times.ulET) +
                                               ", is not after the start, " + writeTime(times.ulST) +
                                               "; give a later end or a longer duration");
    }
    *pTimes = times;
    return EXIT_DONE;
}

int reachForRequest(const RequestOptions &options, unsigned long ulDefaultFor, ServiceKind eKind,
                    Service *pService, RequestTimes *pTimes) {
    const int iExit = reachService(options.service, eKind, pService);
    return iExit == EXIT_DONE ? readRequestOptions(options, ulDefaultFor, pTimes) : iExit;
}

int requestCast(const RequestOptions &options, const Service &service, const CastRequest &request,
                const std::string &sDescription) {
    const CastIdentity &identity = request.identity;
    const bool bFile = identity.ulType == CAST_TYPE_FILE;
    EventPlace place{};
    warnWithoutStationFile(identity.ulFormat);
    int iExit = rememberEvents(options.bFollow, &place);
    if (iExit == EXIT_DONE) {
        iExit = submitCast(service, CAST_CMD_START, request);
    }
    if (iExit != EXIT_DONE) {
        return iExit;
    }
    printResult(writeCastIdentity(identity));
    sayAndReturn(EXIT_DONE, sDescription + " requested from " + writeTime(identity.ulST) + " until " +
                                writeTime(identity.ulET) +
                                (bFile ? " (a longer file plays on to its end)" : "") +
                                "; pccast stop takes the line above");
    return tellOutcome(place, {bFile ? "file" : "relay", writeCastIdentity(identity), request.ulCT},
                       options.bFollow);
}

// pccast stop - takes the equal cast request back if it still waits, else ends the cast on air.
#include "commands.h"
#include "submit.h"

#include "castformat.h"

#include <CLI/CLI.hpp>
#include <vexa_pgl.h>

#include <memory>

namespace {

struct StopOptions {
    std::string sIdentity;
    std::string sEPG;
    std::string sType = "2";
    std::string sStart;
    std::string sEnd;
    std::string sPort;
    std::string sFormat = "ts";
    ServiceOptions service;
};

int readParts(const StopOptions &options, unsigned long ulNow, CastIdentity *pIdentity) {
    unsigned long ulPort = 0;
    const int iExit = checkArguments(
        {{"--epg", readNumber(options.sEPG, kNumberMax, &pIdentity->ulEPGID)},
         {"--type", readNumber(options.sType, CAST_TYPE_STREAM_2, &pIdentity->ulType, CAST_TYPE_FILE)},
         {"--start", readTime(options.sStart, ulNow, &pIdentity->ulST)},
         {"--end", readTime(options.sEnd, ulNow, &pIdentity->ulET)},
         {"--port", readNumber(options.sPort, 65535, &ulPort, 1)},
         {"--format", readFormat(options.sFormat, &pIdentity->ulFormat)}});
    pIdentity->usPort = static_cast<unsigned short>(ulPort);
    return iExit;
}

// Says why a cast whose end time has passed cannot be stopped. Only a relay ends at that time.
int sayItsTimeIsOver(const CastIdentity &identity) {
    const std::string sOver = writeTime(identity.ulET);
    if (isStream(identity.ulType)) {
        return sayAndReturn(EXIT_BAD_DATA,
                            "that cast ended by itself at " + sOver + "; there is nothing left to stop");
    }
    return sayAndReturn(
        EXIT_BAD_DATA,
        "the time of that cast was over at " + sOver +
            "; a longer file plays on to its end or the next cast. This ends whichever file is on air: "
            "pccast stop --type 1 --epg " +
            std::to_string(identity.ulEPGID) + " --start now --end +10s --port " +
            std::to_string(identity.usPort) + " --format " + writeFormat(identity.ulFormat));
}

int stop(const StopOptions &options) {
    const unsigned long ulNow = vexa_time(nullptr);
    CastRequest request{};
    Service service{};
    int iExit = EXIT_DONE;
    if (!options.sIdentity.empty()) {
        iExit = checkArguments({{"IDENTITY", readCastIdentity(options.sIdentity, &request.identity)}});
    } else if (options.sEPG.empty() || options.sStart.empty() || options.sEnd.empty() ||
               options.sPort.empty()) {
        iExit =
            sayAndReturn(EXIT_USAGE, "which cast? give the IDENTITY that relay or file printed, or all of "
                                     "--epg, --start, --end and --port (and --type, --format)");
    } else {
        iExit = readParts(options, ulNow, &request.identity);
    }
    if (iExit != EXIT_DONE) {
        return iExit;
    }
    if (request.identity.ulET <= ulNow) {
        return sayItsTimeIsOver(request.identity);
    }

    iExit = reachService(options.service, ServiceKind::Casts, &service);
    if (iExit != EXIT_DONE) {
        return iExit;
    }
    // The service uses nothing of the rest, but it refuses a record without it.
    request.ulCT = ulNow;
    request.sSource = "0.0.0.0";
    request.usSourcePort = request.identity.usPort;
    request.sDestination = "0.0.0.0";
    request.sFile = "-";
    iExit = submitCast(service, CAST_CMD_STOP, request);
    return iExit == EXIT_DONE ? sayAndReturn(EXIT_DONE, "stop requested") : iExit;
}

} // namespace

void addStopCommand(CLI::App &app, int &iExitCode) {
    auto *const pCommand = app.add_subcommand("stop", "take a waiting cast back, or end the one on air");
    auto options = std::make_shared<StopOptions>();
    pCommand->add_option("IDENTITY", options->sIdentity, "the line that relay or file printed")
        ->type_name("");
    pCommand->add_option("--epg", options->sEPG, "without IDENTITY: the cast's programme")->type_name("N");
    pCommand->add_option("--type", options->sType, "1 a file, 2 or 3 a relay (default 2)")->type_name("N");
    pCommand->add_option("--start", options->sStart, "its start")->type_name("TIME");
    pCommand->add_option("--end", options->sEnd, "its end")->type_name("TIME");
    pCommand->add_option("--port", options->sPort, "its destination port")->type_name("PORT");
    pCommand
        ->add_option("--format", options->sFormat, "the format that its end is announced with (default ts)")
        ->type_name("ts|asf|NUMBER");
    addServiceOptions(pCommand, options->service);
    pCommand->footer(
        "Programme, type, start, end and port together name the cast. If it still waits, it is taken back.\n"
        "Careful: if no waiting request has all of them, stop ends whichever cast of the same type is on\n"
        "air, as soon as the given start is reached. A file may last longer than its request; it then plays\n"
        "to its end, and stop says how to end it.\n\n" +
        helpExample("pccast stop 7:2:1790000000:1790003600:5000:0x2021"));
    setRequestAction(
        pCommand, [options] { return stop(*options); }, iExitCode);
}

// pccast relay - submits the cast of a live stream.
#include "commands.h"
#include "request.h"
#include "submit.h"

#include <CLI/CLI.hpp>

#include <cstdio>
#include <memory>

namespace {

struct RelayOptions {
    RequestOptions request;
    std::string sSource;
    std::string sDestination;
    std::string sFormat = "ts";
    std::string sType = "2";
    std::string sKey;
    bool bSeed = false;
    bool bFastSeed = false;
    bool bChunks = false;
};

int relay(const RelayOptions &options) {
    CastRequest request{};
    RequestTimes times{};
    CastIdentity &identity = request.identity;
    int iExit = checkArguments(
        {{"SOURCE", readEndpoint(options.sSource, &request.sSource, &request.usSourcePort)},
         {"DESTINATION", readEndpoint(options.sDestination, &request.sDestination, &identity.usPort)},
         {"--format", readFormat(options.sFormat, &identity.ulFormat)},
         {"--type", readNumber(options.sType, CAST_TYPE_STREAM_2, &identity.ulType, CAST_TYPE_STREAM)},
         {"--key", options.sKey.empty() ? "" : readKey(options.sKey, &request.key)}});
    if (iExit == EXIT_DONE) {
        iExit = readRequestOptions(options.request, kCastDefaultFor, &times);
    }
    if (iExit != EXIT_DONE) {
        return iExit;
    }
    if (request.sSource == request.sDestination && request.usSourcePort == identity.usPort) {
        return sayAndReturn(EXIT_BAD_DATA, "source and destination are both " + options.sSource +
                                               ": the relay would feed itself; give two different ones");
    }

    identity.ulEPGID = times.ulEPGID;
    identity.ulST = times.ulST;
    identity.ulET = times.ulET;
    request.ulCT = times.ulCT;
    request.iEncryptionType = options.bFastSeed ? CAST_ENCRYPTION_FAST_SEED : CAST_ENCRYPTION_SEED;
    request.iASFSplit = options.bChunks ? CAST_SPLIT_CHUNKS : CAST_SPLIT_NONE;
    warnWithoutStationFile(identity.ulFormat);
    iExit = submitCast(options.request.sPlugin, CAST_CMD_START, request);
    if (iExit == EXIT_DONE) {
        std::printf("%s\n", writeCastIdentity(identity).c_str());
        sayAndReturn(EXIT_DONE, "relay of " + options.sSource + " to " + options.sDestination +
                                    " requested from " + writeTime(times.ulST) + " until " +
                                    writeTime(times.ulET) + "; pccast stop takes the line above");
    }
    return iExit;
}

} // namespace

void addRelayCommand(CLI::App &app, int &iExitCode) {
    auto *const pCommand = app.add_subcommand("relay", "cast the live stream that arrives at SOURCE");
    auto options = std::make_shared<RelayOptions>();
    pCommand
        ->add_option(
            "SOURCE", options->sSource,
            "where the stream arrives: an address of this machine, or a group, which is joined on the "
            "loopback interface")
        ->type_name("ADDRESS:PORT")
        ->required();
    pCommand->add_option("DESTINATION", options->sDestination, "the group that it is sent to")
        ->type_name("ADDRESS:PORT")
        ->required();
    addRequestOptions(pCommand, options->request, "1h");
    pCommand->add_option("--format", options->sFormat, "what it carries (default ts)")
        ->type_name("ts|asf|NUMBER");
    pCommand
        ->add_option("--type", options->sType,
                     "the cast type, 2 or 3; the service treats both alike (default 2)")
        ->type_name("N");
    auto *const pKey = pCommand
                           ->add_option("--key", options->sKey,
                                        "decrypt with this key of up to 16 bytes; a shorter one is "
                                        "filled up with zeros")
                           ->type_name("HEX");
    auto *const pSeed =
        pCommand->add_flag("--seed", options->bSeed, "the key is for SEED (the default)")->needs(pKey);
    pCommand->add_flag("--fast-seed", options->bFastSeed, "the key is for SEED in its fast variant")
        ->needs(pKey)
        ->excludes(pSeed);
    pCommand->add_flag(
        "--chunks", options->bChunks,
        "a datagram holds chunks, each after its 16-bit little-endian length; send each alone");
    pCommand->footer(
        "Prints the cast's identity, which pccast stop takes back.\n\n" +
        helpExample("pccast relay 239.0.0.1:4000 239.1.2.3:5000 --epg 7 --start 18:00 --for 2h"));
    pCommand->callback([options, &iExitCode] { iExitCode = relay(*options); });
}

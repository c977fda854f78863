// pccast-feed - plays a stored transport stream to an address at the stream's own pace, as a live source
// does.
//
// A source for trying out a relay. It needs no service: it uses the framework's stream reader and caster.
#include "../clitext.h"
#include "../descriptors.h"
#include "arguments.h"

#include <qxapi.h>

#include <cstdio>
#include <limits>
#include <memory>

namespace {

constexpr unsigned int kHops = 1; // a source for this machine or this network

struct FeedOptions {
    std::string sFile;
    std::string sTarget;
    std::string sInterface;
    unsigned long ulDatagrams = std::numeric_limits<unsigned long>::max();
    bool bLoop = false;
};

using Caster = std::unique_ptr<struct ts_qxapi_tscast, decltype(&qxapi_close_tscast)>;

// Plays the file once and counts its datagrams in *pulSent. Returns false after a failure (said).
bool play(const FeedOptions &options, const Caster &caster, unsigned long *pulSent) {
    const std::unique_ptr<struct ts_qxapi_stream, decltype(&qxapi_close_stream)> stream(
        qxapi_open_stream(options.sFile.c_str()), qxapi_close_stream);
    if (stream == nullptr || stream->pStart(stream.get()) != 1) {
        std::fprintf(stderr, "pccast-feed: %s cannot be played; the reason is above\n",
                     options.sFile.c_str());
        return false;
    }
    while (*pulSent < options.ulDatagrams && stream->pIsAtEnd(stream.get()) == 0) {
        struct ts_qxapi_packet *const pPacket = stream->pNextPacket(stream.get());
        if (pPacket == nullptr) {
            qxapi_load_balance();
            continue;
        }
        const int iSent = caster->pSend(caster.get(), pPacket->pData, pPacket->uiLength);
        stream->pReleasePacket(stream.get(), pPacket);
        if (iSent != 1) {
            std::fprintf(stderr, "pccast-feed: sending to %s failed after %lu datagrams\n",
                         options.sTarget.c_str(), *pulSent);
            return false;
        }
        ++*pulSent;
    }
    return true;
}

int feed(const FeedOptions &options) {
    const Caster caster(qxapi_open_tscast(), qxapi_close_tscast);
    const char *const pszInterface = options.sInterface.empty() ? nullptr : options.sInterface.c_str();
    if (caster == nullptr ||
        caster->pSetUp(caster.get(), pszInterface, -1, options.sTarget.c_str(), 0, kHops) != 1) {
        std::fprintf(stderr, "pccast-feed: nothing can be sent to %s; the reason is above\n",
                     options.sTarget.c_str());
        return 1;
    }
    unsigned long ulSent = 0;
    unsigned long ulBefore = 0;
    do {
        ulBefore = ulSent;
        if (!play(options, caster, &ulSent)) {
            return 1;
        }
    } while (options.bLoop && ulSent < options.ulDatagrams && ulSent != ulBefore);
    std::printf("%lu datagrams of %s sent to %s\n", ulSent, options.sFile.c_str(), options.sTarget.c_str());
    return 0;
}

int run(int iArguments, char **ppArguments) {
    FeedOptions options;
    std::string sDatagrams;
    CLI::App app("Plays a stored transport stream to an address at its own pace, as a live source does.",
                 "pccast-feed");
    app.add_option("FILE", options.sFile, "the transport stream")->type_name("")->required();
    app.add_option("TARGET", options.sTarget, "ADDRESS:PORT to send to")->type_name("")->required();
    app.add_option("DATAGRAMS", sDatagrams, "end after so many datagrams of seven packets each")
        ->type_name("");
    app.add_option("--interface", options.sInterface, "send to a group by this interface, such as lo")
        ->type_name("NAME|ADDRESS");
    app.add_flag("--loop", options.bLoop, "begin again at the end of the file; Ctrl-C ends it");
    app.footer("Example:\n  pccast-feed film.ts 239.0.0.1:4000 --interface lo --loop");
    const int iExit = readArguments(&app, iArguments, ppArguments, [&] {
        std::string sAddress;
        unsigned short usPort = 0;
        const std::string sProblem = readEndpoint(options.sTarget, &sAddress, &usPort);
        return !sProblem.empty() || sDatagrams.empty()
                   ? sProblem
                   : readNumber(sDatagrams, kNumberMax, &options.ulDatagrams);
    });
    return iExit >= 0 ? iExit : feed(options);
}

} // namespace

int main(int iArguments, char **ppArguments) {
    holdStandardDescriptors();
    return runTool(run, iArguments, ppArguments);
}

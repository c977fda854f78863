// pccast-feed - plays a stored transport stream to an address at the stream's own pace, as a live source
// does.
//
//   pccast-feed FILE ADDRESS:PORT [DATAGRAMS]
//
// A source for trying out a relay. It needs no service: it uses the framework's stream reader and caster. It
// ends after the file, or after the given number of datagrams, which hold seven packets each.
#include "../clitext.h"

#include <qxapi.h>

#include <cstdio>
#include <limits>
#include <memory>

namespace {

constexpr unsigned int kHops = 1; // a source for this machine or this network

int feed(const char *pszFile, const std::string &sTarget, unsigned long ulLimit) {
    const std::unique_ptr<struct ts_qxapi_stream, decltype(&qxapi_close_stream)> stream(
        qxapi_open_stream(pszFile), qxapi_close_stream);
    const std::unique_ptr<struct ts_qxapi_tscast, decltype(&qxapi_close_tscast)> caster(qxapi_open_tscast(),
                                                                                        qxapi_close_tscast);
    if (stream == nullptr || caster == nullptr || stream->pStart(stream.get()) != 1 ||
        caster->pSetUp(caster.get(), nullptr, -1, sTarget.c_str(), 0, kHops) != 1) {
        std::fprintf(stderr, "pccast-feed: %s cannot be fed to %s; the reason is above\n", pszFile,
                     sTarget.c_str());
        return 1;
    }
    unsigned long ulSent = 0;
    while (ulSent < ulLimit && stream->pIsAtEnd(stream.get()) == 0) {
        struct ts_qxapi_packet *const pPacket = stream->pNextPacket(stream.get());
        if (pPacket == nullptr) {
            qxapi_load_balance();
            continue;
        }
        const int iSent = caster->pSend(caster.get(), pPacket->pData, pPacket->uiLength);
        stream->pReleasePacket(stream.get(), pPacket);
        if (iSent != 1) {
            std::fprintf(stderr, "pccast-feed: sending to %s failed after %lu datagrams\n", sTarget.c_str(),
                         ulSent);
            return 1;
        }
        ++ulSent;
    }
    std::printf("%lu datagrams of %s sent to %s\n", ulSent, pszFile, sTarget.c_str());
    return 0;
}

} // namespace

int main(int iArguments, char **ppArguments) {
    std::string sAddress;
    unsigned short usPort = 0;
    unsigned long ulLimit = std::numeric_limits<unsigned long>::max();
    std::string sProblem = "usage: pccast-feed FILE ADDRESS:PORT [DATAGRAMS]";
    if (iArguments == 3 || iArguments == 4) {
        sProblem = readEndpoint(ppArguments[2], &sAddress, &usPort);
    }
    if (sProblem.empty() && iArguments == 4) {
        sProblem = readNumber(ppArguments[3], kNumberMax, &ulLimit);
    }
    if (!sProblem.empty()) {
        std::fprintf(stderr, "pccast-feed: %s\n", sProblem.c_str());
        return 64;
    }
    return feed(ppArguments[1], ppArguments[2], ulLimit);
}

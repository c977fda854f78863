// pccast-receive - joins a group and writes the datagrams that it receives to a file, one after the other.
//
//   pccast-receive ADDRESS:PORT FILE [--skip BYTES] [--datagrams N] [--idle SECONDS] [--wait SECONDS]
//
// It waits at most --wait seconds (default 30) for the first datagram. It ends after N datagrams, or when
// none has come for --idle seconds (default 2). --skip leaves out the first bytes of each datagram, such as
// the 8 bytes of a Media Stream Broadcast packet's header. The exit code is 1 when nothing came or N was not
// reached.
#include "../clitext.h"

#include <qxapi_ktn.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace {

struct ReceiveOptions {
    std::string sAddress;
    unsigned short usPort = 0;
    unsigned long ulSkip = 0;
    unsigned long ulDatagrams = 0; // 0: no limit
    unsigned long ulIdle = 2;
    unsigned long ulWait = 30;
};

std::string readArguments(int iArguments, char **ppArguments, ReceiveOptions *pReceive) {
    if (iArguments < 3 || iArguments % 2 == 0) {
        return "usage: pccast-receive ADDRESS:PORT FILE [--skip BYTES] [--datagrams N] [--idle SECONDS] "
               "[--wait SECONDS]";
    }
    std::string sProblem = readEndpoint(ppArguments[1], &pReceive->sAddress, &pReceive->usPort);
    const struct {
        const char *pszName;
        unsigned long *pulValue;
        unsigned long ulMax;
    } aOption[] = {{"--skip", &pReceive->ulSkip, 65535},
                   {"--datagrams", &pReceive->ulDatagrams, kNumberMax},
                   {"--idle", &pReceive->ulIdle, 3600},
                   {"--wait", &pReceive->ulWait, 3600}};
    for (int i = 3; i < iArguments && sProblem.empty(); i += 2) {
        sProblem = std::string(ppArguments[i]) + " is not an option";
        for (const auto &option : aOption) {
            if (std::strcmp(option.pszName, ppArguments[i]) == 0) {
                sProblem = readNumber(ppArguments[i + 1], option.ulMax, option.pulValue);
            }
        }
    }
    return sProblem;
}

int receive(const ReceiveOptions &receive, KTNET_ENDPOINT *pDesc, FILE *pFile) {
    std::array<unsigned char, 65536> aBytes;
    unsigned long ulReceived = 0;
    while (receive.ulDatagrams == 0 || ulReceived < receive.ulDatagrams) {
        const unsigned long ulSeconds = ulReceived == 0 ? receive.ulWait : receive.ulIdle;
        const int iReady =
            ktn_xapi_rx_poll_socket(pDesc->iSocket, static_cast<unsigned int>(ulSeconds * 1000));
        if (iReady == 0) {
            break;
        }
        if (iReady < 0) {
            std::fprintf(stderr, "pccast-receive: %s\n", std::strerror(-iReady));
            return 1;
        }
        const ssize_t lLength = recv(pDesc->iSocket, aBytes.data(), aBytes.size(), 0);
        if (lLength < 0) {
            std::fprintf(stderr, "pccast-receive: %s\n", std::strerror(errno));
            return 1;
        }
        const size_t uSkip = std::min(receive.ulSkip, static_cast<size_t>(lLength));
        const size_t uLength = static_cast<size_t>(lLength) - uSkip;
        if (std::fwrite(aBytes.data() + uSkip, 1, uLength, pFile) != uLength) {
            std::fprintf(stderr, "pccast-receive: %s\n", std::strerror(errno));
            return 1;
        }
        ++ulReceived;
    }
    std::printf("%lu datagrams received on %s:%u\n", ulReceived, receive.sAddress.c_str(), receive.usPort);
    return ulReceived == 0 || ulReceived < receive.ulDatagrams ? 1 : 0;
}

} // namespace

int main(int iArguments, char **ppArguments) {
    ReceiveOptions wanted;
    const std::string sProblem = readArguments(iArguments, ppArguments, &wanted);
    if (!sProblem.empty()) {
        std::fprintf(stderr, "pccast-receive: %s\n", sProblem.c_str());
        return 64;
    }
    KTNET_ENDPOINT *pDesc = nullptr;
    if (ktn_xapi_ktnet_init_with_version(&pDesc, 0, 2) <= 0) {
        return 1;
    }
    pDesc->uiKind = KTNET_KIND_UDP;
    pDesc->uiListen = 1;
    pDesc->uiPort = wanted.usPort;
    std::strncpy(pDesc->szPeer, wanted.sAddress.c_str(), sizeof pDesc->szPeer - 1);
    int iExit = 1;
    if (ktn_xapi_ktnet_create(pDesc) > 0) { // first, so that a failure does not touch an older file
        FILE *const pFile = std::fopen(ppArguments[2], "wb");
        iExit = pFile == nullptr ? 1 : receive(wanted, pDesc, pFile);
        if (pFile == nullptr || std::fclose(pFile) != 0) {
            std::fprintf(stderr, "pccast-receive: %s: %s\n", ppArguments[2], std::strerror(errno));
            iExit = 1;
        }
    }
    ktn_xapi_ktnet_delete(&pDesc);
    return iExit;
}

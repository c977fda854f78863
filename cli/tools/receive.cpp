// pccast-receive - joins a group and writes the datagrams that it receives to a file, one after the other.
//
// The exit code is 1 when nothing came, or less than was asked for.
#include "../clitext.h"
#include "../descriptors.h"
#include "arguments.h"

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
    std::string sFile;
    std::string sInterface;
    unsigned long ulSkip = 0;
    unsigned long ulDatagrams = 0; // 0: no limit
    unsigned long ulIdle = 2;
    unsigned long ulWait = 30;
};

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

int run(int iArguments, char **ppArguments) {
    ReceiveOptions wanted;
    std::string sGroup;
    CLI::App app("Writes the datagrams that come for a group or an address of this machine to a file.",
                 "pccast-receive");
    app.add_option("SOURCE", sGroup, "ADDRESS:PORT to listen on")->type_name("")->required();
    app.add_option("FILE", wanted.sFile, "the file to write")->type_name("")->required();
    app.add_option("--interface", wanted.sInterface, "join the group on this interface")
        ->type_name("NAME|ADDRESS");
    // The rows of the options with a number: the name, what it is for, the place, and the largest.
    const struct {
        const char *pszName;
        const char *pszHelp;
        unsigned long *pulValue;
        unsigned long ulMax;
    } aNumber[] = {{"--skip",
                    "leave out the first bytes of each datagram, such as the 8 bytes of a Media Stream "
                    "Broadcast packet's header",
                    &wanted.ulSkip, 65535},
                   {"--datagrams", "end after so many datagrams", &wanted.ulDatagrams, kNumberMax},
                   {"--idle", "end when none has come for so many seconds (default 2)", &wanted.ulIdle, 3600},
                   {"--wait", "wait so many seconds for the first one (default 30)", &wanted.ulWait, 3600}};
    std::array<std::string, std::size(aNumber)> aText;
    for (size_t i = 0; i < aText.size(); ++i) {
        app.add_option(aNumber[i].pszName, aText[i], aNumber[i].pszHelp)->type_name("N");
    }
    app.footer("Example:\n  pccast-receive 239.1.2.3:5000 received.ts --datagrams 300");
    const int iArgumentsExit = readArguments(&app, iArguments, ppArguments, [&] {
        std::string sProblem = readEndpoint(sGroup, &wanted.sAddress, &wanted.usPort);
        for (size_t i = 0; i < aText.size() && sProblem.empty(); ++i) {
            if (!aText[i].empty()) {
                sProblem = readNumber(aText[i], aNumber[i].ulMax, aNumber[i].pulValue);
            }
        }
        return sProblem;
    });
    if (iArgumentsExit >= 0) {
        return iArgumentsExit;
    }
    KTNET_ENDPOINT *pDesc = nullptr;
    if (ktn_xapi_ktnet_init_with_version(&pDesc, 0, 2) <= 0) {
        return 1;
    }
    pDesc->uiKind = KTNET_KIND_UDP;
    pDesc->uiListen = 1;
    pDesc->uiPort = wanted.usPort;
    std::strncpy(pDesc->szPeer, wanted.sAddress.c_str(), sizeof pDesc->szPeer - 1);
    std::strncpy(pDesc->szLocal, wanted.sInterface.c_str(), sizeof pDesc->szLocal - 1);
    int iExit = 1;
    if (ktn_xapi_ktnet_create(pDesc) > 0) { // first, so that a failure does not touch an older file
        FILE *const pFile = std::fopen(wanted.sFile.c_str(), "wb");
        iExit = pFile == nullptr ? 1 : receive(wanted, pDesc, pFile);
        if (pFile == nullptr || std::fclose(pFile) != 0) {
            std::fprintf(stderr, "pccast-receive: %s: %s\n", wanted.sFile.c_str(), std::strerror(errno));
            iExit = 1;
        }
    }
    ktn_xapi_ktnet_delete(&pDesc);
    return iExit;
}

} // namespace

int main(int iArguments, char **ppArguments) {
    holdStandardDescriptors();
    return runTool(run, iArguments, ppArguments);
}

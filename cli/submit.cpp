#include "service.h"

#include "commands.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace {

// Returns EXIT_DONE when the service is switched on and listens, else says why not.
int checkService(const Plugin &plugin, const char *pszKeyPath, const char *pszSocket) {
    if (plugin.pVerifyService(pszKeyPath) < 1) {
        return sayAndReturn(EXIT_SWITCHED_OFF, std::string("the registry switches the service off (") +
                                                   pszKeyPath + "=DISABLE); nothing was sent");
    }
    const int iError = probeSocket(pszSocket);
    switch (iError) {
    case 0:
        return EXIT_DONE;
    case ENOENT:
    case ECONNREFUSED:
        return sayAndReturn(EXIT_UNAVAILABLE, std::string("no service listens on ") + pszSocket +
                                                  "; start one with: pccast serve");
    case EACCES:
        return sayForeignSocket(pszSocket);
    default:
        return sayAndReturn(EXIT_UNAVAILABLE, std::string("the service on ") + pszSocket +
                                                  " cannot be reached: " + std::strerror(iError));
    }
}

// Validates as the commander of the kind does, and sends.
template <typename Record>
int submit(int (*pValidate)(const Record *), int (*pSend)(unsigned long, const Record *), unsigned long ulCMD,
           Record *pInfo) {
    pInfo->ulCMD = ulCMD;
    if (pValidate(pInfo) < 1) {
        return sayAndReturn(EXIT_BAD_DATA, "the request is not complete; nothing was sent");
    }
    const int iSent = pSend(ulCMD, pInfo);
    if (iSent > 0) {
        return EXIT_DONE;
    }
    return sayAndReturn(EXIT_UNAVAILABLE, std::string("the service did not take the request") +
                                              (iSent < 0 ? std::string(": ") + std::strerror(-iSent) : "") +
                                              "; submit it again");
}

} // namespace

int probeSocket(const char *pszPath) {
    const int iSocket = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (iSocket < 0) {
        return errno;
    }
    struct sockaddr_un address {};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, pszPath, sizeof address.sun_path - 1);
    const int iResult = connect(iSocket, reinterpret_cast<const struct sockaddr *>(&address), sizeof address);
    const int iError = iResult == 0 ? 0 : errno;
    close(iSocket);
    return iError;
}

int sayForeignSocket(const char *pszPath) {
    return sayAndReturn(EXIT_UNAVAILABLE, std::string(pszPath) +
                                              " belongs to another user (a service of theirs, or a file it "
                                              "left); ss -xlp shows whether one listens there, and its "
                                              "requests come from that user or from root");
}

int submitCast(const Plugin &plugin, unsigned long ulCMD, CASTInfo *pInfo) {
    const int iCheck = checkService(plugin, PCCAST_CAST_SERVICE, PCCAST_CAST_SOCKET);
    return iCheck == EXIT_DONE ? submit(plugin.pValidateCast, plugin.pSendCast, ulCMD, pInfo) : iCheck;
}

int submitMessage(const Plugin &plugin, unsigned long ulCMD, MSGInfo *pInfo) {
    const int iCheck = checkService(plugin, PCCAST_MESSAGE_SERVICE, PCCAST_MESSAGE_SOCKET);
    return iCheck == EXIT_DONE ? submit(plugin.pValidateMessage, plugin.pSendMessage, ulCMD, pInfo) : iCheck;
}

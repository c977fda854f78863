#include "service.h"

#include "commands.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace {

// Returns EXIT_DONE when the service is switched on and listens, else says why not.
int checkService(const PLUGIN &plugin, const char *pszKeyPath, const char *pszSocket) {
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
        return sayAndReturn(EXIT_UNAVAILABLE,
                            std::string("the service on ") + pszSocket +
                                " belongs to another user; run this as that user or as root");
    default:
        return sayAndReturn(EXIT_UNAVAILABLE, std::string("the service on ") + pszSocket +
                                                  " cannot be reached: " + strerror(iError));
    }
}

} // namespace

int probeSocket(const char *pszPath) {
    const int iSocket = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (iSocket < 0) {
        return errno;
    }
    struct sockaddr_un address {};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, pszPath, sizeof address.sun_path - 1);
    const int iResult = connect(iSocket, reinterpret_cast<const struct sockaddr *>(&address), sizeof address);
    const int iError = iResult == 0 ? 0 : errno;
    close(iSocket);
    return iError;
}

int submitCast(const PLUGIN &plugin, unsigned long ulCMD, CASTInfo *pInfo) {
    const int iCheck = checkService(plugin, "/ORVEN/SERVICE/PCSTREAM", PCCAST_CAST_SOCKET);
    if (iCheck != EXIT_DONE) {
        return iCheck;
    }
    return plugin.pCastCommander(ulCMD, pInfo) == 1
               ? EXIT_DONE
               : sayAndReturn(EXIT_BAD_DATA, "the service's commander refused the request");
}

int submitMessage(const PLUGIN &plugin, unsigned long ulCMD, MSGInfo *pInfo) {
    const int iCheck = checkService(plugin, "/ORVEN/SERVICE/PCMBC", PCCAST_MESSAGE_SOCKET);
    if (iCheck != EXIT_DONE) {
        return iCheck;
    }
    return plugin.pMessageCommander(ulCMD, pInfo) == 1
               ? EXIT_DONE
               : sayAndReturn(EXIT_BAD_DATA, "the service's commander refused the request");
}

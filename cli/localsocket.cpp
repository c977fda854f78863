#include "localsocket.h"

#include "commands.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

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
    return sayAndReturn(
        EXIT_UNAVAILABLE,
        std::string(pszPath) +
            " belongs to another user: to a service of theirs, or it is a file that one left. "
            "ss -xlp shows whether a service listens there; that user or root can submit "
            "requests to it");
}

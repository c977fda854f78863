#include "localsocket.h"

#include "clitext.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <thread>

namespace {

constexpr std::chrono::milliseconds kRetryInterval{20};
constexpr int kRetries = 100; // 2 s for a place in a full queue

std::optional<uid_t> userOfName(const char *pszName) {
    struct passwd entry {};
    struct passwd *pEntry = nullptr;
    std::array<char, 4096> aTexts{};
    if (getpwnam_r(pszName, &entry, aTexts.data(), aTexts.size(), &pEntry) != 0 || pEntry == nullptr) {
        return std::nullopt;
    }
    return pEntry->pw_uid;
}

// Connects without ever waiting in the system. Returns 0 or the errno; EAGAIN: the queue is full.
int connectAtOnce(int iSocket, const char *pszPath) {
    struct sockaddr_un address {};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, pszPath, sizeof address.sun_path - 1);
    for (int i = 0;; ++i) {
        if (connect(iSocket, reinterpret_cast<const struct sockaddr *>(&address), sizeof address) == 0) {
            return 0;
        }
        if (errno != EAGAIN || i == kRetries) {
            return errno;
        }
        std::this_thread::sleep_for(kRetryInterval);
    }
}

} // namespace

int connectLocal(const char *pszPath, uid_t *puiUser) {
    const int iSocket = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (iSocket < 0) {
        return -errno;
    }
    struct ucred server {};
    socklen_t uiSize = sizeof server;
    int iError = connectAtOnce(iSocket, pszPath);
    if (iError == 0 && getsockopt(iSocket, SOL_SOCKET, SO_PEERCRED, &server, &uiSize) != 0) {
        iError = errno;
    }
    if (iError != 0) {
        close(iSocket);
        return -iError;
    }
    fcntl(iSocket, F_SETFL, fcntl(iSocket, F_GETFL) & ~O_NONBLOCK);
    *puiUser = server.uid;
    return iSocket;
}

int probeSocket(const char *pszPath) {
    uid_t uiUser = 0;
    const int iSocket = connectLocal(pszPath, &uiUser);
    if (iSocket < 0) {
        return -iSocket;
    }
    close(iSocket);
    return 0;
}

bool isTrustedUser(uid_t uiUser) {
    if (uiUser == geteuid() || uiUser == 0 || userOfName(kServiceUser) == uiUser) {
        return true;
    }
    const char *const pszNamed = std::getenv(kServiceUserVariable);
    if (pszNamed == nullptr || *pszNamed == 0) {
        return false;
    }
    unsigned long ulNumber = 0;
    return userOfName(pszNamed) == uiUser ||
           (readNumber(pszNamed, kNumberMax, &ulNumber).empty() && ulNumber == uiUser);
}

std::string nameOfUser(uid_t uiUser) {
    struct passwd entry {};
    struct passwd *pEntry = nullptr;
    std::array<char, 4096> aTexts{};
    getpwuid_r(uiUser, &entry, aTexts.data(), aTexts.size(), &pEntry);
    return pEntry == nullptr ? std::to_string(uiUser) : pEntry->pw_name;
}

std::string foreignSocketText(const char *pszPath) {
    return std::string(pszPath) +
           " belongs to another user: to a service of theirs, or it is a file that one left. ss -xlp shows "
           "whether a service listens there; that user or root can submit requests to it";
}

std::string untrustedText(const char *pszPath, uid_t uiUser) {
    return std::string(pszPath) + " is served by the user " + nameOfUser(uiUser) +
           ", who is neither you, root nor " + kServiceUser +
           "; nothing was sent. If that service is yours, set " + kServiceUserVariable +
           " to the user's name";
}

#include "ktnlocal.h"

#include "deadline.h"
#include "report.h"

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <pwd.h>
#include <sstream>
#include <string>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

constexpr const char *kWhoCreate = "ktn_xapi_ktnet_create";
constexpr int kLockRetryMs = 5;

bool fillAddress(sockaddr_un &address, const char *pszPath) {
    address = {};
    address.sun_family = AF_UNIX;
    const std::size_t ulLength = std::strlen(pszPath);
    if (ulLength == 0 || ulLength >= sizeof address.sun_path) {
        return false;
    }
    std::memcpy(address.sun_path, pszPath, ulLength);
    return true;
}

const sockaddr *plain(const sockaddr_un &address) {
    return reinterpret_cast<const sockaddr *>(&address);
}

// Names the user for a message, by name if there is one.
std::string userText(uid_t uiUser) {
    passwd entry{};
    passwd *pFound = nullptr;
    std::array<char, 4096> texts;
    if (getpwuid_r(uiUser, &entry, texts.data(), texts.size(), &pFound) == 0 && pFound != nullptr) {
        return entry.pw_name;
    }
    return std::to_string(uiUser);
}

// Returns whether the word is the name or the number of the user.
bool names(const std::string &word, uid_t uiUser) {
    if (!word.empty() && word.size() <= 10 && word.find_first_not_of("0123456789") == std::string::npos) {
        return std::stoul(word) == uiUser;
    }
    passwd entry{};
    passwd *pFound = nullptr;
    std::array<char, 4096> texts;
    return getpwnam_r(word.c_str(), &entry, texts.data(), texts.size(), &pFound) == 0 && pFound != nullptr &&
           entry.pw_uid == uiUser;
}

// Returns whether KTNET_PEER_USERS, or the build where it is not set, names the user.
bool isTrusted(uid_t uiUser) {
    const char *pszUsers = std::getenv("KTNET_PEER_USERS");
    std::istringstream users(pszUsers != nullptr ? pszUsers : KTNET_PEER_USERS_DEFAULT);
    for (std::string word; std::getline(users, word, ',');) {
        if (names(word, uiUser)) {
            return true;
        }
    }
    return false;
}

// Stores the user at the other end. Returns whether it is this user or root.
bool isOwnOrRoot(int iSocket, uid_t &uiPeer) {
    ucred peer{};
    socklen_t uiLength = sizeof peer;
    peer.uid = static_cast<uid_t>(-1);
    const bool bKnown = getsockopt(iSocket, SOL_SOCKET, SO_PEERCRED, &peer, &uiLength) == 0;
    uiPeer = peer.uid;
    return bKnown && (uiPeer == geteuid() || uiPeer == 0);
}

// Opens or makes the file at pszLock. Returns it, or a negative errno (reported), also if it is not this
// user's own file.
int openLock(const char *pszLock) {
    const int iLock = open(pszLock, O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC | O_NOCTTY, 0600);
    int iErrno = iLock < 0 ? errno : 0;
    struct stat status {};
    const bool bThere = (iLock < 0 ? lstat(pszLock, &status) : fstat(iLock, &status)) == 0;
    if (bThere && (!S_ISREG(status.st_mode) || status.st_uid != geteuid())) {
        frameworkReport(kWhoCreate, "%s of the user %s is in the way; it is left alone", pszLock,
                        userText(status.st_uid).c_str());
        iErrno = EACCES;
    } else if (iErrno != 0) {
        frameworkReport(kWhoCreate, "can not open %s: %s", pszLock, std::strerror(iErrno));
    }
    if (iErrno != 0 && iLock >= 0) {
        close(iLock);
    }
    return iErrno != 0 ? -iErrno : iLock;
}

// Locks the file at pszLock. Returns it, or a negative errno (reported). Whoever holds the lock removes the
// file before letting go. So the path may lead to another file once the lock is had; then begin again.
int lockStart(const char *pszLock, Deadline deadline) {
    for (;;) {
        const int iLock = openLock(pszLock);
        if (iLock < 0) {
            return iLock;
        }
        while (flock(iLock, LOCK_EX | LOCK_NB) != 0) {
            if ((errno != EWOULDBLOCK && errno != EINTR) || deadlineLeft(deadline) == 0) {
                const int iErrno = errno;
                frameworkReport(kWhoCreate, "another start holds %s: %s", pszLock, std::strerror(iErrno));
                close(iLock);
                return -iErrno;
            }
            poll(nullptr, 0, kLockRetryMs);
        }
        struct stat locked {
        }, present{};
        if (fstat(iLock, &locked) == 0 && lstat(pszLock, &present) == 0 && locked.st_dev == present.st_dev &&
            locked.st_ino == present.st_ino) {
            return iLock;
        }
        close(iLock);
    }
}

// Tries to connect to the address. Returns 0 if nobody answers: the file is stale. Else returns the errno
// of the attempt, EADDRINUSE for a live listener.
int probe(const sockaddr_un &address) {
    const int iProbe = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (iProbe < 0) {
        return errno;
    }
    const int iErrno = connect(iProbe, plain(address), sizeof address) == 0 ? EADDRINUSE : errno;
    close(iProbe);
    if (iErrno == ECONNREFUSED || iErrno == ENOENT) {
        return 0;
    }
    return iErrno == EAGAIN ? EADDRINUSE : iErrno; // only a live listener has a full queue
}

// Removes a stale socket file. Call with the start locked. Returns 0 if the path is free, else an errno
// (reported).
int removeStale(const sockaddr_un &address) {
    const char *pszPath = address.sun_path;
    struct stat status;
    if (lstat(pszPath, &status) != 0) {
        if (errno == ENOENT) {
            return 0;
        }
        const int iErrno = errno;
        frameworkReport(kWhoCreate, "can not look at %s: %s", pszPath, std::strerror(iErrno));
        return iErrno;
    }
    if (!S_ISSOCK(status.st_mode)) {
        frameworkReport(kWhoCreate, "%s is there and is no socket; it is left alone", pszPath);
        return EEXIST;
    }
    if (status.st_uid != geteuid()) {
        frameworkReport(kWhoCreate, "%s belongs to another user (%s); it is left alone", pszPath,
                        userText(status.st_uid).c_str());
        return EACCES;
    }
    if (const int iErrno = probe(address)) {
        if (iErrno == EADDRINUSE) {
            frameworkReport(kWhoCreate, "%s is served by another listener; it is left alone", pszPath);
        } else {
            frameworkReport(kWhoCreate, "%s can not be probed: %s; it is left alone", pszPath,
                            std::strerror(iErrno));
        }
        return iErrno;
    }
    if (unlink(pszPath) != 0 && errno != ENOENT) {
        const int iErrno = errno;
        frameworkReport(kWhoCreate, "can not remove the stale %s: %s", pszPath, std::strerror(iErrno));
        return iErrno;
    }
    return 0;
}

// Binds and listens. Call with the start locked. Returns the socket or a negative errno (reported).
int bindListener(const sockaddr_un &address) {
    const int iSocket = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    // The file takes its mode from the socket. It is narrow from the start, and the umask stays as it is.
    if (iSocket >= 0 && fchmod(iSocket, 0600) == 0 && bind(iSocket, plain(address), sizeof address) == 0) {
        if (listen(iSocket, SOMAXCONN) == 0) {
            return iSocket;
        }
        unlink(address.sun_path);
    }
    const int iErrno = errno;
    if (iSocket >= 0) {
        close(iSocket);
    }
    frameworkReport(kWhoCreate, "can not listen at %s: %s", address.sun_path, std::strerror(iErrno));
    return -iErrno;
}

} // namespace

int ktnLocalListen(const char *pszPath, unsigned int uiTimeoutMs, KtnSocketFile &file) {
    file = {};
    sockaddr_un address;
    if (!fillAddress(address, pszPath)) {
        frameworkReport(kWhoCreate, "\"%s\" can not be a socket path: empty, or longer than %zu bytes",
                        pszPath, sizeof address.sun_path - 1);
        return *pszPath == 0 ? -EINVAL : -ENAMETOOLONG;
    }
    // If two processes want the same path, one checks, removes and binds before the other starts. The lock is
    // a file that other users can not open: nobody else can hold up a start.
    const std::string lock = std::string(pszPath) + ".lock";
    const int iLock = lockStart(lock.c_str(), deadlineIn(uiTimeoutMs));
    if (iLock < 0) {
        return iLock;
    }
    const int iErrno = removeStale(address);
    const int iSocket = iErrno != 0 ? -iErrno : bindListener(address);
    struct stat status;
    if (iSocket >= 0 && lstat(pszPath, &status) == 0) {
        file.ulDevice = status.st_dev;
        file.ulInode = status.st_ino;
        std::memcpy(file.szPath, address.sun_path, sizeof address.sun_path);
    }
    unlink(lock.c_str());
    close(iLock);
    return iSocket;
}

void ktnLocalRemove(KtnSocketFile &file) {
    struct stat status;
    if (file.ulInode != 0 && lstat(file.szPath, &status) == 0 && status.st_dev == file.ulDevice &&
        status.st_ino == file.ulInode) {
        unlink(file.szPath);
    }
    file.ulInode = 0;
}

int ktnLocalAccept(int iListener) {
    const int iSocket = accept4(iListener, nullptr, nullptr, SOCK_CLOEXEC);
    if (iSocket < 0) {
        if (errno == ECONNABORTED || errno == EINTR) {
            errno = EAGAIN;
        }
        if (errno == EAGAIN) {
            return -EAGAIN;
        }
        const int iErrno = errno;
        frameworkReport("ktn_xapi_ktnet_accept", "no connection taken: %s", std::strerror(iErrno));
        return -iErrno;
    }
    uid_t uiPeer = 0;
    if (!isOwnOrRoot(iSocket, uiPeer)) {
        frameworkReport("ktn_xapi_ktnet_accept", "a client of another user (%u) is refused", uiPeer);
        close(iSocket);
        return -EACCES;
    }
    return iSocket;
}

int ktnLocalClient() {
    const int iSocket = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (iSocket >= 0) {
        return iSocket;
    }
    const int iErrno = errno;
    frameworkReport(kWhoCreate, "no socket for a local client: %s", std::strerror(iErrno));
    return -iErrno;
}

int ktnLocalConnect(int iSocket, const char *pszPath, unsigned int uiTimeoutMs) {
    static constexpr const char *kWho = "ktn_xapi_ktnet_connect";
    sockaddr_un address;
    if (!fillAddress(address, pszPath)) {
        frameworkReport(kWho, "\"%s\" can not be a socket path: empty, or longer than %zu bytes", pszPath,
                        sizeof address.sun_path - 1);
        return *pszPath == 0 ? -EINVAL : -ENAMETOOLONG;
    }
    // connect() waits for room in the listener's queue, and the socket's send time-out bounds that wait. A
    // time-out of 0 would let it wait for ever, so set at least 1 ms.
    const Deadline deadline = deadlineIn(uiTimeoutMs);
    int iErrno = 0;
    do {
        const int iLeft = std::max(1, deadlineLeft(deadline));
        const timeval wait{iLeft / 1000, suseconds_t{iLeft % 1000} * 1000};
        setsockopt(iSocket, SOL_SOCKET, SO_SNDTIMEO, &wait, sizeof wait);
        iErrno = connect(iSocket, plain(address), sizeof address) == 0 ? 0 : errno;
    } while (iErrno == EINTR && deadlineLeft(deadline) > 0);
    if (iErrno == 0) {
        uid_t uiPeer = 0;
        if (isOwnOrRoot(iSocket, uiPeer) || isTrusted(uiPeer)) {
            return 0;
        }
        shutdown(iSocket, SHUT_RDWR); // a caller that sends all the same must not reach the wrong server
        frameworkReport(kWho,
                        "%s is served by another user (%s): nothing is sent; KTNET_PEER_USERS can name a "
                        "user to trust",
                        pszPath, userText(uiPeer).c_str());
        return -EACCES;
    }
    if (iErrno == EAGAIN) {
        iErrno = ETIMEDOUT;
        frameworkReport(kWho, "%s: the queue of its listener stayed full for %u ms", pszPath, uiTimeoutMs);
    } else {
        frameworkReport(kWho, "no connection to %s: %s", pszPath, std::strerror(iErrno));
    }
    return -iErrno;
}

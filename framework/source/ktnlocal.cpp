#include "ktnlocal.h"

#include "deadline.h"
#include "report.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
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

// Opens the folder of pszPath and locks it. If two processes want the same path, one then checks, removes
// and binds before the other starts. The lock is on the folder, so it leaves no file behind however the
// process ends. Returns the folder, or a negative errno. Closing the folder unlocks it.
int lockFolder(const char *pszPath, Deadline deadline) {
    char szFolder[sizeof(sockaddr_un::sun_path)] = ".";
    if (const char *pszName = std::strrchr(pszPath, '/')) {
        const auto ulLength = static_cast<std::size_t>(pszName == pszPath ? 1 : pszName - pszPath);
        std::memcpy(szFolder, pszPath, ulLength);
        szFolder[ulLength] = 0;
    }
    const int iFolder = open(szFolder, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (iFolder < 0) {
        return -errno;
    }
    while (flock(iFolder, LOCK_EX | LOCK_NB) != 0) {
        if ((errno != EWOULDBLOCK && errno != EINTR) || deadlineLeft(deadline) == 0) {
            const int iErrno = errno;
            close(iFolder);
            return -iErrno;
        }
        poll(nullptr, 0, kLockRetryMs);
    }
    return iFolder;
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

// Removes a stale socket file. Call with the folder locked. Returns 0 if the path is free, else an errno
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
        frameworkReport(kWhoCreate, "%s belongs to another user (%u); it is left alone", pszPath,
                        status.st_uid);
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

// Binds and listens. Call with the folder locked. Returns the socket or a negative errno (reported).
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
    const int iFolder = lockFolder(pszPath, deadlineIn(uiTimeoutMs));
    if (iFolder < 0) {
        frameworkReport(kWhoCreate, "can not lock the folder of %s: %s", pszPath, std::strerror(-iFolder));
        return iFolder;
    }
    const int iErrno = removeStale(address);
    const int iSocket = iErrno != 0 ? -iErrno : bindListener(address);
    struct stat status;
    if (iSocket >= 0 && lstat(pszPath, &status) == 0) {
        file.ulDevice = status.st_dev;
        file.ulInode = status.st_ino;
        std::memcpy(file.szPath, address.sun_path, sizeof address.sun_path);
    }
    close(iFolder);
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
    ucred peer{};
    socklen_t uiLength = sizeof peer;
    if (getsockopt(iSocket, SOL_SOCKET, SO_PEERCRED, &peer, &uiLength) != 0 ||
        !ktnLocalPeerAllowed(peer, geteuid())) {
        frameworkReport("ktn_xapi_ktnet_accept", "a client of another user (%u) is refused", peer.uid);
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
        return 0;
    }
    if (iErrno == EAGAIN) {
        iErrno = ETIMEDOUT;
        frameworkReport(kWho, "%s: the queue of its listener stayed full for %u ms", pszPath, uiTimeoutMs);
    } else {
        frameworkReport(kWho, "no connection to %s: %s", pszPath, std::strerror(iErrno));
    }
    return -iErrno;
}

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

constexpr const char *WHO_LISTEN = "ktn_xapi_ktnet_create";
constexpr int LOCK_RETRY_MS = 5;

bool fillAddress(sockaddr_un &Address, const char *pszPath) {
    Address = {};
    Address.sun_family = AF_UNIX;
    const size_t ulLength = strlen(pszPath);
    if (ulLength == 0 || ulLength >= sizeof Address.sun_path)
        return false;
    memcpy(Address.sun_path, pszPath, ulLength);
    return true;
}

const sockaddr *plain(const sockaddr_un &Address) {
    return reinterpret_cast<const sockaddr *>(&Address);
}

// Opens the folder of pszPath and locks it, so that of two processes that want the same path one looks,
// removes and binds after the other. A lock on the folder leaves no file behind, whatever end the process
// takes. Returns the folder (closing it unlocks), or a negative errno.
int lockFolder(const char *pszPath, DEADLINE Deadline) {
    char szFolder[sizeof(sockaddr_un::sun_path)] = ".";
    if (const char *pszName = strrchr(pszPath, '/')) {
        const auto ulLength = static_cast<size_t>(pszName == pszPath ? 1 : pszName - pszPath);
        memcpy(szFolder, pszPath, ulLength);
        szFolder[ulLength] = 0;
    }
    const int iFolder = open(szFolder, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (iFolder < 0)
        return -errno;
    while (flock(iFolder, LOCK_EX | LOCK_NB) != 0) {
        if ((errno != EWOULDBLOCK && errno != EINTR) || deadlineLeft(Deadline) == 0) {
            const int iErrno = errno;
            close(iFolder);
            return -iErrno;
        }
        poll(nullptr, 0, LOCK_RETRY_MS);
    }
    return iFolder;
}

// Whether somebody answers at the address: 0 when nobody does (the file is stale), else an errno that says
// what a connection met.
int probe(const sockaddr_un &Address) {
    const int iProbe = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (iProbe < 0)
        return errno;
    const int iErrno = connect(iProbe, plain(Address), sizeof Address) == 0 ? EADDRINUSE : errno;
    close(iProbe);
    if (iErrno == ECONNREFUSED || iErrno == ENOENT)
        return 0;
    return iErrno == EAGAIN ? EADDRINUSE : iErrno; // a full queue is a listener's too
}

// Clears the way for a new socket file. Called with the folder locked. Returns 0 or an errno (reported).
int removeStale(const sockaddr_un &Address) {
    const char *pszPath = Address.sun_path;
    struct stat Status;
    if (lstat(pszPath, &Status) != 0) {
        if (errno == ENOENT)
            return 0;
        const int iErrno = errno;
        frameworkReport(WHO_LISTEN, "can not look at %s: %s", pszPath, strerror(iErrno));
        return iErrno;
    }
    if (!S_ISSOCK(Status.st_mode)) {
        frameworkReport(WHO_LISTEN, "%s is there and is no socket; it is left alone", pszPath);
        return EEXIST;
    }
    if (Status.st_uid != geteuid()) {
        frameworkReport(WHO_LISTEN, "%s belongs to another user (%u); it is left alone", pszPath,
                        Status.st_uid);
        return EACCES;
    }
    if (const int iErrno = probe(Address)) {
        if (iErrno == EADDRINUSE)
            frameworkReport(WHO_LISTEN, "%s is served by another listener; it is left alone", pszPath);
        else
            frameworkReport(WHO_LISTEN, "%s can not be probed: %s; it is left alone", pszPath,
                            strerror(iErrno));
        return iErrno;
    }
    if (unlink(pszPath) != 0 && errno != ENOENT) {
        const int iErrno = errno;
        frameworkReport(WHO_LISTEN, "can not remove the stale %s: %s", pszPath, strerror(iErrno));
        return iErrno;
    }
    return 0;
}

// Binds and listens. Called with the folder locked. Returns the socket or a negative errno (reported).
int bindListener(const sockaddr_un &Address) {
    const int iSocket = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    // The file takes its mode from the socket: narrow from the start, and the umask of the process untouched.
    if (iSocket >= 0 && fchmod(iSocket, 0600) == 0 && bind(iSocket, plain(Address), sizeof Address) == 0) {
        if (listen(iSocket, SOMAXCONN) == 0)
            return iSocket;
        unlink(Address.sun_path);
    }
    const int iErrno = errno;
    if (iSocket >= 0)
        close(iSocket);
    frameworkReport(WHO_LISTEN, "can not listen at %s: %s", Address.sun_path, strerror(iErrno));
    return -iErrno;
}

} // namespace

int ktnLocalListen(const char *pszPath, unsigned int uiTimeoutMs, KTN_SOCKET_FILE &File) {
    File = {};
    sockaddr_un Address;
    if (!fillAddress(Address, pszPath)) {
        frameworkReport(WHO_LISTEN, "\"%s\" can not be a socket path: empty, or longer than %zu bytes",
                        pszPath, sizeof Address.sun_path - 1);
        return *pszPath == 0 ? -EINVAL : -ENAMETOOLONG;
    }
    const int iFolder = lockFolder(pszPath, deadlineIn(uiTimeoutMs));
    if (iFolder < 0) {
        frameworkReport(WHO_LISTEN, "can not lock the folder of %s: %s", pszPath, strerror(-iFolder));
        return iFolder;
    }
    const int iErrno = removeStale(Address);
    const int iSocket = iErrno != 0 ? -iErrno : bindListener(Address);
    struct stat Status;
    if (iSocket >= 0 && lstat(pszPath, &Status) == 0) {
        File.ulDevice = Status.st_dev;
        File.ulInode = Status.st_ino;
        memcpy(File.szPath, Address.sun_path, sizeof Address.sun_path);
    }
    close(iFolder);
    return iSocket;
}

void ktnLocalRemove(KTN_SOCKET_FILE &File) {
    // To be called while the listener is still open: nobody replaces the file of a live listener, so what is
    // looked at here is what is removed.
    struct stat Status;
    if (File.ulInode != 0 && lstat(File.szPath, &Status) == 0 && Status.st_dev == File.ulDevice &&
        Status.st_ino == File.ulInode)
        unlink(File.szPath);
    File.ulInode = 0;
}

int ktnLocalAccept(int iListener) {
    const int iSocket = accept4(iListener, nullptr, nullptr, SOCK_CLOEXEC);
    if (iSocket < 0) {
        if (errno == ECONNABORTED || errno == EINTR)
            errno = EAGAIN;
        if (errno == EAGAIN)
            return -EAGAIN;
        const int iErrno = errno;
        frameworkReport("ktn_xapi_ktnet_accept", "no connection taken: %s", strerror(iErrno));
        return -iErrno;
    }
    ucred Peer{};
    socklen_t uiLength = sizeof Peer;
    if (getsockopt(iSocket, SOL_SOCKET, SO_PEERCRED, &Peer, &uiLength) != 0 ||
        !ktnLocalPeerAllowed(Peer, geteuid())) {
        frameworkReport("ktn_xapi_ktnet_accept", "a client of another user (%u) is refused", Peer.uid);
        close(iSocket);
        return -EACCES;
    }
    return iSocket;
}

int ktnLocalClient() {
    const int iSocket = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (iSocket >= 0)
        return iSocket;
    const int iErrno = errno;
    frameworkReport(WHO_LISTEN, "no socket for a local client: %s", strerror(iErrno));
    return -iErrno;
}

int ktnLocalConnect(int iSocket, const char *pszPath, unsigned int uiTimeoutMs) {
    static constexpr const char *pszWho = "ktn_xapi_ktnet_connect";
    sockaddr_un Address;
    if (!fillAddress(Address, pszPath)) {
        frameworkReport(pszWho, "\"%s\" can not be a socket path: empty, or longer than %zu bytes", pszPath,
                        sizeof Address.sun_path - 1);
        return *pszPath == 0 ? -EINVAL : -ENAMETOOLONG;
    }
    // The kernel itself waits for room in the listener's queue, for as long as the send time-out says; a
    // time-out of 0 would mean for ever there.
    const DEADLINE Deadline = deadlineIn(uiTimeoutMs);
    int iErrno = 0;
    do {
        const int iLeft = std::max(1, deadlineLeft(Deadline));
        const timeval Wait{iLeft / 1000, iLeft % 1000 * 1000};
        setsockopt(iSocket, SOL_SOCKET, SO_SNDTIMEO, &Wait, sizeof Wait);
        iErrno = connect(iSocket, plain(Address), sizeof Address) == 0 ? 0 : errno;
    } while (iErrno == EINTR && deadlineLeft(Deadline) > 0);
    if (iErrno == 0)
        return 0;
    if (iErrno == EAGAIN) {
        iErrno = ETIMEDOUT;
        frameworkReport(pszWho, "%s: the queue of its listener stayed full for %u ms", pszPath, uiTimeoutMs);
    } else {
        frameworkReport(pszWho, "no connection to %s: %s", pszPath, strerror(iErrno));
    }
    return -iErrno;
}

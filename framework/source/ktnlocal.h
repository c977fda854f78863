// ktnlocal.h - local stream sockets on file-system paths: listens, accepts, connects.
//
// Called by the endpoint calls, on the thread that owns the endpoint. A listener's socket file belongs to
// one process; the rules here make sure that no second process serves the same path.
#ifndef FRAMEWORK_KTNLOCAL_H
#define FRAMEWORK_KTNLOCAL_H

#include <sys/socket.h>
#include <sys/types.h>

// Identifies the socket file that a listener made.
struct KtnSocketFile {
    dev_t ulDevice;
    ino_t ulInode; // 0 no file
    char szPath[128];
};

// The calls that return a socket return a negative errno on failure and report it.

// Listens at pszPath with file mode 0600 and stores the socket file in file. Replaces a stale socket file
// of this user. Fails, and leaves the path alone, if it holds no socket, another user's, or one that a live
// listener serves.
// uiTimeoutMs: how long to wait for another process of this user that is starting at the same path. The lock
// between the two is a file beside the socket with ".lock" at its end, which lasts as long as the start.
int ktnLocalListen(const char *pszPath, unsigned int uiTimeoutMs, KtnSocketFile &file);

// Removes the socket file if it is still the one that the listener made. The listener must still be open:
// no process replaces the file of a live listener, so the file cannot change between the check and the
// removal.
void ktnLocalRemove(KtnSocketFile &file);

// Accepts one pending connection. Returns -EAGAIN if there is none, and -EACCES if
// the client is neither this user nor root: it is then closed (reported).
int ktnLocalAccept(int iListener);

// Opens a client socket without connecting it.
int ktnLocalClient();

// Connects a client socket to pszPath. Waits at most uiTimeoutMs while the listener's queue is full. Then
// checks who serves the path: this user, root, or a user that KTNET_PEER_USERS names. Anybody else is refused
// with -EACCES, and nothing more can be sent on the socket.
// Returns 0 or a negative errno (reported).
int ktnLocalConnect(int iSocket, const char *pszPath, unsigned int uiTimeoutMs);

#endif

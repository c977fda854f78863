// ktnlocal.h - local stream sockets on file-system paths: listening, accepting, connecting.
//
// Called by the endpoint operations, on the thread of the endpoint. A listener's socket file belongs to the
// process that serves it; the rules here keep two processes from both believing that.
#ifndef FRAMEWORK_KTNLOCAL_H
#define FRAMEWORK_KTNLOCAL_H

#include <sys/socket.h>
#include <sys/types.h>

// The socket file of a listener, as it was made.
struct KtnSocketFile {
    dev_t ulDevice;
    ino_t ulInode; // 0: no file
    char szPath[128];
};

// All return a socket (0 for "no connection" where said) or a negative errno, which is reported.

// Listens at pszPath with file mode 0600. Replaces a stale socket file of this user; leaves alone, as an
// error, what is no socket, another user's, or served by a live listener.
int ktnLocalListen(const char *pszPath, unsigned int uiTimeoutMs, KtnSocketFile &file);

// Removes the socket file, if it is still the one that the listener made.
void ktnLocalRemove(KtnSocketFile &file);

// Accepts one pending connection; -EAGAIN when it has gone, -EACCES for a peer that is not allowed.
int ktnLocalAccept(int iListener);

// Whether a peer may talk to this process: the same user, or root.
inline bool ktnLocalPeerAllowed(const ucred &peer, uid_t uiOwn) {
    return peer.uid == uiOwn || peer.uid == 0;
}

// Opens a client socket, not yet connected.
int ktnLocalClient();

// Connects it. A listener whose queue is full is waited for, at most uiTimeoutMs. Returns 0 or a negative
// errno.
int ktnLocalConnect(int iSocket, const char *pszPath, unsigned int uiTimeoutMs);

#endif

// localsocket.h - connects to the service's sockets, and looks who serves them.
//
// Called by serve before it opens the service, and by every command before it sends anything. A socket in
// /tmp may be anybody's: what is sent to it may hold a key. So a command looks first who listens.
#ifndef PCCAST_CLI_LOCALSOCKET_H
#define PCCAST_CLI_LOCALSOCKET_H

#include <string>

#include <sys/types.h>

// The environment variable that names one more user whose service is believed, by name or number.
constexpr const char *kServiceUser = "pccast"; // of the installed service
constexpr const char *kServiceUserVariable = "PCCAST_SERVICE_USER";

// Connects to the local socket at pszPath. Waits up to 2 s for a place in a full queue. Returns the socket,
// which the caller closes, or a negative errno. *puiUser: the user who listens.
int connectLocal(const char *pszPath, uid_t *puiUser);

// Connects to the local socket at pszPath and hangs up. Returns 0 when somebody listens, else the errno.
int probeSocket(const char *pszPath);

// Whether a service of that user is believed: this user's own, root's, the system service's, or that of the
// user whom PCCAST_SERVICE_USER names.
bool isTrustedUser(uid_t uiUser);

// The user's name, or the number where there is none.
std::string nameOfUser(uid_t uiUser);

// Says that this user may not connect to the socket.
std::string foreignSocketText(const char *pszPath);

// Says that the socket is served by a user who is not trusted.
std::string untrustedText(const char *pszPath, uid_t uiUser);

#endif

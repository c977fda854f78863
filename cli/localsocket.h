// localsocket.h - looks whether anybody listens on one of the service's sockets.
//
// Called by serve before it opens the service, and by every command before it submits a request.
#ifndef PCCAST_CLI_LOCALSOCKET_H
#define PCCAST_CLI_LOCALSOCKET_H

// Connects to the local socket at pszPath and hangs up. Returns 0 when somebody listens, else the errno.
int probeSocket(const char *pszPath);

// Says that this user may not connect to the socket. Returns EXIT_UNAVAILABLE.
int sayForeignSocket(const char *pszPath);

#endif

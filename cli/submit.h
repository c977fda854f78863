// service.h - whether the service can be reached, and handing it a request.
//
// What keeps a request from arriving is looked for before it is made: is the service switched on, does
// anybody listen? Called in the main thread.
#ifndef PCCAST_CLI_SERVICE_H
#define PCCAST_CLI_SERVICE_H

#include "plugin.h"

// Connects to the local socket at pszPath and hangs up. Returns 0 when somebody listens, else the errno.
int probeSocket(const char *pszPath);

// Says of a socket that it cannot be connected to for lack of permission. Returns EXIT_UNAVAILABLE.
int sayForeignSocket(const char *pszPath);

// Submits the record with command ulCMD, which is written into it. Returns EXIT_DONE: it was sent;
// EXIT_SWITCHED_OFF, EXIT_UNAVAILABLE or EXIT_BAD_DATA (incomplete), said on standard error.
int submitCast(const Plugin &plugin, unsigned long ulCMD, CASTInfo *pInfo);
int submitMessage(const Plugin &plugin, unsigned long ulCMD, MSGInfo *pInfo);

#endif

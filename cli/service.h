// service.h - whether the service can be reached, and handing it a request.
//
// The commanders' results do not tell whether a request arrived, so this is found out before: is the service
// switched on, does anybody listen? Called in the main thread.
#ifndef PCCAST_CLI_SERVICE_H
#define PCCAST_CLI_SERVICE_H

#include "plugin.h"

// Connects to the local socket at pszPath and hangs up. Returns 0 when somebody listens, else the errno.
int probeSocket(const char *pszPath);

// Submits through the commander of the record's kind, with command ulCMD. Returns EXIT_DONE;
// EXIT_SWITCHED_OFF, EXIT_UNAVAILABLE or EXIT_BAD_DATA (refused), said on standard error.
int submitCast(const PLUGIN &plugin, unsigned long ulCMD, CASTInfo *pInfo);
int submitMessage(const PLUGIN &plugin, unsigned long ulCMD, MSGInfo *pInfo);

#endif

// ktnendpoint.h - what the library keeps of an endpoint, and how its calls fail.
#ifndef FRAMEWORK_KTNENDPOINT_H
#define FRAMEWORK_KTNENDPOINT_H

#include "ktnlocal.h"

#include <qxapi_ktn.h>

// A descriptor as the library allocates it: the callers see the first member only.
struct KtnEndpoint {
    KTNET_ENDPOINT Public;
    KtnSocketFile socketFile; // a local listener's
};

// The endpoint of a descriptor; null when it is none that the library made.
KtnEndpoint *ktnEndpoint(KTNET_ENDPOINT *pDesc);

// Makes a descriptor with defaults. Returns null when memory runs out.
KTNET_ENDPOINT *ktnEndpointNew(int iMode, int iVersion);

// Notes a failure in the descriptor and returns it as a negative errno.
int ktnFailed(KTNET_ENDPOINT *pDesc, int iErrno);

#endif

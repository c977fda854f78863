// ktnendpoint.h - what the library keeps for an endpoint, and how its calls record a failure.
//
// Used by the endpoint and transfer calls, on the thread that owns the endpoint.
#ifndef FRAMEWORK_KTNENDPOINT_H
#define FRAMEWORK_KTNENDPOINT_H

#include "ktnlobby.h"
#include "ktnlocal.h"
#include "udpsocket.h"

#include <qxapi_ktn.h>

// A descriptor as the library allocates it. Callers see only the first member.
struct KtnEndpoint {
    KTNET_ENDPOINT descriptor;
    KtnSocketFile socketFile; // of a local listener
    KtnLobby lobby;           // of a local listener
    UdpSender sender;         // of a UDP endpoint that sends; its socket is the descriptor's
};

// Returns the endpoint of a descriptor, or null if the library did not make it.
KtnEndpoint *ktnEndpoint(KTNET_ENDPOINT *pDesc);

// Makes a descriptor with defaults. Returns null if memory runs out (reported).
KTNET_ENDPOINT *ktnEndpointNew(int iMode, int iVersion);

// Stores iErrno in the descriptor's uiError and returns it negated.
int ktnFailed(KTNET_ENDPOINT *pDesc, int iErrno);

#endif

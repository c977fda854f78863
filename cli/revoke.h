// revoke.h - waits for what a stop or cancel request does.
//
// Used by stop and cancel in the main thread, with the service's view.
#ifndef PCCAST_CLI_REVOKE_H
#define PCCAST_CLI_REVOKE_H

#include "json.h"

#include <string>

enum RevokeResult {
    // It has taken a request back, or has ended a cast.
    REVOKE_MET,
    // It is over and has met nothing.
    REVOKE_VOID,
    // What it was meant for has come to an end in another way.
    REVOKE_LATE,
    // Nothing was heard in time.
    REVOKE_SILENT
};

// A stop or cancel request that was sent, and the number of the request that it is meant for.
struct Revocation {
    std::string sKind; // stop or cancel
    std::string sIdentity;
    unsigned long ulTarget;
};

// Reads the events above *pulAfter and moves it on, for at most 5 s. *pEvent: what it has met or how its
// target ended.
RevokeResult awaitRevocation(const Revocation &revocation, unsigned long *pulAfter, Json *pEvent);

#endif

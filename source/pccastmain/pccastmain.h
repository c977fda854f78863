// pccastmain.h - what the files of this folder share: the module's name, and the state between the host's
// entry points and the supervisor.
#ifndef PCCAST_PCCASTMAIN_H
#define PCCAST_PCCASTMAIN_H

#include "engines.h"

#include <atomic>
#include <cstdint>
#include <cstdio>

// The module's name in printed messages.
constexpr const char *kModule = "pccastmain";

// The supervisor's control block; null while the plug-in is closed. Only the open and close routines write
// it. The host calls them one at a time.
extern "C" KTPLUGIN_INFO_TAG *gpPCCASTPluginInfo;

// How many supervisors have ever started. Each adds 1 right after it has set its state to 1. The open routine
// waits for the change. So it also sees a supervisor that starts and ends at once.
extern std::atomic<uint32_t> gSupervisorStarts;

// The engine that the supervisor is waiting for while it stops; null before and after. Written by the
// supervisor, read by the closer, which names the engine when the wait takes too long.
extern std::atomic<const char *> gStoppingEngine;

// Says that a request has bytes behind its last whole item, when the walk over its items stopped at ulWalked
// of ulTotal bytes. The items before count. pKind: "cast" or "message".
inline void reportRest(const char *pKind, unsigned long ulWalked, unsigned long ulTotal) {
    if (ulWalked < ulTotal) {
        std::printf("[%s:%d] \e[2;33m %s request of %lu bytes: its items end after %lu, the rest is ignored "
                    "\e[1;43m[WARNING]\e[0m\n",
                    kModule, __LINE__, pKind, ulTotal, ulWalked);
    }
}

#endif

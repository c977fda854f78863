// pccastmain.h - what the files of this module share among themselves.
#ifndef PCCAST_PCCASTMAIN_H
#define PCCAST_PCCASTMAIN_H

#include "engines.h"

#include <atomic>
#include <cstdint>
#include <cstdio>

// The name by which this module's files appear in messages.
constexpr const char *kModule = "pccastmain";

// The supervisor's control block; null while the plug-in is closed. Written by the open and close routines,
// which the host calls one at a time.
extern "C" KTPLUGIN_INFO_TAG *gpPCCASTPluginInfo;

// How many supervisors have ever started. Each raises it once, right after its state has become 1; the opener
// waits for the change, so that a supervisor that starts and ends at once is not missed.
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

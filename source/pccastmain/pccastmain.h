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

// The name of the engine for which the stopping supervisor waits; null before and after. The supervisor
// writes it. The close routine reads it, to print the name if the wait takes too long.
extern std::atomic<const char *> gStoppingEngine;

// The block of a supervisor that the close routine did not await to the end; null: none. The close routine
// writes it. The supervisor takes it out as its very last act, and releases the block.
extern std::atomic<KTPLUGIN_INFO_TAG *> gAbandonedBlock;

// Prints a warning if a request has bytes behind its last whole item. The items before them are used.
// pKind: "cast" or "message". ulWalked: bytes of whole items. ulTotal: bytes of the request.
inline void reportRest(const char *pKind, unsigned long ulWalked, unsigned long ulTotal) {
    if (ulWalked < ulTotal) {
        std::printf("[%s:%d] \e[2;33m %s request of %lu bytes: its items end after %lu, the rest is ignored "
                    "\e[1;43m[WARNING]\e[0m\n",
                    kModule, __LINE__, pKind, ulTotal, ulWalked);
    }
}

#endif

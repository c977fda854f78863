// pccastmain.h - what the files of this folder share: the module's name, and the state between the host's
// entry points and the supervisor.
#ifndef PCCAST_PCCASTMAIN_H
#define PCCAST_PCCASTMAIN_H

#include "engines.h"

#include <atomic>
#include <cstdint>

// The module's name in printed messages.
constexpr const char *kModule = "pccastmain";

// The supervisor's control block; null while the plug-in is closed. Only the open and close routines write
// it. The host calls them one at a time.
extern "C" KTPLUGIN_INFO_TAG *gpPCCASTPluginInfo;

// How many supervisors have ever started. Each adds 1 right after it has set its state to 1. The open routine
// waits for the change. So it also sees a supervisor that starts and ends at once.
extern std::atomic<uint32_t> gSupervisorStarts;

#endif

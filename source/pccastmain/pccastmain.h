// pccastmain.h - what the files of this module share among themselves.
#ifndef PCCAST_PCCASTMAIN_H
#define PCCAST_PCCASTMAIN_H

#include "engines.h"

#include <atomic>
#include <cstdint>

// The name by which this module's files appear in messages.
constexpr const char *kModule = "pccastmain";

// The supervisor's control block; null while the plug-in is closed. Written by the open and close routines,
// which the host calls one at a time.
extern "C" KTPLUGIN_INFO_TAG *gpPCCASTPluginInfo;

// How many supervisors have ever started. Each raises it once, right after its state has become 1; the opener
// waits for the change, so that a supervisor that starts and ends at once is not missed.
extern std::atomic<uint32_t> gSupervisorStarts;

#endif

// engines.h - the control block of a thread, and the bodies of the supervisor and the six engines.
//
// A controller starts a thread, hands it work and stops it through the block. The host's open and close
// routines control the supervisor. The supervisor controls the engines. A controller and its thread share
// nothing but the block and the lists that it points at.
#ifndef PCCAST_ENGINES_H
#define PCCAST_ENGINES_H

#include <pccast/castinfo.h>

#include <atomic>
#include <cstdint>

extern "C" {

enum E_KTMU_PLUGIN_STATE : int32_t {
    // The bypass or recast engine could not start or carry its cast. The supervisor clears this with 0.
    ENGINE_FAILED = -1,
    // A cast engine waits for work.
    ENGINE_IDLE = 0,
    // Cast engines: a cast is on air. Other threads: the thread runs.
    ENGINE_RUNNING = 1,
    // Request: end the cast on air and go back to idle.
    ENGINE_FINISH = 2,
    // Request: leave the loop and end.
    ENGINE_STOP = 3,
    // No thread runs on the block.
    ENGINE_STOPPED = 4
};

typedef struct KTPLUGIN_INFO_TAG {
    // The controller writes three changes: 1 -> 2, -1 -> 0, and 3 over anything but 4. The thread writes
    // everything else. It sets its first state over anything. Later its idle, running and failed never
    // overwrite 3 or 4. Both sides may write at the same moment. So a change that depends on the old value is
    // always one compare-and-exchange.
    std::atomic<int32_t> eState;
    // The thread adds 1 when it starts to work. It subtracts 1 as its last act but one. Whoever has seen the
    // 1 and then sees 0 knows: the thread has left its loop and released what it held.
    std::atomic<int32_t> iThreadCount;
    // Receivers and message engine: the lists that they serve. The supervisor sets them before the start.
    // Cast engines: the hand-over slot. The supervisor stores a copy of a cast only into an empty slot of an
    // idle engine. The engine empties the slot after its state has left 0, or when it has given the cast up.
    // So an empty slot always means that the engine has answered, however short the cast was.
    std::atomic<void *> pWork;
} KTPLUGIN_INFO_TAG;

// Waits until the block's iThreadCount is 0, for at most 100 x (iLimit + 1) passes of vexa_load_balance.
// Returns iLimit minus the hundreds of passes waited; -1 no block. A result of 0 or less is printed as a
// time-out.
int ktWaitForAEngine(KTPLUGIN_INFO_TAG *pBlock, int iLimit);

// The thread bodies. Each runs on its control block until eState is above 2, and returns 0.

// The supervisor. pWork is null.
int PCCASTPluginMain(KTPLUGIN_INFO_TAG *pBlock);

// Receives messages and broadcasts them. pWork: MSGList *[2], priority and normal.
int RxPCMBCInfoEngine(KTPLUGIN_INFO_TAG *pBlock);
int PCMBCEngine(KTPLUGIN_INFO_TAG *pBlock);

// Receives cast requests. pWork: CASTList *[2], bypass and recast.
int RxCASTInfoEngine(KTPLUGIN_INFO_TAG *pBlock);

// The cast engines: announce, relay, play a file. pWork: hand-over slot.
int PCCASTBCIEngine(KTPLUGIN_INFO_TAG *pBlock);
int PCCASTBYPASSEngine(KTPLUGIN_INFO_TAG *pBlock);
int PCCASTRECASTEngine(KTPLUGIN_INFO_TAG *pBlock);
}

static_assert(std::atomic<int32_t>::is_always_lock_free && sizeof(std::atomic<int32_t>) == 4);
static_assert(std::atomic<void *>::is_always_lock_free && sizeof(std::atomic<void *>) == 8);
static_assert(sizeof(KTPLUGIN_INFO_TAG) == 16);

// Changes the state from eFrom to eTo. Does nothing if the state is not eFrom. Returns whether it changed.
inline bool engineMove(KTPLUGIN_INFO_TAG *pBlock, int32_t eFrom, int32_t eTo) {
    return pBlock->eState.compare_exchange_strong(eFrom, eTo);
}

// Controller: asks the thread to stop (3), unless it has ended (4).
inline void engineRequestStop(KTPLUGIN_INFO_TAG *pBlock) {
    int32_t eNow = pBlock->eState.load();
    while (eNow != ENGINE_STOPPED && !pBlock->eState.compare_exchange_weak(eNow, ENGINE_STOP)) {
    }
}

// Thread: reports its own state (idle, running, failed). A stop request or a stopped block stays as it is.
// Returns whether the report was made.
inline bool engineReport(KTPLUGIN_INFO_TAG *pBlock, int32_t eState) {
    int32_t eNow = pBlock->eState.load();
    while (eNow != ENGINE_STOP && eNow != ENGINE_STOPPED) {
        if (pBlock->eState.compare_exchange_weak(eNow, eState)) {
            return true;
        }
    }
    return false;
}

// Thread: goes back to idle at the end of a cast. A failure report, a stop request or a stopped block stays
// as it is.
inline void engineReportIdle(KTPLUGIN_INFO_TAG *pBlock) {
    int32_t eNow = pBlock->eState.load();
    while (eNow != ENGINE_FAILED && eNow != ENGINE_STOP && eNow != ENGINE_STOPPED &&
           !pBlock->eState.compare_exchange_weak(eNow, ENGINE_IDLE)) {
    }
}

// Returns the cast in the hand-over slot and leaves it there; null for an empty slot.
inline CASTInfo *enginePeek(const KTPLUGIN_INFO_TAG *pBlock) {
    return static_cast<CASTInfo *>(pBlock->pWork.load());
}

// Empties the hand-over slot. The engine now owns the copy that it peeked at. The supervisor sees that the
// engine has answered.
inline void engineAcknowledge(KTPLUGIN_INFO_TAG *pBlock) {
    pBlock->pWork.store(nullptr);
}

// The last act of a cast engine: releases a copy that still lies in the slot, then signs off.
void engineEnd(KTPLUGIN_INFO_TAG *pBlock);

#endif

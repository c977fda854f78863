// engines.h - the control block by which every thread is started, handed work and stopped, and the thread
// bodies of the six engines.
//
// A controller (the host's open and close routines for the supervisor, the supervisor for its engines) and a
// thread share nothing but this block and the lists that it points at.
#ifndef PCCAST_ENGINES_H
#define PCCAST_ENGINES_H

#include <pccast/castinfo.h>

#include <atomic>
#include <cstdint>

extern "C" {

enum E_KTMU_PLUGIN_STATE : int32_t {
    ENGINE_FAILED =
        -1, // the bypass or recast engine could not start or carry its cast; the supervisor's 0 clears it
    ENGINE_IDLE = 0,    // a cast engine waits for work
    ENGINE_RUNNING = 1, // a cast is on air; for the other threads: the thread runs
    ENGINE_FINISH = 2,  // request: end the cast on air and go back to idle
    ENGINE_STOP = 3,    // request: leave the loop and end
    ENGINE_STOPPED = 4  // no thread runs on the block
};

typedef struct KTPLUGIN_INFO_TAG {
    // The controller writes the requests: 1 -> 2 and -1 -> 0, each only from exactly that value, and 3 over
    // anything but 4. The thread writes the rest; its idle, running and failed never overwrite 3 or 4. Both
    // may write at the same moment, so every change that depends on the value before is one
    // compare-and-exchange.
    std::atomic<int32_t> eState;
    // The thread adds 1 when it starts working and subtracts 1 as its last act but one. 0 after a start has
    // been seen: the thread has left its loop and released what it held.
    std::atomic<int32_t> iThreadCount;
    // Receivers and message engine: the lists they serve, set before the start. Cast engines: the hand-over
    // slot. The supervisor stores a copy only into an empty slot of an idle engine; the engine empties it
    // only after its state has left 0 or once it has given the cast up. So an empty slot acknowledges the
    // hand-over, however short the cast was.
    std::atomic<void *> pWork;
} KTPLUGIN_INFO_TAG;

// Waits until the block's iThreadCount is 0, at most 100 x (iLimit + 1) passes of vexa_load_balance.
// Returns iLimit less the hundreds of passes waited; 0 or less, and no block (-1), are printed as a time-out.
int ktWaitForAEngine(KTPLUGIN_INFO_TAG *pBlock, int iLimit);

// Thread bodies. Each takes its control block, runs until eState is above 2, and returns 0.
int PCCASTPluginMain(KTPLUGIN_INFO_TAG *pBlock);   // pWork: null
int RxPCMBCInfoEngine(KTPLUGIN_INFO_TAG *pBlock);  // pWork: MSGList *[2], priority and normal
int PCMBCEngine(KTPLUGIN_INFO_TAG *pBlock);        // pWork: the same
int RxCASTInfoEngine(KTPLUGIN_INFO_TAG *pBlock);   // pWork: CASTList *[2], bypass and recast
int PCCASTBCIEngine(KTPLUGIN_INFO_TAG *pBlock);    // pWork: hand-over slot
int PCCASTBYPASSEngine(KTPLUGIN_INFO_TAG *pBlock); // pWork: hand-over slot
int PCCASTRECASTEngine(KTPLUGIN_INFO_TAG *pBlock); // pWork: hand-over slot
}

static_assert(std::atomic<int32_t>::is_always_lock_free && sizeof(std::atomic<int32_t>) == 4);
static_assert(std::atomic<void *>::is_always_lock_free && sizeof(std::atomic<void *>) == 8);
static_assert(sizeof(KTPLUGIN_INFO_TAG) == 16);

// Moves the state from exactly eFrom to eTo. Returns whether it did.
inline bool engineMove(KTPLUGIN_INFO_TAG *pBlock, int32_t eFrom, int32_t eTo) {
    return pBlock->eState.compare_exchange_strong(eFrom, eTo);
}

// The controller's stop request: 3, unless the thread has ended (4).
inline void engineRequestStop(KTPLUGIN_INFO_TAG *pBlock) {
    int32_t eNow = pBlock->eState.load();
    while (eNow != ENGINE_STOPPED && !pBlock->eState.compare_exchange_weak(eNow, ENGINE_STOP)) {
    }
}

// The thread's report of its own state (idle, running, failed): a stop request, or a block that is stopped,
// stays as it is. Returns whether the report was made.
inline bool engineReport(KTPLUGIN_INFO_TAG *pBlock, int32_t eState) {
    int32_t eNow = pBlock->eState.load();
    while (eNow != ENGINE_STOP && eNow != ENGINE_STOPPED) {
        if (pBlock->eState.compare_exchange_weak(eNow, eState)) {
            return true;
        }
    }
    return false;
}

// The end of a cast: back to idle, unless a failure report or a stop request stands.
inline void engineReportIdle(KTPLUGIN_INFO_TAG *pBlock) {
    int32_t eNow = pBlock->eState.load();
    while (eNow != ENGINE_FAILED && eNow != ENGINE_STOP && eNow != ENGINE_STOPPED &&
           !pBlock->eState.compare_exchange_weak(eNow, ENGINE_IDLE)) {
    }
}

// The cast in the hand-over slot, which stays in it; null when it is empty.
inline CASTInfo *enginePeek(const KTPLUGIN_INFO_TAG *pBlock) {
    return static_cast<CASTInfo *>(pBlock->pWork.load());
}

// Empties the hand-over slot: the copy peeked at before is now wholly the engine's, and the supervisor sees
// that it has been answered.
inline void engineAcknowledge(KTPLUGIN_INFO_TAG *pBlock) {
    pBlock->pWork.store(nullptr);
}

// A cast engine's last acts: releases a copy that still lies in the slot, then signs off.
void engineEnd(KTPLUGIN_INFO_TAG *pBlock);

#endif

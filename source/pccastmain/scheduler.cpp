// The supervisor thread: starts the engines, decides which cast request goes on air, and stops the engines.
// It owns the lists and the engines' control blocks.
//
// Everything that an engine can reach lives in one Service block. If an engine does not end in time, the
// whole block is kept.

#include "castlistmgr.h"
#include "debuglog.h"
#include "engines.h"
#include "msglistmgr.h"
#include "pccastmain.h"
#include "view.h"

#include <qxapi.h>
#include <vexa_pgl.h>

#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <new>

std::atomic<const char *> gStoppingEngine{nullptr};

namespace {

constexpr unsigned long kHorizon = 2;    // a request is taken so many seconds before its start
constexpr int kEngineLimit = 1000;       // iLimit of ktWaitForAEngine at shutdown
constexpr long kSignOffPasses = 100'000; // most passes of waiting for a thread's first or last write

enum EngineIndex { RX_MESSAGE, BROADCAST, RX_CAST, ANNOUNCEMENT, BYPASS, RECAST };

enum class Work { Messages, Casts, Slot };

using ThreadBody = void *(*)(void *);

template <int (*Body)(KTPLUGIN_INFO_TAG *)>
void *threadMain(void *pBlock) {
    Body(static_cast<KTPLUGIN_INFO_TAG *>(pBlock));
    return nullptr;
}

// The engines in the order of starting. They are stopped in the same order.
struct EngineRow {
    const char *pName;
    ThreadBody pBody;
    Work eWork;
    bool bSignsOff; // writes ENGINE_STOPPED after it has subtracted 1 from iThreadCount
};
constexpr EngineRow kEngines[] = {
    {"RxPCMBCInfoEngine", threadMain<RxPCMBCInfoEngine>, Work::Messages, true},
    {"PCMBCEngine", threadMain<PCMBCEngine>, Work::Messages, true},
    {"RxCASTInfoEngine", threadMain<RxCASTInfoEngine>, Work::Casts, false},
    {"PCCASTBCIEngine", threadMain<PCCASTBCIEngine>, Work::Slot, true},
    {"PCCASTBYPASSEngine", threadMain<PCCASTBYPASSEngine>, Work::Slot, true},
    {"PCCASTRECASTEngine", threadMain<PCCASTRECASTEngine>, Work::Slot, true},
};
constexpr int kEngineCount = static_cast<int>(std::size(kEngines));

// A list and the request last taken out of it. This request is pending until its start time. Then it is on
// air.
struct Channel {
    CASTList list;
    CASTInfo *pCurrent; // owned; null: none
    CASTInfo *pOnAir;   // an owned copy of the request last given to the engine; null: none
    bool bStartPending; // pCurrent has been taken but not yet started
    bool bReported;     // it has been printed that pCurrent cannot be handed over
};

struct Service {
    KTPLUGIN_INFO_TAG engines[kEngineCount];
    bool bStarted[kEngineCount];
    Channel bypass;
    Channel recast;
    MSGList priority;
    MSGList normal;
    CASTList *pCastLists[2];
    MSGList *pMessageLists[2];
};

unsigned long now() {
    return vexa_time(nullptr);
}

bool isAskedToStop(const KTPLUGIN_INFO_TAG *pSelf) {
    return pSelf->eState > ENGINE_FINISH;
}

// ---- start-up

Service *createService() {
    void *pMemory = std::calloc(1, sizeof(Service));
    if (pMemory == nullptr) {
        return nullptr;
    }
    auto *pService = ::new (pMemory) Service{};
    CREATECASTList(&pService->bypass.list);
    CREATECASTList(&pService->recast.list);
    pService->pCastLists[0] = &pService->bypass.list;
    pService->pCastLists[1] = &pService->recast.list;
    CREATEMSGList(&pService->priority);
    CREATEMSGList(&pService->normal);
    pService->pMessageLists[0] = &pService->priority;
    pService->pMessageLists[1] = &pService->normal;
    for (int i = 0; i < kEngineCount; ++i) {
        pService->engines[i].eState = ENGINE_STOPPED;
        if (kEngines[i].eWork == Work::Messages) {
            pService->engines[i].pWork = pService->pMessageLists;
        } else if (kEngines[i].eWork == Work::Casts) {
            pService->engines[i].pWork = pService->pCastLists;
        }
    }
    return pService;
}

// The view tells of these threads until it is closed.
void openView(const KTPLUGIN_INFO_TAG *pSelf, const Service *pService) {
    ViewThread threads[PCCAST_VIEW_THREADS] = {{"PCCASTPluginMain", pSelf}};
    static_assert(std::size(threads) == kEngineCount + 1);
    for (int i = 0; i < kEngineCount; ++i) {
        threads[i + 1] = {kEngines[i].pName, &pService->engines[i]};
    }
    viewOpen(threads);
}

// Starts every engine, even if another one cannot be started. Returns whether all have been started.
bool startEngines(Service *pService) {
    bool bAll = true;
    for (int i = 0; i < kEngineCount; ++i) {
        pService->bStarted[i] = qxapi_detached_thread_tag(kEngines[i].pBody, &pService->engines[i],
                                                          "PCCASTPluginMain", __LINE__) == 1;
        if (!pService->bStarted[i]) {
            std::printf("[%s:%d] %s Create Fail !\n", kModule, __LINE__, kEngines[i].pName);
            bAll = false;
        }
    }
    return bAll;
}

// ---- hand-over

// Asks the engine to end its cast. Clears a failure report.
void requestFinish(KTPLUGIN_INFO_TAG *pEngine) {
    engineMove(pEngine, ENGINE_RUNNING, ENGINE_FINISH);
    engineMove(pEngine, ENGINE_FAILED, ENGINE_IDLE);
}

// Waits until the engine's slot is empty and the engine is idle. Asks it to finish in every pass, since it
// may take up a cast from the slot only now. Returns false if the supervisor is asked to stop first.
bool waitUntilFree(const KTPLUGIN_INFO_TAG *pSelf, KTPLUGIN_INFO_TAG *pEngine) {
    // Read the slot before the state. When the slot is empty, the state has already left 0 for the cast in
    // it.
    while (enginePeek(pEngine) != nullptr || pEngine->eState != ENGINE_IDLE) {
        if (isAskedToStop(pSelf)) {
            return false;
        }
        requestFinish(pEngine);
        vexa_load_balance();
    }
    return true;
}

// Waits until the engine has answered the hand-over. Its cast is then on air, over or failed. Returns false
// if the supervisor is asked to stop first.
bool waitUntilTaken(const KTPLUGIN_INFO_TAG *pSelf, const KTPLUGIN_INFO_TAG *pEngine) {
    while (enginePeek(pEngine) != nullptr) {
        if (isAskedToStop(pSelf)) {
            return false;
        }
        vexa_load_balance();
    }
    return true;
}

// Puts a copy of the request into the engine's slot. Returns whether it did.
bool putInSlot(KTPLUGIN_INFO_TAG *pEngine, const CASTInfo *pInfo) {
    CASTInfo *pSlot = enginePeek(pEngine);
    if (COPYaCASTInfo(pInfo, &pSlot) != 1) {
        return false;
    }
    pEngine->pWork = pSlot;
    return true;
}

// Hands the channel's current request to the engine. Returns whether it did.
bool handOver(KTPLUGIN_INFO_TAG *pEngine, Channel *pChannel) {
    if (putInSlot(pEngine, pChannel->pCurrent)) {
        return true;
    }
    // Every pass tries again. Print it only once.
    if (!pChannel->bReported) {
        std::printf(
            "[%s:%d] \e[2;31m can NOT hand over the cast of EPG id %lu, trying on \e[1;41m[ERROR]\e[0m\n",
            kModule, __LINE__, pChannel->pCurrent->uliEPGID);
        pChannel->bReported = true;
    }
    return false;
}

// ---- the steps of a pass

void releaseCurrent(Channel *pChannel) {
    if (pChannel->pCurrent != nullptr) {
        viewReleased(pChannel->pCurrent);
        ELIMINATECASTInfo(&pChannel->pCurrent);
    }
    pChannel->bStartPending = false;
    pChannel->bReported = false;
}

// Makes room for a newer request. The current request goes back to its list, unless its end time has passed.
void putBackCurrent(Channel *pChannel) {
    if (pChannel->pCurrent->ulET > now()) {
        viewPutBack(pChannel->pCurrent);
        if (INSERTCASTInfo(&pChannel->list, pChannel->pCurrent) > 0) {
            pChannel->pCurrent = nullptr; // the list owns it now
        } else {
            std::printf(
                "[%s:%d] \e[2;31m cast of EPG id %lu cannot be put back, dropped \e[1;41m[ERROR]\e[0m\n",
                kModule, __LINE__, pChannel->pCurrent->uliEPGID);
            viewDropped(pChannel->pCurrent, PCCAST_REASON_LOCK);
        }
    }
    releaseCurrent(pChannel);
}

// Takes the next due request out of the list and makes it current.
void pickStep(Channel *pChannel) {
    if (pChannel->list.iFLAGChange == 0 || pChannel->list.pList == nullptr ||
        pChannel->list.pList->iCount <= 0) {
        return;
    }
    if (pChannel->pCurrent != nullptr && pChannel->pCurrent->ulET <= now()) {
        releaseCurrent(pChannel);
    }
    CASTInfo *pPicked = nullptr;
    const unsigned long ulOnAirCT = pChannel->pCurrent != nullptr ? pChannel->pCurrent->ulCT : 0;
    PATCHaNode(&pChannel->list, ulOnAirCT, now() + kHorizon, &pPicked);
    if (pPicked == nullptr) {
        return;
    }
    viewTaken(pPicked);
    if (pChannel->pCurrent != nullptr) {
        if (pPicked->ulCMD == CAST_CMD_STOP) {
            viewCancelled(pChannel->pCurrent, pPicked);
            releaseCurrent(pChannel);
        } else {
            putBackCurrent(pChannel);
        }
    }
    pChannel->pCurrent = pPicked;
    pChannel->bStartPending = true;
}

// Whether the current request must start now. Releases it if its end time has passed while it was pending.
bool isCurrentDue(Channel *pChannel) {
    if (pChannel->pCurrent == nullptr || !pChannel->bStartPending || pChannel->pCurrent->ulST > now()) {
        return false;
    }
    if (pChannel->pCurrent->ulET <= now()) {
        releaseCurrent(pChannel);
        return false;
    }
    return true;
}

// Hands the due request to the announcement engine. If it starts a cast, pEngine gets it too. Both engines
// are free. If a hand-over fails, the request stays pending for the next pass.
void startCurrent(const KTPLUGIN_INFO_TAG *pSelf, Service *pService, Channel *pChannel,
                  KTPLUGIN_INFO_TAG *pEngine, ViewEngine eView) {
    if (!handOver(&pService->engines[ANNOUNCEMENT], pChannel)) {
        return;
    }
    if (pChannel->pCurrent->ulCMD != CAST_CMD_START) {
        viewDone(pChannel->pCurrent);
        releaseCurrent(pChannel);
        return;
    }
    viewHandedOver(eView, pChannel->pCurrent);
    if (!handOver(pEngine, pChannel)) {
        return;
    }
    ELIMINATECASTInfo(&pChannel->pOnAir);
    COPYaCASTInfo(pChannel->pCurrent, &pChannel->pOnAir);
    if (waitUntilTaken(pSelf, pEngine)) {
        pChannel->bStartPending = false;
    }
}

// Starts a due request of the bypass list. It ends every cast on air first.
void bypassStartStep(const KTPLUGIN_INFO_TAG *pSelf, Service *pService) {
    if (!isCurrentDue(&pService->bypass)) {
        return;
    }
    viewEndsFor(VIEW_BYPASS, pService->bypass.pCurrent);
    viewEndsFor(VIEW_RECAST, pService->bypass.pCurrent);
    for (const EngineIndex eEngine : {ANNOUNCEMENT, BYPASS, RECAST}) {
        requestFinish(&pService->engines[eEngine]);
    }
    for (const EngineIndex eEngine : {ANNOUNCEMENT, BYPASS, RECAST}) {
        if (!waitUntilFree(pSelf, &pService->engines[eEngine])) {
            return;
        }
    }
    startCurrent(pSelf, pService, &pService->bypass, &pService->engines[BYPASS], VIEW_BYPASS);
}

// Starts a due request of the recast list. A file cast never ends a relay. So the request stays pending until
// the bypass engine is idle.
void recastStartStep(const KTPLUGIN_INFO_TAG *pSelf, Service *pService) {
    if (pService->engines[BYPASS].eState != ENGINE_IDLE || !isCurrentDue(&pService->recast)) {
        return;
    }
    viewEndsFor(VIEW_RECAST, pService->recast.pCurrent);
    for (const EngineIndex eEngine : {ANNOUNCEMENT, RECAST}) {
        requestFinish(&pService->engines[eEngine]);
    }
    for (const EngineIndex eEngine : {ANNOUNCEMENT, RECAST}) {
        if (!waitUntilFree(pSelf, &pService->engines[eEngine])) {
            return;
        }
    }
    startCurrent(pSelf, pService, &pService->recast, &pService->engines[RECAST], VIEW_RECAST);
}

// Hands a failed cast to the announcement engine as ended. The engine announces the end for 20 seconds at its
// own pace. The schedule goes on meanwhile. A request that is due within these seconds takes the place of the
// end: a cast that fails must not hold up a cast that works.
void announceFailure(const KTPLUGIN_INFO_TAG *pSelf, KTPLUGIN_INFO_TAG *pAnnouncement, CASTInfo *pFailed) {
    std::printf("[%s:%d] \e[2;31m cast of EPG id %lu failed, dropped; its end is handed to the announcements "
                "\e[1;41m[ERROR]\e[0m\n",
                kModule, __LINE__, pFailed->uliEPGID);
    pFailed->ulCMD = CAST_CMD_END;
    if (putInSlot(pAnnouncement, pFailed)) {
        waitUntilTaken(pSelf, pAnnouncement);
    }
}

// Announces a failed cast as ended and removes it from the schedule.
void failureStep(const KTPLUGIN_INFO_TAG *pSelf, Service *pService, Channel *pChannel,
                 KTPLUGIN_INFO_TAG *pEngine) {
    if (!engineMove(pEngine, ENGINE_FAILED, ENGINE_IDLE)) {
        return;
    }
    KTPLUGIN_INFO_TAG *pAnnouncement = &pService->engines[ANNOUNCEMENT];
    if (!waitUntilFree(pSelf, pAnnouncement)) {
        return;
    }
    if (pChannel->pCurrent != nullptr && !pChannel->bStartPending) {
        announceFailure(pSelf, pAnnouncement, pChannel->pCurrent);
        releaseCurrent(pChannel);
    } else if (pChannel->pCurrent != nullptr && pChannel->pOnAir != nullptr) {
        // A newer request is pending, and the failed cast has gone back to the list. From there it would
        // return when the newer request is over.
        castlistRemoveRequest(&pChannel->list, pChannel->pOnAir);
        announceFailure(pSelf, pAnnouncement, pChannel->pOnAir);
    }
    ELIMINATECASTInfo(&pChannel->pOnAir);
}

void schedulingLoop(const KTPLUGIN_INFO_TAG *pSelf, Service *pService) {
    while (!isAskedToStop(pSelf)) {
        pickStep(&pService->bypass);
        pickStep(&pService->recast);
        bypassStartStep(pSelf, pService);
        failureStep(pSelf, pService, &pService->bypass, &pService->engines[BYPASS]);
        failureStep(pSelf, pService, &pService->recast, &pService->engines[RECAST]);
        recastStartStep(pSelf, pService);
        viewPass();
        vexa_load_balance();
    }
}

// ---- shutdown

// Waits until the condition is true, for at most kSignOffPasses passes. Returns whether it is true.
template <typename Condition>
bool waitBounded(Condition condition) {
    for (long lPasses = 0; !condition(); ++lPasses) {
        if (lPasses > kSignOffPasses) {
            return false;
        }
        vexa_load_balance();
    }
    return true;
}

// Waits for the first write of a started thread. Before it, the thread looks like a thread that has ended.
// Later it would run on released memory. Returns false if the write does not come (printed).
bool hasCheckedIn(const KTPLUGIN_INFO_TAG *pEngine, const char *pName) {
    if (waitBounded([=] { return pEngine->iThreadCount > 0 && pEngine->eState != ENGINE_STOPPED; })) {
        return true;
    }
    std::printf("[%s:%d] \e[2;31m %s does not begin: its lists are kept \e[1;41m[ERROR]\e[0m\n", kModule,
                __LINE__, pName);
    return false;
}

// Asks one engine to stop and waits for it. Returns whether it has ended and can touch nothing any more.
// Prints the reason if it has not.
bool stopEngine(KTPLUGIN_INFO_TAG *pEngine, const EngineRow &row, bool bStarted) {
    const bool bCheckedIn = !bStarted || hasCheckedIn(pEngine, row.pName);
    engineRequestStop(pEngine);
    ktWaitForAEngine(pEngine, kEngineLimit);
    const bool bSignsOff = bStarted && row.bSignsOff;
    if (pEngine->iThreadCount == 0 &&
        (!bSignsOff || waitBounded([=] { return pEngine->eState == ENGINE_STOPPED; }))) {
        return bCheckedIn;
    }
    std::printf("[%s:%d] \e[2;31m %s does not end: its lists are kept \e[1;41m[ERROR]\e[0m\n", kModule,
                __LINE__, row.pName);
    return false;
}

// Stops the engines one after the other, in the order of starting. The message engines and the receivers go
// first, so nothing new comes in while the casts end. Returns whether all have ended. Then no engine can
// touch the service any more.
bool stopEngines(Service *pService) {
    bool bAllEnded = true;
    for (int i = 0; i < kEngineCount; ++i) {
        gStoppingEngine = kEngines[i].pName;
        if (i == BYPASS || i == RECAST) {
            viewEndsFor(i == BYPASS ? VIEW_BYPASS : VIEW_RECAST, nullptr);
        }
        bAllEnded = stopEngine(&pService->engines[i], kEngines[i], pService->bStarted[i]) && bAllEnded;
    }
    gStoppingEngine = nullptr;
    return bAllEnded;
}

// What still waits is not told of: it neither ended nor expired.
void releaseChannel(Channel *pChannel) {
    ELIMINATECASTInfo(&pChannel->pCurrent);
    ELIMINATECASTInfo(&pChannel->pOnAir);
    DESTROYCASTList(&pChannel->list);
}

void destroyService(Service *pService) {
    releaseChannel(&pService->bypass);
    releaseChannel(&pService->recast);
    DESTROYMSGList(&pService->priority);
    DESTROYMSGList(&pService->normal);
    std::free(pService);
}

} // namespace

int PCCASTPluginMain(KTPLUGIN_INFO_TAG *pBlock) {
    initDebug("pccast", nullptr);
    ++pBlock->iThreadCount;
    pBlock->eState = ENGINE_RUNNING;
    ++gSupervisorStarts;

    Service *pService = createService();
    if (pService == nullptr) {
        std::printf("[%s:%d] \e[2;31m no memory for the service \e[1;41m[ERROR]\e[0m\n", kModule, __LINE__);
    } else {
        openView(pBlock, pService);
        if (startEngines(pService)) {
            schedulingLoop(pBlock, pService);
        }
        const bool bAllEnded = stopEngines(pService);
        viewClose(pBlock);
        if (bAllEnded) {
            destroyService(pService);
        }
    }
    --pBlock->iThreadCount;
    pBlock->eState = ENGINE_STOPPED;
    // From here on the block is the closer's, unless the closer has gone.
    KTPLUGIN_INFO_TAG *pAbandoned = pBlock;
    if (gAbandonedBlock.compare_exchange_strong(pAbandoned, nullptr)) {
        std::free(pAbandoned);
    }
    return 0;
}

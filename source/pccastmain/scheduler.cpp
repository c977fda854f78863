// The supervisor thread: owns the lists and the engines' control blocks, starts the engines, decides which
// cast request goes on air, and stops the engines one and all.
//
// Everything that an engine can reach lives in one Service block, so that it can be kept as a whole if an
// engine ever outlives its bounded wait.

#include "castlistmgr.h"
#include "debuglog.h"
#include "engines.h"
#include "msglistmgr.h"
#include "pccastmain.h"

#include <qxapi.h>
#include <vexa_pgl.h>

#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <new>

namespace {

constexpr unsigned long kHorizon = 2;    // seconds by which a request is taken ahead of its start time
constexpr int kEngineLimit = 1000;       // units of ktWaitForAEngine at shutdown
constexpr long kSignOffPasses = 100'000; // bound of the waits for a thread's first and last writes

enum EngineIndex { RX_MESSAGE, BROADCAST, RX_CAST, ANNOUNCEMENT, BYPASS, RECAST };

enum class Work { Messages, Casts, Slot };

using ThreadBody = void *(*)(void *);

template <int (*Body)(KTPLUGIN_INFO_TAG *)>
void *threadMain(void *pBlock) {
    Body(static_cast<KTPLUGIN_INFO_TAG *>(pBlock));
    return nullptr;
}

// In start order, which is the order of being stopped as well.
struct EngineRow {
    const char *pName;
    ThreadBody pBody;
    Work eWork;
    bool bSignsOff; // writes ENGINE_STOPPED after it has left the count
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

// A list with the request of it that was last taken out: pending until its start time, then on air.
struct Channel {
    CASTList list;
    CASTInfo *pCurrent; // owned; null: none
    bool bStartPending; // pCurrent has been taken but not yet started
    bool bReported;     // that pCurrent cannot be handed over
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

// Starts every engine, whatever becomes of the others. Returns whether all have been started.
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

// Ends what the engine has on air and acknowledges a failure report.
void requestFinish(KTPLUGIN_INFO_TAG *pEngine) {
    engineMove(pEngine, ENGINE_RUNNING, ENGINE_FINISH);
    engineMove(pEngine, ENGINE_FAILED, ENGINE_IDLE);
}

// Waits until the engine has answered every hand-over and is idle, asking it to finish as often as needed: a
// copy that it takes up only now is ended as well. Returns false when the supervisor is asked to stop first.
bool waitUntilFree(const KTPLUGIN_INFO_TAG *pSelf, KTPLUGIN_INFO_TAG *pEngine) {
    // The slot is read before the state: once it is empty, the state has left 0 for the copy that was in it.
    while (enginePeek(pEngine) != nullptr || pEngine->eState != ENGINE_IDLE) {
        if (isAskedToStop(pSelf)) {
            return false;
        }
        requestFinish(pEngine);
        vexa_load_balance();
    }
    return true;
}

// Waits until the engine has answered the hand-over: its cast is, or was, on air or has failed. Returns false
// when the supervisor is asked to stop first.
bool waitUntilTaken(const KTPLUGIN_INFO_TAG *pSelf, const KTPLUGIN_INFO_TAG *pEngine) {
    while (enginePeek(pEngine) != nullptr) {
        if (isAskedToStop(pSelf)) {
            return false;
        }
        vexa_load_balance();
    }
    return true;
}

// Puts a copy of the channel's current entry into the engine's slot. Returns whether it is there.
bool handOver(KTPLUGIN_INFO_TAG *pEngine, Channel *pChannel) {
    CASTInfo *pSlot = enginePeek(pEngine);
    if (COPYaCASTInfo(pChannel->pCurrent, &pSlot) == 1) {
        pEngine->pWork = pSlot;
        return true;
    }
    if (!pChannel->bReported) { // once: it is tried again in every pass
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
        ELIMINATECASTInfo(&pChannel->pCurrent);
    }
    pChannel->bStartPending = false;
    pChannel->bReported = false;
}

// A newer request takes the current entry's place: the entry waits for its turn again while it has not ended.
void putBackCurrent(Channel *pChannel) {
    if (pChannel->pCurrent->ulET > now()) {
        if (INSERTCASTInfo(&pChannel->list, pChannel->pCurrent) > 0) {
            pChannel->pCurrent = nullptr; // the list's
        } else {
            std::printf(
                "[%s:%d] \e[2;31m cast of EPG id %lu cannot be put back, dropped \e[1;41m[ERROR]\e[0m\n",
                kModule, __LINE__, pChannel->pCurrent->uliEPGID);
        }
    }
    releaseCurrent(pChannel);
}

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
    if (pChannel->pCurrent != nullptr) {
        if (pPicked->ulCMD == CAST_CMD_STOP) {
            releaseCurrent(pChannel);
        } else {
            putBackCurrent(pChannel);
        }
    }
    pChannel->pCurrent = pPicked;
    pChannel->bStartPending = true;
}

// Whether the current entry is to be started now; one that has ended while it was pending is released.
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

// Hands the due entry to the announcement engine and, when it starts a cast, to the engine that carries it.
// All engines are free. A hand-over that fails leaves the entry pending, for the next pass.
void startCurrent(const KTPLUGIN_INFO_TAG *pSelf, Service *pService, Channel *pChannel,
                  KTPLUGIN_INFO_TAG *pEngine) {
    if (!handOver(&pService->engines[ANNOUNCEMENT], pChannel)) {
        return;
    }
    if (pChannel->pCurrent->ulCMD != CAST_CMD_START) {
        releaseCurrent(pChannel);
        return;
    }
    if (handOver(pEngine, pChannel) && waitUntilTaken(pSelf, pEngine)) {
        pChannel->bStartPending = false;
    }
}

// A due request of the bypass list ends whatever is on air.
void bypassStartStep(const KTPLUGIN_INFO_TAG *pSelf, Service *pService) {
    if (!isCurrentDue(&pService->bypass)) {
        return;
    }
    for (const EngineIndex eEngine : {ANNOUNCEMENT, BYPASS, RECAST}) {
        requestFinish(&pService->engines[eEngine]);
    }
    for (const EngineIndex eEngine : {ANNOUNCEMENT, BYPASS, RECAST}) {
        if (!waitUntilFree(pSelf, &pService->engines[eEngine])) {
            return;
        }
    }
    startCurrent(pSelf, pService, &pService->bypass, &pService->engines[BYPASS]);
}

// A live relay is never ended for a stored file: the entry stays pending until the bypass engine is idle.
void recastStartStep(const KTPLUGIN_INFO_TAG *pSelf, Service *pService) {
    if (pService->recast.pCurrent == nullptr || !pService->recast.bStartPending ||
        pService->engines[BYPASS].eState != ENGINE_IDLE || !isCurrentDue(&pService->recast)) {
        return;
    }
    for (const EngineIndex eEngine : {ANNOUNCEMENT, RECAST}) {
        requestFinish(&pService->engines[eEngine]);
    }
    for (const EngineIndex eEngine : {ANNOUNCEMENT, RECAST}) {
        if (!waitUntilFree(pSelf, &pService->engines[eEngine])) {
            return;
        }
    }
    startCurrent(pSelf, pService, &pService->recast, &pService->engines[RECAST]);
}

// A failed cast is handed to the announcement engine as ended, and dropped. The engine has the end in hand
// for 20 seconds and sends it by its own cadence; the schedule goes on meanwhile, and a request that falls
// due before takes the end's place: a cast that fails must not hold up one that works.
void failureStep(const KTPLUGIN_INFO_TAG *pSelf, Service *pService, Channel *pChannel,
                 KTPLUGIN_INFO_TAG *pEngine) {
    if (!engineMove(pEngine, ENGINE_FAILED, ENGINE_IDLE)) {
        return;
    }
    KTPLUGIN_INFO_TAG *pAnnouncement = &pService->engines[ANNOUNCEMENT];
    if (!waitUntilFree(pSelf, pAnnouncement)) {
        return;
    }
    // A pending entry is not the one that failed: that one had already made room for it.
    if (pChannel->pCurrent == nullptr || pChannel->bStartPending) {
        return;
    }
    std::printf("[%s:%d] \e[2;31m cast of EPG id %lu failed, dropped; its end is handed to the announcements "
                "\e[1;41m[ERROR]\e[0m\n",
                kModule, __LINE__, pChannel->pCurrent->uliEPGID);
    pChannel->pCurrent->ulCMD = CAST_CMD_END;
    if (handOver(pAnnouncement, pChannel)) {
        waitUntilTaken(pSelf, pAnnouncement);
    }
    releaseCurrent(pChannel);
}

void schedulingLoop(const KTPLUGIN_INFO_TAG *pSelf, Service *pService) {
    while (!isAskedToStop(pSelf)) {
        pickStep(&pService->bypass);
        pickStep(&pService->recast);
        bypassStartStep(pSelf, pService);
        failureStep(pSelf, pService, &pService->bypass, &pService->engines[BYPASS]);
        failureStep(pSelf, pService, &pService->recast, &pService->engines[RECAST]);
        recastStartStep(pSelf, pService);
        vexa_load_balance();
    }
}

// ---- shutdown

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

// Stops every engine. Returns whether all have ended and none can touch the service any more.
bool stopEngines(Service *pService) {
    // A thread that has been started but has not yet run cannot be told from one that has ended, and would
    // run on released memory later: let each check in first.
    bool bAllEnded = true;
    for (int i = 0; i < kEngineCount; ++i) {
        const KTPLUGIN_INFO_TAG *pEngine = &pService->engines[i];
        if (pService->bStarted[i] &&
            !waitBounded([=] { return pEngine->iThreadCount > 0 && pEngine->eState != ENGINE_STOPPED; })) {
            std::printf("[%s:%d] \e[2;31m %s does not begin: its lists are kept \e[1;41m[ERROR]\e[0m\n",
                        kModule, __LINE__, kEngines[i].pName);
            bAllEnded = false;
        }
    }
    // Asked one after the other but all at once, so that their waits overlap: closing takes as long as the
    // slowest of them, not as long as all together.
    for (KTPLUGIN_INFO_TAG &engine : pService->engines) {
        engineRequestStop(&engine);
    }
    for (int i = 0; i < kEngineCount; ++i) {
        KTPLUGIN_INFO_TAG *pEngine = &pService->engines[i];
        ktWaitForAEngine(pEngine, kEngineLimit);
        const bool bEnded =
            pEngine->iThreadCount == 0 && (!pService->bStarted[i] || !kEngines[i].bSignsOff ||
                                           waitBounded([=] { return pEngine->eState == ENGINE_STOPPED; }));
        if (!bEnded) {
            std::printf("[%s:%d] \e[2;31m %s does not end: its lists are kept \e[1;41m[ERROR]\e[0m\n",
                        kModule, __LINE__, kEngines[i].pName);
            bAllEnded = false;
        }
    }
    return bAllEnded;
}

void destroyService(Service *pService) {
    releaseCurrent(&pService->bypass);
    releaseCurrent(&pService->recast);
    DESTROYCASTList(&pService->bypass.list);
    DESTROYCASTList(&pService->recast.list);
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
        if (startEngines(pService)) {
            schedulingLoop(pBlock, pService);
        }
        if (stopEngines(pService)) {
            destroyService(pService);
        }
    }
    --pBlock->iThreadCount;
    pBlock->eState = ENGINE_STOPPED;
    return 0;
}

// The exported entry points, by which a host opens, closes and queries the plug-in. They run on the host's
// thread. This file owns the supervisor's control block.

#include <pccast/plugin.h>

#include "pccastmain.h"

#include <qxapi.h>
#include <vexa_pgl.h>

#include <cstdio>
#include <cstdlib>
#include <new>

extern "C" {

KTPLUGIN_INFO_TAG *gpPCCASTPluginInfo = nullptr;

const char *const p_qxapi_name_table_pccast[3] = {"QX_PCCASTSTREAMCommander", "QX_PCCASTMBCCommander",
                                                  nullptr};

const char *const QX_PlugIn_Map[12] = {
    "QX_PCCASTSTREAMCommander", "QX_PCCASTMBCCommander", "", "", "", "", "", "", "", "", "", nullptr};
}

std::atomic<uint32_t> gSupervisorStarts{0};
std::atomic<KTPLUGIN_INFO_TAG *> gAbandonedBlock{nullptr};

namespace {

constexpr unsigned int kVersion = PCCAST_PLUGIN_VERSION;
constexpr int kCloseLimit = 50;     // units of ktWaitForAEngine
constexpr int kSignOffPasses = 100; // for the last write of a supervisor that has left the count

void *supervisorThread(void *pBlock) {
    PCCASTPluginMain(static_cast<KTPLUGIN_INFO_TAG *>(pBlock));
    return nullptr;
}

// The supervisor first subtracts itself from the count. Then it writes its last state. Only after that write
// is the block free.
bool hasEnded(const KTPLUGIN_INFO_TAG *pBlock) {
    return pBlock->eState == ENGINE_STOPPED && pBlock->iThreadCount == 0;
}

int __qxapi_open_pccast__() {
    qxapi_assert_gateway(gpPCCASTPluginInfo == nullptr, kModule, "__qxapi_open_pccast__", __LINE__,
                         "gpPCCASTPluginInfo == ((KTPLUGIN_INFO_TAG *)0)");
    void *pMemory = std::calloc(1, sizeof(KTPLUGIN_INFO_TAG));
    if (pMemory == nullptr) {
        gpPCCASTPluginInfo = nullptr;
        std::printf("[%s:%d] \e[2;31m malloc( sizeof(KTPLUGIN_INFO_TAG) ) fail \e[1;41m[ERROR]\e[0m\n",
                    kModule, __LINE__);
        return 1;
    }
    auto *pBlock = ::new (pMemory) KTPLUGIN_INFO_TAG{};
    pBlock->eState = ENGINE_STOPPED;
    gpPCCASTPluginInfo = pBlock;

    qxapi_printf(" \e[1;32m*\e[0m Starting PCCast service...\n");
    const uint32_t uiStarts = gSupervisorStarts;
    if (qxapi_detached_thread_tag(supervisorThread, pBlock, "__qxapi_open_pccast__", __LINE__) != 1) {
        std::printf("[%s:%d] %s Open Fail !\n", kModule, __LINE__, QX_PlugIn_Name());
        return 1;
    }
    qxapi_printf(" \e[1;32m*\e[0m Waiting PCCast service...\n");
    while (gSupervisorStarts == uiStarts) {
        vexa_load_balance();
    }
    qxapi_printf(" \e[1;32m*\e[0m Activated PCCast service.\n");
    return 1;
}

int __qxapi_close_pccast__() {
    KTPLUGIN_INFO_TAG *pBlock = gpPCCASTPluginInfo;
    if (pBlock == nullptr) {
        std::printf("[%s:%d] \e[2;31m gpPCCASTPluginInfo is NULL \e[1;41m[ERROR]\e[0m\n", kModule, __LINE__);
        return 1;
    }
    if (pBlock->eState != ENGINE_STOPPED) {
        qxapi_printf(" \e[1;32m*\e[0m Stopping PCCast service...\n");
        engineRequestStop(pBlock);
        ktWaitForAEngine(pBlock, kCloseLimit);
    }
    for (int i = 0; i < kSignOffPasses && !hasEnded(pBlock); ++i) {
        vexa_load_balance();
    }
    if (hasEnded(pBlock)) {
        std::free(pBlock);
    } else {
        // The supervisor is still waiting, and writes to its block when that is over. So the block is left to
        // it.
        const char *pEngine = gStoppingEngine;
        std::printf(
            "[%s:%d] \e[2;31m %s does not end: the service is closed without it, and what it uses is kept "
            "\e[1;41m[ERROR]\e[0m\n",
            kModule, __LINE__, pEngine != nullptr ? pEngine : "PCCASTPluginMain");
        gAbandonedBlock = pBlock;
    }
    gpPCCASTPluginInfo = nullptr;
    qxapi_printf(" \e[1;32m*\e[0m Close PCCast plugin\n");
    return 1;
}

} // namespace

const char *QX_PlugIn_Name(void) {
    return "PCCAST Plugin";
}

unsigned int QX_PlugIn_Version(void) {
    return kVersion;
}

void QX_Dummy(void) {}

int QX_PlugIn_Open(void) {
    return __qxapi_open_pccast__();
}

int QX_PlugIn_Close(void) {
    return __qxapi_close_pccast__();
}

int p_qxapi_open_pccast(void) {
    return __qxapi_open_pccast__() == 1 ? 1 : 0;
}

int p_qxapi_close_pccast(const ts_qxapi_plugin_argument *pArguments) {
    qxapi_get_plugin_argument(pArguments);
    return __qxapi_close_pccast__() == 1 ? 1 : 0;
}

int p_qxapi_control_pccast(void *, int iRequest) {
    return iRequest == 0 ? static_cast<int>(QX_PlugIn_Version()) : 1;
}

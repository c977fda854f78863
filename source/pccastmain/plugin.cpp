// The exported entry points and the control block: how a host opens, closes and asks the plug-in, and how a
// controller waits for a thread's end. Runs on the host's thread.

#include <pccast/plugin.h>

#include "pccastmain.h"

#include <qxapi.h>
#include <vexa_pgl.h>

#include <unistd.h>

#include <cerrno>
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

namespace {

constexpr unsigned int kVersion = 0x03060502;
constexpr int kCloseLimit = 50; // units of ktWaitForAEngine

void *supervisorThread(void *pBlock) {
    PCCASTPluginMain(static_cast<KTPLUGIN_INFO_TAG *>(pBlock));
    return nullptr;
}

// The supervisor subtracts itself from the count and then writes its last state; only after that write is the
// block no longer its own.
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
    // The supervisor's own waits for its engines are bounded, so this one ends too.
    while (!hasEnded(pBlock)) {
        vexa_load_balance();
    }
    std::free(pBlock);
    gpPCCASTPluginInfo = nullptr;
    qxapi_printf(" \e[1;32m*\e[0m Close PCCast plugin\n");
    return 1;
}

// Puts the decimal digits of a value at pOut. Returns behind the last one.
char *putNumber(char *pOut, int iValue) {
    char digits[12];
    int iCount = 0;
    long lValue = iValue;
    if (lValue < 0) {
        *pOut++ = '-';
        lValue = -lValue;
    }
    do {
        digits[iCount++] = static_cast<char>('0' + lValue % 10);
        lValue /= 10;
    } while (lValue > 0);
    while (iCount > 0) {
        *pOut++ = digits[--iCount];
    }
    return pOut;
}

char *putText(char *pOut, const char *pText) {
    while (*pText != '\0') {
        *pOut++ = *pText++;
    }
    return pOut;
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

int ktWaitForAEngine(KTPLUGIN_INFO_TAG *pBlock, int iLimit) {
    int iResult = -1;
    if (pBlock != nullptr) {
        long lPasses = 0;
        while (pBlock->iThreadCount > 0) {
            ++lPasses;
            vexa_load_balance();
            if (lPasses / 100 > iLimit) {
                break;
            }
        }
        iResult = static_cast<int>(iLimit - lPasses / 100);
    }
    if (iResult <= 0) {
        std::printf("ktWaitForAEngine: [FATAL-ERROR] \e[1;31mTimeout wait thread !\e[0m\n");
        std::fflush(stdout);
    }
    return iResult;
}

void pccastSignalHandler(int iSignal) {
    // The interrupted thread may hold the output's lock, so the line is put together here and written at
    // once.
    const int iError = errno;
    char line[128];
    char *pOut = putText(line, "[");
    pOut = putText(pOut, kModule);
    pOut = putText(pOut, ":");
    pOut = putNumber(pOut, __LINE__);
    pOut = putText(pOut, "] \e[2;31m ");
    pOut = putNumber(pOut, iSignal);
    pOut = putText(pOut, " signal occured  \e[1;41m[SIGNAL]\e[0m\n");
    [[maybe_unused]] const ssize_t lWritten = write(STDOUT_FILENO, line, static_cast<size_t>(pOut - line));
    errno = iError;
}

void engineEnd(KTPLUGIN_INFO_TAG *pBlock) {
    CASTInfo *pLeft = enginePeek(pBlock);
    if (pLeft != nullptr) {
        ELIMINATECASTInfo(&pLeft);
        engineAcknowledge(pBlock);
    }
    --pBlock->iThreadCount;
    pBlock->eState = ENGINE_STOPPED;
}

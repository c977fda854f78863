// framework.cpp - the script itself, and the scripted libvexa_pgl and libqxapi.
#include "state.h"

#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <unistd.h>

namespace script {

State &state() {
    static State &theState = *new State; // outlives every thread
    return theState;
}

void reset() {
    const int iLive = liveThreads();
    if (iLive != 0) {
        std::fprintf(stderr, "scripted framework: reset with %d live threads\n", iLive);
        std::abort();
    }
    Enter enter;
    static_cast<Script &>(state()) = {};
    state().ulPaused = 0;
    state().lWallOffset = 0;
    state().lPasses = 0;
    failAllocation(0);
}

bool decided(Step step, const std::string &key, int *piResult) {
    for (auto rule = state().rules.begin(); rule != state().rules.end(); ++rule) {
        if (rule->step != step || key.find(rule->key) == std::string::npos) {
            continue;
        }
        if (rule->iSkip > 0) {
            --rule->iSkip;
            continue;
        }
        *piResult = rule->iResult;
        if (--rule->iTimes == 0) {
            state().rules.erase(rule);
        }
        return true;
    }
    return false;
}

void hold(const std::string &key) {
    {
        Enter enter;
        state().held = key;
    }
    settle(2);
}

Taken::Taken(pthread_mutex_t *pOf) : pMutex(pOf) {
    pthread_mutex_lock(pMutex);
    Enter enter;
    state().pTaken = pMutex;
}

Taken::~Taken() {
    {
        Enter enter;
        state().pTaken = nullptr;
    }
    pthread_mutex_unlock(pMutex);
}

void fail(Step step, const std::string &key, int iResult, int iTimes, int iSkip) {
    Enter enter;
    state().rules.push_back({step, key, iResult, iTimes, iSkip});
}

void waitWhileHeld(const std::function<std::string()> &key) {
    const auto isHeld = [&] {
        Enter enter;
        return !state().held.empty() && key().find(state().held) != std::string::npos;
    };
    while (isHeld()) {
        pass();
    }
}

// ---- time and threads

unsigned long now() {
    Enter enter;
    return state().ulNow;
}

void advance(unsigned long ulSeconds) {
    Enter enter;
    state().ulNow += ulSeconds;
}

void pollsTakeTime() {
    Enter enter;
    state().bPollsTakeTime = true;
}

unsigned long pausedMicroseconds() {
    return state().ulPaused;
}

void moveWallClock(long lSeconds) {
    state().lWallOffset += lSeconds;
}

void pass() {
    if (tThread != nullptr) {
        ++*tThread;
        ++state().lPasses;
    }
    usleep(100);
}

void startThread(std::function<void()> body, long lFailAllocation) {
    Enter enter;
    auto record = std::make_shared<Passes>(0);
    state().threads.push_back(record);
    std::thread([record, body = std::move(body), lFailAllocation] {
        tThread = record.get();
        tFailAllocation = lFailAllocation;
        body();
        tFailAllocation = 0;
        Enter leave;
        tThread = nullptr;
        state().threads.remove(record);
    }).detach();
}

int liveThreads() {
    Enter enter;
    return static_cast<int>(state().threads.size());
}

long passes() {
    return state().lPasses;
}

long threadAllocations() {
    return state().lThreadAllocations;
}

static bool waitFor(const char *pszWhat, const std::function<bool()> &condition) {
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > limit) {
            std::fprintf(stderr, "scripted framework: gave up waiting: %s; %d threads live\n", pszWhat,
                         liveThreads());
            return false;
        }
        usleep(100);
    }
    return true;
}

// Waits for one more pass of every thread. A thread that has ended no longer holds its record.
static bool settleOnce() {
    std::list<std::pair<std::shared_ptr<Passes>, unsigned long>> goals;
    {
        Enter enter;
        for (const auto &thread : state().threads) {
            goals.emplace_back(thread, *thread + 1);
        }
    }
    return waitFor("a thread makes no passes", [&] {
        goals.remove_if(
            [](const auto &goal) { return *goal.first >= goal.second || goal.first.use_count() == 1; });
        return goals.empty();
    });
}

bool settle(unsigned uPasses) {
    bool bSettled = true;
    for (unsigned u = 0; bSettled && u < uPasses; ++u) {
        bSettled = settleOnce();
    }
    return bSettled;
}

bool eventually(const std::function<bool()> &condition) {
    return waitFor("a condition", condition);
}

bool threadsEnd() {
    return waitFor("threads to end", [] { return liveThreads() == 0; });
}

// ---- records

Records seen() {
    Enter enter;
    return state().seen;
}

void forget() {
    Enter enter;
    state().seen = {};
}

void registryValue(const std::string &key, const std::string &value, int iLength) {
    Enter enter;
    state().registry[key] = {value, iLength};
}

void storedFile(const std::string &path, const std::vector<Packet> &packets) {
    Enter enter;
    state().files[path] = packets;
}

int held() {
    Enter enter;
    return state().iHeld;
}

} // namespace script

// ---- what the framework's library exports

namespace {

using script::Enter;
using script::state;
using script::Step;

__attribute__((format(printf, 1, 0))) std::string formatted(const char *pszFormat, va_list arguments) {
    char szText[4096];
    std::vsnprintf(szText, sizeof szText, pszFormat, arguments);
    return szText;
}

struct Stream {
    ts_qxapi_stream calls;
    std::vector<script::Packet> packets;
    size_t ulNext = 0;
    ts_qxapi_packet lent{};
};

// pStream is the first member of its Stream.
Stream *of(ts_qxapi_stream *pStream) {
    return reinterpret_cast<Stream *>(pStream);
}

int isAtEnd(ts_qxapi_stream *pStream) {
    script::waitWhileHeld([] { return std::string("stream"); });
    return of(pStream)->ulNext == of(pStream)->packets.size() ? 7 : 0;
}

ts_qxapi_packet *nextPacket(ts_qxapi_stream *pStream) {
    Enter enter;
    Stream *pThis = of(pStream);
    if (pThis->ulNext == pThis->packets.size() || pThis->packets[pThis->ulNext].ulDue > state().ulNow) {
        return nullptr;
    }
    const script::Bytes &bytes = pThis->packets[pThis->ulNext++].bytes;
    pThis->lent = {bytes.data(), static_cast<unsigned int>(bytes.size())};
    ++state().iHeld;
    return &pThis->lent;
}

void releasePacket(ts_qxapi_stream *pStream, ts_qxapi_packet *pPacket) {
    Enter enter;
    state().iHeld -= pPacket == &of(pStream)->lent;
    state().seen.calls.push_back("release packet");
}

// Records the call. A rule may decide its result.
__attribute__((format(printf, 2, 3))) int ruled(Step step, const char *pszFormat, ...) {
    Enter enter;
    va_list arguments;
    va_start(arguments, pszFormat);
    const std::string call = formatted(pszFormat, arguments);
    va_end(arguments);
    int iResult = 1;
    decided(step, call, &iResult);
    state().seen.calls.push_back(call);
    return iResult;
}

std::string hex(const unsigned char *pData, unsigned int uLength) {
    std::string text;
    for (unsigned int u = 0; u < uLength; ++u) {
        char szByte[4];
        std::snprintf(szByte, sizeof szByte, " %02X", pData[u]);
        text += szByte;
    }
    return text;
}

const char *orNone(const char *pszText) {
    return pszText == nullptr ? "none" : pszText;
}

int startStream(ts_qxapi_stream *) {
    return ruled(Step::StreamStart, "start stream");
}

// The first call reads the settings that were made before it.
int asfSetStation(ts_qxapi_asfcast *pCaster, const char *pszNSC, unsigned int uiFormatIndex) {
    return ruled(Step::SetStation, "asf mode %u hops %u station %s %u", pCaster->uiMode, pCaster->uiHops,
                 orNone(pszNSC), uiFormatIndex);
}

int asfSetTarget(ts_qxapi_asfcast *, const char *pszTarget, unsigned int uiPort) {
    return ruled(Step::SetTarget, "asf target %s %u", orNone(pszTarget), uiPort);
}

int asfSend(ts_qxapi_asfcast *, const unsigned char *pData, unsigned int uiLength) {
    return ruled(Step::CasterSend, "asf send%s", hex(pData, uiLength).c_str());
}

int tsSetUp(ts_qxapi_tscast *pCaster, const char *pszAux, int iReserved, const char *pszTarget,
            unsigned int uiPort, unsigned int uiHops) {
    return ruled(Step::SetTarget, "ts mode %u set-up %s %d %s %u %u", pCaster->uiMode, orNone(pszAux),
                 iReserved, orNone(pszTarget), uiPort, uiHops);
}

int tsSend(ts_qxapi_tscast *, const unsigned char *pData, unsigned int uiLength) {
    return ruled(Step::CasterSend, "ts send%s", hex(pData, uiLength).c_str());
}

const char *lookUp(ts_qx_registry *, const char *pszKeyPath, int *piLength) {
    Enter enter;
    const auto value = state().registry.find(pszKeyPath);
    *piLength = value == state().registry.end() ? 0 : value->second.second;
    return value == state().registry.end() ? nullptr : value->second.first.c_str();
}

constexpr ts_qx_registry_operations kRegistryOperations = {lookUp};

} // namespace

extern "C" {

unsigned long vexa_time(unsigned long *pTime) {
    const unsigned long ulNow = script::now();
    if (pTime != nullptr) {
        *pTime = ulNow;
    }
    return ulNow;
}

void vexa_load_balance(void) {
    script::pass();
}

int vexa_get_global_break(void) {
    Enter enter;
    return state().iBreak;
}

void vexa_set_global_break(int iBreak) {
    Enter enter;
    state().iBreak = iBreak;
}

int qxapi_detached_thread_tag(void *(*pBody)(void *), void *pArgument, const char *pszTag, int) {
    int iResult = 0, iRefused = 0;
    {
        Enter enter;
        state().seen.calls.push_back(std::string("thread ") + pszTag);
        decided(Step::ThreadMemory, pszTag, &iRefused);
        if (decided(Step::Thread, pszTag, &iResult)) {
            return iResult;
        }
    }
    ++script::tInside;
    script::startThread([pBody, pArgument] { pBody(pArgument); }, iRefused);
    --script::tInside;
    return 1;
}

int qxapi_printf(const char *pszFormat, ...) {
    Enter enter;
    va_list arguments;
    va_start(arguments, pszFormat);
    const std::string text = formatted(pszFormat, arguments);
    va_end(arguments);
    state().seen.console += text;
    return static_cast<int>(text.size());
}

void qxapi_assert_gateway(int iCondition, const char *, const char *pszFunction, int, const char *pszText) {
    Enter enter;
    if (iCondition == 0) {
        state().seen.reports.push_back(std::string(pszFunction) + ": " + pszText);
    }
}

int qxapi_get_plugin_argument(const struct ts_qxapi_plugin_argument *pArgument) {
    Enter enter;
    state().seen.calls.push_back(std::string("plug-in arguments ") +
                                 (pArgument == nullptr ? "none" : pArgument->ppszText[0]));
    return 0;
}

unsigned int qxapi_crc32(unsigned int uiInitial, const void *pData, unsigned long ulLength) {
    unsigned int uiCRC = uiInitial;
    for (unsigned long ul = 0; ul < ulLength; ++ul) {
        uiCRC ^= static_cast<const unsigned char *>(pData)[ul];
        for (int iBit = 0; iBit < 8; ++iBit) {
            uiCRC = (uiCRC >> 1) ^ ((uiCRC & 1u) != 0 ? 0xEDB88320u : 0u);
        }
    }
    return ~uiCRC;
}

// Marks each byte with its key byte and a constant of the variant, in place of the cipher. Like the cipher it
// reads 16 bytes of the key.
static void mark(unsigned char *pData, unsigned long ulLength, const unsigned char *pKey,
                 unsigned int uMark) {
    unsigned char key[16];
    std::memcpy(key, pKey, sizeof key);
    for (unsigned long ul = 0; ul < ulLength; ++ul) {
        pData[ul] = static_cast<unsigned char>(pData[ul] ^ key[ul % 16] ^ uMark);
    }
}

void qxapi_seed_decrypt(unsigned char *pData, unsigned long ulLength, const unsigned char *pKey) {
    mark(pData, ulLength, pKey, 0x10);
}

void qxapi_fast_seed_decrypt(unsigned char *pData, unsigned long ulLength, const unsigned char *pKey) {
    mark(pData, ulLength, pKey, 0x20);
}

struct ts_qx_registry *QX_OpenRegistry(const char *pszMaster, const char *pszSlave, unsigned int uiFlags) {
    Enter enter;
    if (state().registry.empty() || std::strcmp(pszMaster, "/reg/reg0/master.reg") != 0 ||
        std::strcmp(pszSlave, "/reg/reg1/slave.reg") != 0 || uiFlags != 0x10000002) {
        return nullptr;
    }
    ++state().iHeld;
    return new ts_qx_registry{&kRegistryOperations};
}

void QX_CloseRegistry(struct ts_qx_registry *pRegistry) {
    Enter enter;
    state().iHeld -= pRegistry != nullptr;
    delete pRegistry;
}

struct ts_qxapi_stream *qxapi_open_stream(const char *pszFile) {
    Enter enter;
    state().seen.calls.push_back(std::string("open stream ") + pszFile);
    const auto file = state().files.find(pszFile);
    if (file == state().files.end()) {
        return nullptr;
    }
    return &(new Stream{{startStream, isAtEnd, nextPacket, releasePacket}, file->second})->calls;
}

void qxapi_close_stream(struct ts_qxapi_stream *pStream) {
    Enter enter;
    state().seen.calls.push_back("close stream");
    delete of(pStream);
}

void qxapi_load_balance(void) {
    script::pass();
}

struct ts_qxapi_asfcast *qxapi_open_asfcast(void) {
    Enter enter;
    int iResult = 0;
    state().seen.calls.push_back("open asf");
    return decided(Step::CasterOpen, "asf", &iResult)
               ? nullptr
               : new ts_qxapi_asfcast{70001, 70002, asfSetStation, asfSetTarget, asfSend};
}

void qxapi_close_asfcast(struct ts_qxapi_asfcast *pCaster) {
    Enter enter;
    state().seen.calls.push_back("close asf");
    delete pCaster;
}

struct ts_qxapi_tscast *qxapi_open_tscast(void) {
    Enter enter;
    int iResult = 0;
    state().seen.calls.push_back("open ts");
    return decided(Step::CasterOpen, "ts", &iResult) ? nullptr : new ts_qxapi_tscast{70001, tsSetUp, tsSend};
}

void qxapi_close_tscast(struct ts_qxapi_tscast *pCaster) {
    Enter enter;
    state().seen.calls.push_back("close ts");
    delete pCaster;
}

int qxapi_log_printf(const char *pszTag, const char *pszFormat, ...) {
    Enter enter;
    va_list arguments;
    va_start(arguments, pszFormat);
    state().seen.log.push_back(std::string(pszTag) + ": " + formatted(pszFormat, arguments));
    va_end(arguments);
    return 1;
}

int qxapi_time_ex2(unsigned long *pulSeconds, unsigned long *pulMicroseconds) {
    if (pulSeconds != nullptr) {
        *pulSeconds = script::now();
    }
    if (pulMicroseconds != nullptr) {
        *pulMicroseconds = 123456;
    }
    return 1;
}

int qxapi_local_time(unsigned long ulSeconds, struct tm *pLocal) {
    const time_t seconds = static_cast<time_t>(ulSeconds);
    return gmtime_r(&seconds, pLocal) != nullptr;
}

const char *qxapi_check_string(const char *pszText) {
    return pszText == nullptr ? "NULL" : pszText;
}

const char *qxapi_check_string_ex(const char *pszText, const char *pszFallback) {
    return pszText == nullptr ? pszFallback : pszText;
}
}

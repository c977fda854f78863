// memory.cpp - the functions that the link wraps. Allocations are counted and refused, pauses and sleep()
// take no time, try-lock and time() follow the script.
#include "state.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <new>
#include <pthread.h>
#include <sys/select.h>
#include <unistd.h>

namespace script {

thread_local int tInside;
thread_local long tFailAllocation;
thread_local Passes *tThread;
static thread_local bool tRefused;
static std::atomic<long> lBlocks{0};

void failAllocation(long lNth) {
    tFailAllocation = lNth;
    tRefused = tRefused && lNth == 0;
}

bool allocationFailed() {
    return tRefused;
}

long liveBlocks() {
    return lBlocks;
}

// Counts an allocation of the tested code. Returns true to refuse it.
static bool refused() {
    if (tInside > 0) {
        return false;
    }
    if (tThread != nullptr) {
        ++state().lThreadAllocations;
    }
    if (tFailAllocation > 0 && --tFailAllocation == 0) {
        tRefused = true;
        return true;
    }
    return false;
}

} // namespace script

extern "C" {

void *__real_malloc(size_t ulSize);
void *__real_calloc(size_t ulCount, size_t ulSize);
void __real_free(void *pBlock);
int __real_select(int iCount, fd_set *pRead, fd_set *pWrite, fd_set *pExcept, timeval *pTimeout);
time_t __real_time(time_t *pTime);

static void *kept(void *pBlock) {
    script::lBlocks += pBlock != nullptr && script::tInside == 0;
    return pBlock;
}

void *__wrap_malloc(size_t ulSize) {
    return script::refused() ? nullptr : kept(__real_malloc(ulSize));
}

void *__wrap_calloc(size_t ulCount, size_t ulSize) {
    return script::refused() ? nullptr : kept(__real_calloc(ulCount, ulSize));
}

char *__wrap_strdup(const char *pszText) {
    void *pCopy = __wrap_malloc(std::strlen(pszText) + 1);
    return pCopy == nullptr ? nullptr : std::strcpy(static_cast<char *>(pCopy), pszText);
}

void __wrap_free(void *pBlock) {
    script::lBlocks -= pBlock != nullptr && script::tInside == 0;
    __real_free(pBlock);
}

int __wrap_select(int iCount, fd_set *pRead, fd_set *pWrite, fd_set *pExcept, timeval *pTimeout) {
    if (iCount != 0 || pTimeout == nullptr || pTimeout->tv_sec < 0 || pTimeout->tv_usec < 0 ||
        pTimeout->tv_usec > 999999) {
        return __real_select(iCount, pRead, pWrite, pExcept, pTimeout);
    }
    script::state().ulPaused += static_cast<unsigned long>(pTimeout->tv_sec * 1000000 + pTimeout->tv_usec);
    usleep(20);
    return 0;
}

int __wrap_pthread_mutex_trylock(pthread_mutex_t *pMutex) {
    int iErrno = 0;
    {
        script::Enter enter;
        if (script::decided(script::Step::TryLock, "", &iErrno)) {
            return iErrno;
        }
        if (script::state().pTaken == pMutex) {
            return EBUSY;
        }
    }
    return pthread_mutex_lock(pMutex);
}

time_t __wrap_time(time_t *pTime) {
    const time_t now = __real_time(nullptr) + script::state().lWallOffset;
    if (pTime != nullptr) {
        *pTime = now;
    }
    return now;
}

unsigned int __wrap_sleep(unsigned int uSeconds) {
    script::settle();
    for (unsigned int u = 0; u < uSeconds; ++u) {
        script::advance(1);
        script::settle();
    }
    return 0;
}
}

// All other forms of new and delete end here.
void *operator new(size_t ulSize) {
    void *pBlock = script::refused() ? nullptr : __real_malloc(ulSize);
    return pBlock == nullptr ? throw std::bad_alloc() : pBlock;
}
void operator delete(void *pBlock) noexcept {
    __real_free(pBlock);
}
void operator delete(void *pBlock, size_t) noexcept {
    __real_free(pBlock);
}

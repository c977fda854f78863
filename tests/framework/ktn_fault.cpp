// ktn_fault.cpp - stands before calls of the system, so that a test can let them fail. The libraries under
// test call these instead. Also looks after each test: it must leave no descriptor open.
#undef _FORTIFY_SOURCE // its own poll(), recv() and pread() would be in the way

#include "ktn_support.h"

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <new>
#include <sys/syscall.h>

Faults &faults() {
    static Faults instance;
    return instance;
}

namespace {

class NoDescriptorLeft : public testing::EmptyTestEventListener {
    static auto open() { return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}); }
    std::ptrdiff_t lBefore = 0;
    void OnTestStart(const testing::TestInfo &) override {
        lBefore = open();
        faults().lAhead += 20; // what an earlier test reported is reported again
    }
    void OnTestEnd(const testing::TestInfo &) override { EXPECT_EQ(open(), lBefore) << "descriptors"; }
};
[[maybe_unused]] const bool kListens = [] {
    testing::UnitTest::GetInstance()->listeners().Append(new NoDescriptorLeft);
    return true;
}();

// Returns whether this call is the one that must fail, and sets errno.
bool fails(const char *pszCall) {
    const char *pszFault = faults().pszCall;
    if (pszFault == nullptr || std::strcmp(pszFault, pszCall) != 0 || faults().iPass-- > 0) {
        return false;
    }
    faults().pszCall = nullptr;
    errno = faults().iErrno;
    return true;
}

template <typename... Arguments>
int call(const char *pszCall, long lNumber, Arguments... arguments) {
    return fails(pszCall) ? -1 : static_cast<int>(syscall(lNumber, arguments...));
}

bool sendFails() {
    errno = faults().iSendErrno;
    return errno != 0;
}

void *memory(std::size_t ulSize) {
    void *pMemory = fails("new") ? nullptr : std::malloc(ulSize);
    faults().lObjects += pMemory != nullptr;
    return pMemory;
}

} // namespace

void *operator new(std::size_t ulSize) {
    void *pMemory = memory(ulSize);
    return pMemory != nullptr ? pMemory : throw std::bad_alloc();
}
void *operator new(std::size_t ulSize, const std::nothrow_t &) noexcept {
    return memory(ulSize);
}
void operator delete(void *pMemory) noexcept {
    faults().lObjects -= pMemory != nullptr;
    std::free(pMemory);
}
void operator delete(void *pMemory, std::size_t) noexcept {
    operator delete(pMemory);
}

extern "C" {

ssize_t send(int iSocket, const void *pData, std::size_t ulLength, int iFlags) {
    return sendFails() ? -1 : syscall(SYS_sendto, iSocket, pData, ulLength, iFlags, nullptr, 0);
}

ssize_t sendmsg(int iSocket, const msghdr *pMessage, int iFlags) {
    return sendFails() ? -1 : call("sendmsg", SYS_sendmsg, iSocket, pMessage, iFlags);
}

// A call that fails when a test asks for it, and else is the system's.
#define CALL(result, name, parameters, number, ...)                                                          \
    result name parameters {                                                                                 \
        return call(#name, number, __VA_ARGS__);                                                             \
    }
CALL(ssize_t, recv, (int i, void *p, std::size_t ul, int iFlags), SYS_recvfrom, i, p, ul, iFlags, nullptr,
     nullptr)
CALL(ssize_t, write, (int i, const void *p, std::size_t ul), SYS_write, i, p,
     fails("half of a write") ? ul / 2 : ul)
CALL(ssize_t, recvmsg, (int i, msghdr *p, int iFlags), SYS_recvmsg, i, p, iFlags)
CALL(ssize_t, pread, (int i, void *p, std::size_t ul, off_t l), SYS_pread64, i, p, ul, l)
CALL(int, poll, (pollfd * p, nfds_t ul, int iTimeoutMs), SYS_poll, p, ul, iTimeoutMs)
CALL(int, socket, (int iDomain, int iType, int iProtocol) noexcept, SYS_socket, iDomain, iType, iProtocol)
CALL(int, bind, (int i, const sockaddr *p, socklen_t ui) noexcept, SYS_bind, i, p, ui)
CALL(int, listen, (int i, int iQueue) noexcept, SYS_listen, i, iQueue)
CALL(int, connect, (int i, const sockaddr *p, socklen_t ui), SYS_connect, i, p, ui)
CALL(int, accept4, (int i, sockaddr *p, socklen_t *pui, int iFlags), SYS_accept4, i, p, pui, iFlags)
CALL(int, flock, (int i, int iOperation) noexcept, SYS_flock, i, iOperation)
CALL(int, unlink, (const char *psz) noexcept, SYS_unlinkat, AT_FDCWD, psz, 0)
CALL(int, setsockopt, (int i, int iLevel, int iName, const void *p, socklen_t ui) noexcept, SYS_setsockopt, i,
     iLevel, iName, p, ui)

// The fortified poll() of an array whose size is known.
int __poll_chk(pollfd *pWatched, nfds_t ulWatched, int iTimeoutMs,
               std::size_t) { // NOLINT(*-reserved-identifier)
    return poll(pWatched, ulWatched, iTimeoutMs);
}

int getsockopt(int iSocket, int iLevel, int iOption, void *pValue, socklen_t *puiLength) noexcept {
    const long lResult = syscall(SYS_getsockopt, iSocket, iLevel, iOption, pValue, puiLength);
    if (lResult == 0 && iLevel == SOL_SOCKET && iOption == SO_PEERCRED && faults().iPeer >= 0) {
        static_cast<ucred *>(pValue)->uid = static_cast<uid_t>(faults().iPeer);
    }
    if (lResult == 0 && iLevel == SOL_SOCKET && iOption == SO_RCVBUF && faults().iBuffer >= 0) {
        *static_cast<int *>(pValue) = faults().iBuffer;
    }
    return static_cast<int>(lResult);
}

int clock_gettime(clockid_t iClock, timespec *pTime) noexcept {
    const long lResult = syscall(SYS_clock_gettime, iClock, pTime);
    pTime->tv_sec += iClock == CLOCK_MONOTONIC ? faults().lAhead.load() : 0;
    return static_cast<int>(lResult);
}

int clock_nanosleep(clockid_t iClock, int iFlags, const timespec *pTime, timespec *pLeft) {
    timespec time = *pTime;
    time.tv_sec -= iFlags == TIMER_ABSTIME && iClock == CLOCK_MONOTONIC ? faults().lAhead.load() : 0;
    return syscall(SYS_clock_nanosleep, iClock, iFlags, &time, pLeft) == 0 ? 0 : errno;
}
}

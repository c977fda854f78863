// ktn_fault.cpp - stands before three calls of the system, so that a test can let them fail. The libraries
// under test call these instead.
#include "ktn_support.h"

#include <cerrno>
#include <sys/syscall.h>

Faults &faults() {
    static Faults instance;
    return instance;
}

namespace {

// Returns whether this send must fail, and sets errno.
bool fails() {
    errno = faults().iSendErrno;
    return errno != 0;
}

} // namespace

extern "C" {

ssize_t send(int iSocket, const void *pData, std::size_t ulLength, int iFlags) {
    return fails() ? -1 : syscall(SYS_sendto, iSocket, pData, ulLength, iFlags, nullptr, 0);
}

ssize_t sendmsg(int iSocket, const msghdr *pMessage, int iFlags) {
    return fails() ? -1 : syscall(SYS_sendmsg, iSocket, pMessage, iFlags);
}

int getsockopt(int iSocket, int iLevel, int iOption, void *pValue, socklen_t *puiLength) noexcept {
    const long lResult = syscall(SYS_getsockopt, iSocket, iLevel, iOption, pValue, puiLength);
    if (lResult == 0 && iLevel == SOL_SOCKET && iOption == SO_PEERCRED && faults().iPeer >= 0) {
        static_cast<ucred *>(pValue)->uid = static_cast<uid_t>(faults().iPeer);
    }
    return static_cast<int>(lResult);
}
}

// thread.cpp - starts the detached threads of plug-ins and host components. Called on any thread.
#include "report.h"

#include <qxapi.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <memory>
#include <new>
#include <pthread.h>

namespace {

constexpr std::size_t kThreadNameSize = 16; // bytes that the kernel keeps, terminating zero included

// What a new thread is given. The thread releases it.
struct ThreadStart {
    void *(*pBody)(void *);
    void *pArgument;
    char szName[kThreadNameSize];
};

void *threadMain(void *pGiven) {
    const std::unique_ptr<ThreadStart> given(static_cast<ThreadStart *>(pGiven));
    const ThreadStart start = *given;
    pthread_setname_np(pthread_self(), start.szName);
    return start.pBody(start.pArgument);
}

// Returns every signal but the faults. The thread itself causes a fault, so the fault's handler must see
// it.
sigset_t signalsOfTheProcess() {
    sigset_t signals;
    sigfillset(&signals);
    for (const int iFault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS}) {
        sigdelset(&signals, iFault);
    }
    return signals;
}

} // namespace

int qxapi_detached_thread_tag(void *(*pBody)(void *), void *pArgument, const char *pszTag, int iLine) {
    const char *pszName = qxapi_check_string_ex(pszTag, "qxapi");
    if (pBody == nullptr) {
        frameworkReport("qxapi_detached_thread_tag", "%s:%d: no thread body is given", pszName, iLine);
        return 0;
    }
    std::unique_ptr<ThreadStart> start(new (std::nothrow) ThreadStart{pBody, pArgument, {}});
    int iErrno = ENOMEM;
    if (start) {
        std::strncpy(start->szName, pszName, kThreadNameSize - 1);

        // A thread inherits its creator's signal mask. Block the signals here, so that the mask holds from
        // the new thread's first instruction.
        const sigset_t blocked = signalsOfTheProcess();
        sigset_t before;
        pthread_sigmask(SIG_BLOCK, &blocked, &before);
        pthread_attr_t attributes;
        pthread_attr_init(&attributes);
        pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
        pthread_t thread;
        iErrno = pthread_create(&thread, &attributes, threadMain, start.get());
        pthread_attr_destroy(&attributes);
        pthread_sigmask(SIG_SETMASK, &before, nullptr);
    }
    if (iErrno != 0) {
        frameworkReport("qxapi_detached_thread_tag", "%s:%d: thread not started: %s", pszName, iLine,
                        std::strerror(iErrno));
        return 0;
    }
    (void)start.release(); // the thread owns it now
    return 1;
}

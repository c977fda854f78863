// thread.cpp - starts the detached threads of plug-ins and host components.
#include "report.h"

#include <qxapi.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <memory>
#include <new>
#include <pthread.h>

namespace {

constexpr size_t THREAD_NAME_SIZE = 16; // what the kernel keeps, terminating zero included

// What a new thread is told; the thread releases it.
struct THREAD_START {
    void *(*pBody)(void *);
    void *pArgument;
    char szName[THREAD_NAME_SIZE];
};

void *threadMain(void *pGiven) {
    const std::unique_ptr<THREAD_START> Given(static_cast<THREAD_START *>(pGiven));
    const THREAD_START Start = *Given;
    pthread_setname_np(pthread_self(), Start.szName);
    return Start.pBody(Start.pArgument);
}

// Every signal but the faults: those are the thread's own doing, and whoever handles them is to see them.
sigset_t signalsOfTheProcess() {
    sigset_t Signals;
    sigfillset(&Signals);
    for (const int iFault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS})
        sigdelset(&Signals, iFault);
    return Signals;
}

} // namespace

int qxapi_detached_thread_tag(void *(*pBody)(void *), void *pArgument, const char *pszTag, int iLine) {
    const char *pszName = qxapi_check_string_ex(pszTag, "qxapi");
    if (pBody == nullptr) {
        frameworkReport("qxapi_detached_thread_tag", "%s:%d: no thread body is given", pszName, iLine);
        return 0;
    }
    std::unique_ptr<THREAD_START> Start(new (std::nothrow) THREAD_START{pBody, pArgument, {}});
    int iErrno = ENOMEM;
    if (Start) {
        strncpy(Start->szName, pszName, THREAD_NAME_SIZE - 1);

        // A thread inherits its creator's signal mask: in force from its first instruction.
        const sigset_t Blocked = signalsOfTheProcess();
        sigset_t Before;
        pthread_sigmask(SIG_BLOCK, &Blocked, &Before);
        pthread_attr_t Attributes;
        pthread_attr_init(&Attributes);
        pthread_attr_setdetachstate(&Attributes, PTHREAD_CREATE_DETACHED);
        pthread_t Thread;
        iErrno = pthread_create(&Thread, &Attributes, threadMain, Start.get());
        pthread_attr_destroy(&Attributes);
        pthread_sigmask(SIG_SETMASK, &Before, nullptr);
    }
    if (iErrno != 0) {
        frameworkReport("qxapi_detached_thread_tag", "%s:%d: thread not started: %s", pszName, iLine,
                        strerror(iErrno));
        return 0;
    }
    Start.release();
    return 1;
}

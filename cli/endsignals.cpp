#include "endsignals.h"

#include "commands.h"

#include <sys/signalfd.h>

#include <cerrno>
#include <cstring>
#include <string>

sigset_t blockEndSignals(std::initializer_list<int> others) {
    sigset_t signals;
    sigemptyset(&signals);
    for (const int iSignal : {SIGINT, SIGTERM, SIGHUP}) {
        sigaddset(&signals, iSignal);
    }
    for (const int iSignal : others) {
        sigaddset(&signals, iSignal);
    }
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    return signals;
}

int openEndSignals(std::initializer_list<int> others) {
    const sigset_t signals = blockEndSignals(others);
    const int iSignals = signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
    return iSignals < 0 ? sayAndReturn(-1, std::string("signalfd: ") + std::strerror(errno)) : iSignals;
}

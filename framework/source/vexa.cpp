// vexa.cpp - libvexa_pgl: clock, yield and break flag. Owns the break flag, the library's only state.
#include "yield.h"

#include <vexa_pgl.h>

#include <atomic>
#include <ctime>

namespace {

// Written by whoever asks the process to break off, also a signal handler.
std::atomic<int> iGlobalBreak{0};
static_assert(std::atomic<int>::is_always_lock_free);

} // namespace

unsigned long vexa_time(unsigned long *pTime) {
    // Not time(): that clock is up to a tick behind, and a second that begins late there would begin twice
    // for those who read both.
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    const auto ulSeconds = static_cast<unsigned long>(now.tv_sec);
    if (pTime != nullptr) {
        *pTime = ulSeconds;
    }
    return ulSeconds;
}

void vexa_load_balance(void) {
    // A signal may cut the pause short: the caller polls anyway.
    const timespec pause{0, kYieldPauseNanoseconds};
    clock_nanosleep(CLOCK_MONOTONIC, 0, &pause, nullptr);
}

int vexa_get_global_break(void) {
    return iGlobalBreak.load();
}

void vexa_set_global_break(int iBreak) {
    iGlobalBreak.store(iBreak);
}

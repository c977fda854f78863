// vexa.cpp - libvexa_pgl: clock, yield and break flag. Safe on any thread. Owns the break flag, its only
// state.
#include "yield.h"

#include <vexa_pgl.h>

#include <atomic>
#include <ctime>

namespace {

// Written by any thread or signal handler that asks the process to break off.
std::atomic<int> iGlobalBreak{0};
static_assert(std::atomic<int>::is_always_lock_free);

} // namespace

unsigned long vexa_time(unsigned long *pTime) {
    // Not time(): that clock is up to a tick behind. A caller that reads both clocks would see time step
    // back at the start of a second.
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    const auto ulSeconds = static_cast<unsigned long>(now.tv_sec);
    if (pTime != nullptr) {
        *pTime = ulSeconds;
    }
    return ulSeconds;
}

void vexa_load_balance(void) {
    // A signal may cut the pause short. That does no harm: the caller polls again.
    const timespec pause{0, kYieldPauseNanoseconds};
    clock_nanosleep(CLOCK_MONOTONIC, 0, &pause, nullptr);
}

int vexa_get_global_break(void) {
    return iGlobalBreak.load();
}

void vexa_set_global_break(int iBreak) {
    iGlobalBreak.store(iBreak);
}

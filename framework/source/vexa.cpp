// vexa.cpp - libvexa_pgl: clock, yield and break flag. Safe on any thread. Owns the break flag, its only
// state.
#include <vexa_pgl.h>

#include <atomic>
#include <ctime>

namespace {

// Written by any thread or signal handler that asks the process to break off.
std::atomic<int> iGlobalBreak{0};
static_assert(std::atomic<int>::is_always_lock_free);

// A pause ends when the wall clock reaches a multiple of this. A second is one, so what is due at a second is
// seen at once. All idle threads wake up together, and the machine sleeps in between.
constexpr long kPassNanoseconds = 20'000'000;
static_assert(1'000'000'000 % kPassNanoseconds == 0);

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
    // Pause on the monotonic clock: a step of the wall clock must not stretch the pause. A signal may cut it
    // short. That does no harm: the caller polls again.
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    const timespec pause{0, kPassNanoseconds - now.tv_nsec % kPassNanoseconds};
    clock_nanosleep(CLOCK_MONOTONIC, 0, &pause, nullptr);
}

int vexa_get_global_break(void) {
    return iGlobalBreak.load();
}

void vexa_set_global_break(int iBreak) {
    iGlobalBreak.store(iBreak);
}

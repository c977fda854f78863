#include "yield.h"

#include <qxapi.h>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <limits>
#include <sched.h>

namespace {

constexpr long long kNanoseconds = 1'000'000'000;
constexpr long long kNoHint = std::numeric_limits<long long>::max();

thread_local long long llNextDue = kNoHint;

} // namespace

void yieldSetNextDue(long long llMonotonicNanoseconds) {
    llNextDue = llMonotonicNanoseconds;
}

void qxapi_load_balance(void) {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    const long long llNow = now.tv_sec * kNanoseconds + now.tv_nsec;
    const long long llUntil = std::min(llNextDue, llNow + kYieldPauseNanoseconds);
    llNextDue = kNoHint; // an old time from a closed stream must not make the thread spin
    if (llUntil <= llNow) {
        sched_yield();
        return;
    }
    const timespec until{static_cast<time_t>(llUntil / kNanoseconds),
                         static_cast<long>(llUntil % kNanoseconds)};
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr) == EINTR) {
    }
}

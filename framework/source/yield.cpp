#include "yield.h"

#include <qxapi.h>

#include <algorithm>
#include <cerrno>
#include <limits>
#include <sched.h>
#include <time.h>

namespace {

constexpr long long NANOSECONDS = 1'000'000'000;
constexpr long long NO_HINT = std::numeric_limits<long long>::max();

thread_local long long llNextDue = NO_HINT;

} // namespace

void yieldSetNextDue(long long llMonotonicNanoseconds) {
    llNextDue = llMonotonicNanoseconds;
}

void qxapi_load_balance(void) {
    timespec Now{};
    clock_gettime(CLOCK_MONOTONIC, &Now);
    const long long llNow = Now.tv_sec * NANOSECONDS + Now.tv_nsec;
    const long long llUntil = std::min(llNextDue, llNow + YIELD_PAUSE_NANOSECONDS);
    llNextDue = NO_HINT; // a hint left behind by a stream that is gone must not make the thread spin
    if (llUntil <= llNow) {
        sched_yield();
        return;
    }
    const timespec Until{static_cast<time_t>(llUntil / NANOSECONDS),
                         static_cast<long>(llUntil % NANOSECONDS)};
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &Until, nullptr) == EINTR) {
    }
}

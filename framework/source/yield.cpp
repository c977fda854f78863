#include "yield.h"

#include <qxapi.h>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <sched.h>

namespace {

constexpr long long kNanoseconds = 1'000'000'000;

// What the stream said last, if bHint.
thread_local long long llHintDue = 0;
thread_local long long llHintNow = 0;
thread_local bool bHint = false;

} // namespace

void yieldSetNextDue(long long llDue, long long llNow) {
    llHintDue = llDue;
    llHintNow = llNow;
    bHint = true;
}

void qxapi_load_balance(void) {
    if (!bHint) {
        const timespec pause{0, kYieldPauseNanoseconds};
        clock_nanosleep(CLOCK_MONOTONIC, 0, &pause, nullptr);
        return;
    }
    bHint = false; // an old time from a closed stream must not make the thread spin
    const long long llUntil = std::min(llHintDue, llHintNow + kYieldPauseNanoseconds);
    if (llUntil <= llHintNow) {
        sched_yield();
        return;
    }
    const timespec until{static_cast<time_t>(llUntil / kNanoseconds),
                         static_cast<long>(llUntil % kNanoseconds)};
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr) == EINTR) {
    }
}

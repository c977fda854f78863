// yield.h - how long the pauses of polling threads are.
//
// A stream's next-packet call leaves the due time of the packet that it does not hand out yet;
// qxapi_load_balance of the same thread then sleeps until that time.
#ifndef FRAMEWORK_YIELD_H
#define FRAMEWORK_YIELD_H

// The longest pause. Five passes of a loop stay within 50 ms, and a wake-up costs some 12 us in a virtual
// machine: five idle loops together take 0.6 % of a core.
constexpr long kYieldPauseNanoseconds = 10'000'000;

// Sets the hint of the calling thread, which the thread's next qxapi_load_balance uses up.
// llMonotonicNanoseconds: CLOCK_MONOTONIC time at which the thread's next packet is due.
void yieldSetNextDue(long long llMonotonicNanoseconds);

#endif

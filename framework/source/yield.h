// yield.h - how long polling threads pause.
//
// A stream's pNextPacket stores the due time of a packet that is not due yet. qxapi_load_balance on the
// same thread then sleeps until that time.
#ifndef FRAMEWORK_YIELD_H
#define FRAMEWORK_YIELD_H

// The longest pause. With it, five passes of a loop take at most 50 ms. A wake-up costs about 12 us in a
// virtual machine, so five idle loops together take 0.6 % of a core.
constexpr long kYieldPauseNanoseconds = 10'000'000;

// Stores when the calling thread's next packet is due. The thread's next qxapi_load_balance uses the time
// and clears it.
// llDue, llNow: on CLOCK_MONOTONIC, nanoseconds. llNow: the present time; the pause reads no clock again.
void yieldSetNextDue(long long llDue, long long llNow);

#endif

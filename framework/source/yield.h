// yield.h - how long the player of a stream pauses.
//
// A stream's pNextPacket stores the due time of a packet that is not due yet. qxapi_load_balance on the
// same thread then sleeps until that time.
#ifndef FRAMEWORK_YIELD_H
#define FRAMEWORK_YIELD_H

// The longest pause: how soon a player whose next packet is not due for long answers a stop.
constexpr long kYieldPauseNanoseconds = 10'000'000;

// Stores when the calling thread's next packet is due. The thread's next qxapi_load_balance uses the time
// and clears it.
// llDue, llNow: on CLOCK_MONOTONIC, nanoseconds. llNow: the present time; the pause reads no clock again.
void yieldSetNextDue(long long llDue, long long llNow);

#endif

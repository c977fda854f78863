// tslength.h - estimates the play-out time of a large transport stream file without reading all of it.
//
// Used by the transport stream reader before it starts. No state.
#ifndef FRAMEWORK_TSLENGTH_H
#define FRAMEWORK_TSLENGTH_H

#include "tspacket.h"

// Reads the references of uiPID at some places between ullFirst, the file offset of one whose value is
// ullClock, and the file's end. Returns the file's play-out time in ticks. Returns 0 if the references do not
// go up about as the bytes do: they then cannot be trusted to tell the whole time.
long long tsLengthEstimate(int iFile, const TsLayout &layout, unsigned int uiPID, unsigned long long ullFirst,
                           unsigned long long ullClock);

#endif

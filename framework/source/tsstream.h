// tsstream.h - reads a stored transport stream file as runs of packets with due times.
//
// Used by the stream, on the thread that plays it. Packets of 192 and 204 bytes are cut down to their 188;
// null packets are kept; what is no packet is passed over and reported once. A run is due when its first
// packet is. Memory does not grow with the file: one cursor hands packets out, a second one looks ahead for
// the next clock reference.
#ifndef FRAMEWORK_TSSTREAM_H
#define FRAMEWORK_TSSTREAM_H

#include "tsclock.h"
#include "tspacket.h"

constexpr unsigned int kTsRunMax = 7; // packets in a run, as many as an Ethernet frame takes

struct TsReader {
    std::string sFile; // for reports
    TsCursor play;     // hands packets out
    TsCursor scan;     // looks ahead
    TsClock clock;
    unsigned int uiClockPID = 0; // whose references the clock follows
    bool bNewBase = false;       // the scan has passed a discontinuity of that PID
    unsigned int uiOtherPID = 0; // references of another PID since the last of that one
    unsigned int uiOther = 0;
    unsigned long long ullAsked = 0; // the last packet whose due time was asked for
    unsigned char aRun[kTsRunMax * kTsPacketSize] = {};
    unsigned int uiRun = 0;  // packets in aRun
    long long llRunDue = 0;  // nanoseconds
    bool bHandedOut = false; // aRun has been handed out
    bool bReported = false;  // the lost packets have been reported
};

// Whether the head of the file holds transport stream packets.
bool tsReaderRecognises(int iFile);

// Reads the head of iFile (borrowed): where its packets are, which clock to follow. The file must have two
// clock references that make sense in its first 16 MiB: without a clock it could only be sent at a guess.
// Returns false and the reason when it cannot be played.
bool tsReaderStart(TsReader &reader, int iFile, const char *pszFile, std::string &sReason);

// Hands out the next run. Returns a MediaStep.
int tsReaderNext(TsReader &reader, MediaPacket &packet);

#endif

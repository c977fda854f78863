// tsstream.h - reads a stored transport stream file as runs of packets with due times.
//
// Used by the stream, on the thread that plays it. The reader cuts units of 192 and 204 bytes down to their
// packet of 188. It keeps null packets. It skips bytes that are no packet and reports them once. A run is
// due when its first packet is. It ends early before a packet that is due kTsRunSpan later, so that no packet
// of a slow stream goes out long before its time. Memory does not grow with the file: one cursor hands
// packets out, and a second cursor looks ahead for the next clock reference.
#ifndef FRAMEWORK_TSSTREAM_H
#define FRAMEWORK_TSSTREAM_H

#include "tsclock.h"
#include "tspacket.h"

constexpr unsigned int kTsRunMax = 7;             // packets in a run: as many as an Ethernet frame holds
constexpr long long kTsRunSpan = 20'000'000;      // nanoseconds from a run's first packet to its last
constexpr unsigned long long kTsSearch = 1 << 24; // bytes searched for a clock reference

struct TsReader {
    std::string sFile; // for reports
    TsCursor play;     // hands packets out
    TsCursor scan;     // looks ahead
    TsClock clock;
    unsigned int uiClockPID = 0;     // the clock follows the references of this PID
    bool bNewBase = false;           // the scan has passed a discontinuity of uiClockPID
    unsigned int uiOtherPID = 0;     // another PID with references
    unsigned int uiOther = 0;        // its references since the last one of uiClockPID
    TsMark after;                    // a reference that the scan has found and the clock has not been given
    bool bAfter = false;             // after is set
    unsigned long long ullAsked = 0; // the last packet whose due time was asked for
    unsigned char aRun[kTsRunMax * kTsPacketSize] = {};
    unsigned int uiRun = 0;  // packets of the run in aRun
    long long llRunDue = 0;  // nanoseconds
    bool bHandedOut = false; // the run has been handed out
    bool bHeld = false;      // the packet behind the run in aRun begins the next run
    long long llHeldDue = 0; // nanoseconds
    bool bReported = false;  // lost packets have been reported
    long long llLength = 0;  // play-out time of the file in nanoseconds; 0 not known
};

// Returns whether the head of the file holds transport stream packets.
bool tsReaderRecognises(int iFile);

// Reads the head of iFile (borrowed) to find the packets and the clock to follow. Returns false and the
// reason if the file cannot be played. Its first 16 MiB (kTsSearch) must hold two clock references of a PID
// that make sense, at most a minute apart (kTsIntervalMax): without a clock the right pace is not known.
bool tsReaderStart(TsReader &reader, int iFile, const char *pszFile, std::string &sReason);

// Hands out the next run. Returns a MediaStep.
int tsReaderNext(TsReader &reader, MediaPacket &packet);

#endif

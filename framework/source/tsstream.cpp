#include "tsstream.h"

#include "report.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr unsigned long long kMebibyte = 1ULL << 20;
constexpr std::size_t kPlayBufferSize = std::size_t{64} * 1024;
constexpr unsigned long long kStartScan = 16 * kMebibyte; // bytes searched for a clock before the start
constexpr unsigned long long kLookAhead = 4 * kMebibyte;  // bytes searched for the next reference in play
constexpr unsigned long long kStepBytes = kMebibyte;      // bytes without a packet that one step skips
constexpr unsigned int kOtherMax = 10; // references of another PID before the clock follows that PID
constexpr std::size_t kClocksMax = 16; // PIDs compared at the start

// A PID's last reference, while the search waits for its next.
struct Candidate {
    unsigned int uiPID;
    unsigned long long ullClock;
    unsigned long long ullPacket;
};

// Finds the first PID with a sound interval between two references, and starts the clock at that interval's
// rate. Returns false and the reason if there is none.
bool findClock(TsReader &reader, const TsLayout &layout, std::string &sReason) {
    Candidate aCandidate[kClocksMax] = {};
    std::size_t ulCandidates = 0;
    unsigned long long ullReferences = 0;
    TsCursor &scan = reader.scan;
    const unsigned char *pPacket = nullptr;
    const unsigned long long ullLimit = layout.ullFirst + kStartScan;
    while (scan.ullOffset < ullLimit && tsCursorNext(scan, ullLimit, pPacket) == MEDIA_PACKET) {
        TsReference reference{};
        if (!tsReadReference(pPacket, reference) || !reference.bClock) {
            continue;
        }
        ullReferences++;
        const unsigned long long ullPacket = scan.ullPassed - 1;
        Candidate *pEnd = aCandidate + ulCandidates;
        Candidate *pCandidate = std::find_if(
            aCandidate, pEnd, [&](const Candidate &candidate) { return candidate.uiPID == reference.uiPID; });
        if (pCandidate != pEnd && !reference.bDiscontinuity) {
            const unsigned long long ullTicks =
                (reference.ullClock + kTsClockWrap - pCandidate->ullClock) % kTsClockWrap;
            const unsigned long long ullPackets = ullPacket - pCandidate->ullPacket;
            if (tsclockIsSound(ullTicks, ullPackets, 0)) {
                reader.uiClockPID = reference.uiPID;
                tsclockStart(reader.clock, static_cast<double>(ullTicks) / static_cast<double>(ullPackets));
                return true;
            }
        }
        if (pCandidate == pEnd && ulCandidates < kClocksMax) {
            ulCandidates++;
        }
        if (pCandidate < aCandidate + ulCandidates) {
            *pCandidate = {reference.uiPID, reference.ullClock, ullPacket};
        }
    }
    if (scan.window.iError != 0) {
        sReason = std::string("it cannot be read: ") + std::strerror(scan.window.iError);
    } else if (ullReferences == 0) {
        sReason = "its first 16 MiB hold no clock reference (PCR), so its pace is not known";
    } else {
        sReason =
            "its first 16 MiB hold no two clock references (PCR) that make sense, so its pace is not known";
    }
    return false;
}

// Searches ahead for the clock's next reference. Returns false if there is none within kLookAhead.
bool scanReference(TsReader &reader) {
    TsCursor &scan = reader.scan;
    const unsigned long long ullLimit = reader.play.ullOffset + kLookAhead;
    const unsigned char *pPacket = nullptr;
    while (scan.ullOffset < ullLimit && tsCursorNext(scan, ullLimit, pPacket) == MEDIA_PACKET) {
        TsReference reference{};
        if (!tsReadReference(pPacket, reference)) {
            continue;
        }
        if (reference.uiPID != reader.uiClockPID) {
            if (!reference.bClock) {
                continue;
            }
            reader.uiOther = reference.uiPID == reader.uiOtherPID ? reader.uiOther + 1 : 1;
            reader.uiOtherPID = reference.uiPID;
            if (reader.uiOther < kOtherMax) {
                continue;
            }
            reader.uiClockPID = reference.uiPID;
            reader.bNewBase = true;
        }
        reader.bNewBase = reader.bNewBase || reference.bDiscontinuity;
        if (!reference.bClock) {
            continue;
        }
        tsclockNext(reader.clock, scan.ullPassed - 1, reference.ullClock, reader.bNewBase, reader.ullAsked);
        reader.bNewBase = false;
        reader.uiOther = 0;
        return true;
    }
    return false;
}

// Returns when the packet is due, in nanoseconds.
long long dueTime(TsReader &reader, unsigned long long ullPacket) {
    while (tsclockNeedsNext(reader.clock, ullPacket) && scanReference(reader)) {
    }
    reader.ullAsked = ullPacket;
    const long long llTicks = tsclockDue(reader.clock, ullPacket);
    return llTicks / 27 * 1000 + llTicks % 27 * 1000 / 27;
}

void reportLoss(TsReader &reader) {
    if (reader.bReported || reader.play.ullLosses == 0) {
        return;
    }
    reader.bReported = true;
    frameworkReport("stream", "%s: no transport stream packet at byte %llu: going on with the next ones",
                    reader.sFile.c_str(), reader.play.ullFirstLoss);
}

void reportEnd(const TsReader &reader) {
    const TsCursor &play = reader.play;
    if (play.window.iError != 0) {
        frameworkReport("stream", "%s: cannot be read on at byte %llu: %s: the playout ends here",
                        reader.sFile.c_str(), play.ullOffset, std::strerror(play.window.iError));
        return;
    }
    std::size_t ulRest = 0;
    if (play.window.ullOffset + play.window.ulLength > play.ullOffset) {
        ulRest = static_cast<std::size_t>(play.window.ullOffset + play.window.ulLength - play.ullOffset);
    }
    if (ulRest > 0) {
        frameworkReport("stream", "%s: ends with %zu bytes that are no whole packet: they are left out",
                        reader.sFile.c_str(), ulRest);
    }
    if (play.ullLosses > 1) {
        frameworkReport("stream", "%s: %llu bytes in %llu places were no transport stream packets",
                        reader.sFile.c_str(), play.ullSkipped, play.ullLosses);
    }
}

} // namespace

bool tsReaderRecognises(int iFile) {
    FileWindow window;
    TsLayout layout;
    windowOpen(window, iFile, kTsProbeSize);
    return tsFindLayout(window, layout);
}

bool tsReaderStart(TsReader &reader, int iFile, const char *pszFile, std::string &sReason) {
    reader = TsReader{};
    reader.sFile = pszFile;
    FileWindow window;
    TsLayout layout;
    windowOpen(window, iFile, kTsProbeSize);
    if (!tsFindLayout(window, layout)) {
        sReason = "its head holds no transport stream packets";
        return false;
    }
    tsCursorOpen(reader.play, iFile, kPlayBufferSize, layout);
    tsCursorOpen(reader.scan, iFile, kPlayBufferSize, layout);
    if (!findClock(reader, layout, sReason)) {
        return false;
    }
    tsCursorOpen(reader.scan, iFile, kPlayBufferSize, layout);
    if (layout.ullFirst >= layout.uiUnit) {
        frameworkReport("stream", "%s: %llu bytes before the first packet are left out", pszFile,
                        layout.ullFirst);
    }
    return true;
}

int tsReaderNext(TsReader &reader, MediaPacket &packet) {
    if (reader.bHandedOut) {
        reader.bHandedOut = false;
        reader.uiRun = 0;
    }
    while (reader.uiRun < kTsRunMax) {
        const unsigned char *pPacket = nullptr;
        const int iStep = tsCursorNext(reader.play, reader.play.ullOffset + kStepBytes, pPacket);
        reportLoss(reader);
        if (iStep == MEDIA_BUSY) {
            return MEDIA_BUSY;
        }
        if (iStep == MEDIA_END) {
            if (reader.uiRun > 0) {
                break;
            }
            reportEnd(reader);
            return MEDIA_END;
        }
        std::memcpy(reader.aRun + reader.uiRun * kTsPacketSize, pPacket, kTsPacketSize);
        if (reader.uiRun++ == 0) {
            reader.llRunDue = std::max(reader.llRunDue, dueTime(reader, reader.play.ullPassed - 1));
        }
    }
    reader.bHandedOut = true;
    packet = {reader.aRun, reader.uiRun * static_cast<unsigned int>(kTsPacketSize), reader.llRunDue};
    return MEDIA_PACKET;
}

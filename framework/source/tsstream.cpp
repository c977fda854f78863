#include "tsstream.h"

#include "report.h"
#include "tslength.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace {

constexpr unsigned long long kMebibyte = 1ULL << 20;
constexpr std::size_t kPlayBufferSize = std::size_t{64} * 1024;
constexpr unsigned long long kSurvey = 4 * kMebibyte; // bytes read before the start to know the file's rate
constexpr unsigned long long kStepBytes = kMebibyte;  // bytes without a packet that one step skips
constexpr unsigned int kOtherMax = 10; // references of another PID before the clock follows that PID
constexpr double kSlowHead = 4;        // a first interval this many times slower than the file is not typical
constexpr std::size_t kClocksMax = 16; // PIDs compared at the start

// What the search at the start knows of a PID: its last reference, and the interval before it.
struct Candidate {
    unsigned int uiPID;
    TsMark mark;
    unsigned long long ullTicks; // 0: no interval, or not one that makes sense
    unsigned long long ullPackets;
};

// Finds the first PID with a sound interval between two references. Sets uiClockPID, and found to that
// interval. Returns false and the reason if there is none.
bool findClock(TsReader &reader, const TsLayout &layout, Candidate &found, std::string &sReason) {
    Candidate aCandidate[kClocksMax] = {};
    std::size_t ulCandidates = 0;
    unsigned long long ullReferences = 0;
    TsCursor &scan = reader.scan;
    const unsigned char *pPacket = nullptr;
    const unsigned long long ullLimit = layout.ullFirst + kTsSearch;
    while (scan.ullOffset < ullLimit && tsCursorNext(scan, ullLimit, pPacket) == MEDIA_PACKET) {
        TsReference reference{};
        if (!tsReadReference(pPacket, reference) || !reference.bClock) {
            continue;
        }
        ullReferences++;
        Candidate now = {reference.uiPID, {scan.ullPassed - 1, reference.ullClock, false}, 0, 0};
        Candidate *pEnd = aCandidate + ulCandidates;
        Candidate *pCandidate = std::find_if(
            aCandidate, pEnd, [&](const Candidate &candidate) { return candidate.uiPID == reference.uiPID; });
        if (pCandidate != pEnd && !reference.bDiscontinuity) {
            now.ullTicks = tsclockTicks(pCandidate->mark, now.mark);
            now.ullPackets = now.mark.ullPacket - pCandidate->mark.ullPacket;
            // The interval before this one may be long. Then this one says if it is to be believed.
            const bool bBefore =
                tsclockIsSound(pCandidate->ullTicks, pCandidate->ullPackets, 0, 0, now.ullTicks);
            if (bBefore || tsclockIsSound(now.ullTicks, now.ullPackets, 0, 0, 0)) {
                found = bBefore ? *pCandidate : now;
                reader.uiClockPID = reference.uiPID;
                return true;
            }
        }
        if (pCandidate == pEnd && ulCandidates < kClocksMax) {
            ulCandidates++;
        }
        if (pCandidate < aCandidate + ulCandidates) {
            *pCandidate = now;
        }
    }
    if (scan.window.iError != 0) {
        sReason = std::string("it cannot be read: ") + std::strerror(scan.window.iError);
    } else if (ullReferences == 0) {
        sReason = "its first 16 MiB hold no clock reference (PCR), so its pace is not known";
    } else {
        sReason = "its first 16 MiB hold no two clock references (PCR) that make sense and are at most a "
                  "minute apart, so its pace is not known";
    }
    return false;
}

// Searches ahead for the clock's next reference. Returns a MediaStep: MEDIA_BUSY if there is none within
// kTsSearch.
int findMark(TsReader &reader, TsMark &mark) {
    TsCursor &scan = reader.scan;
    const unsigned long long ullLimit = reader.play.ullOffset + kTsSearch;
    const unsigned char *pPacket = nullptr;
    while (scan.ullOffset < ullLimit) {
        if (const int iStep = tsCursorNext(scan, ullLimit, pPacket); iStep != MEDIA_PACKET) {
            return iStep;
        }
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
        mark = {scan.ullPassed - 1, reference.ullClock, reader.bNewBase};
        reader.bNewBase = false;
        reader.uiOther = 0;
        return MEDIA_PACKET;
    }
    return MEDIA_BUSY;
}

// Gives the clock its next reference. Returns a MediaStep: MEDIA_BUSY if there is none within kTsSearch.
int giveReference(TsReader &reader) {
    TsMark mark = reader.after;
    if (!reader.bAfter) {
        const int iStep = findMark(reader, mark);
        if (iStep == MEDIA_END) {
            tsclockEnd(reader.clock, reader.scan.ullPassed, reader.ullAsked);
        }
        if (iStep != MEDIA_PACKET) {
            return iStep;
        }
    }
    reader.bAfter = tsclockDoubts(reader.clock, mark) && findMark(reader, reader.after) == MEDIA_PACKET;
    tsclockNext(reader.clock, mark, reader.bAfter ? &reader.after : nullptr, reader.ullAsked);
    return MEDIA_PACKET;
}

long long nanosecondsOf(long long llTicks) {
    return llTicks / 27 * 1000 + llTicks % 27 * 1000 / 27;
}

// Returns when the packet is due, in nanoseconds.
long long dueTime(TsReader &reader, unsigned long long ullPacket) {
    while (tsclockNeedsNext(reader.clock, ullPacket) && giveReference(reader) == MEDIA_PACKET) {
    }
    reader.ullAsked = ullPacket;
    return nanosecondsOf(tsclockDue(reader.clock, ullPacket));
}

// Starts the clock, and finds the file's length. found: the first sound interval.
void startClock(TsReader &reader, int iFile, const TsLayout &layout, const Candidate &found) {
    // Read some of the file first. Where its rate changes much, the rate of the first interval may be far too
    // slow for the packets before it.
    const double dFirst = static_cast<double>(found.ullTicks) / static_cast<double>(found.ullPackets);
    TsReader survey;
    tsCursorOpen(survey.play, iFile, 0, layout); // only its offset is used
    tsCursorOpen(survey.scan, iFile, kPlayBufferSize, layout);
    survey.uiClockPID = reader.uiClockPID;
    tsclockStart(survey.clock, dFirst, found.ullTicks);
    TsMark head; // the first reference
    long long llHead = 0;
    bool bHead = false;
    int iStep = MEDIA_PACKET;
    while (iStep == MEDIA_PACKET && survey.scan.ullOffset < layout.ullFirst + kSurvey) {
        iStep = giveReference(survey);
        if (iStep == MEDIA_PACKET) {
            if (!bHead) {
                head = survey.clock.reference;
                llHead = survey.clock.llReferenceTicks;
                bHead = true;
            }
            tsclockNeedsNext(survey.clock, survey.clock.ullNextPacket);
        }
    }
    double dRate = dFirst;
    if (survey.clock.ullSoundPackets > 0) {
        const double dAverage = static_cast<double>(survey.clock.llSoundTicks) /
                                static_cast<double>(survey.clock.ullSoundPackets);
        if (dFirst > kSlowHead * dAverage) {
            dRate = std::min(dAverage, static_cast<double>(found.ullTicks) /
                                           static_cast<double>(std::max(head.ullPacket, 1ULL)));
        }
    }
    tsclockStart(reader.clock, dRate, found.ullTicks);
    long long llLength = 0;
    if (iStep == MEDIA_END) {
        llLength = tsclockDue(survey.clock, survey.scan.ullPassed) - llHead +
                   tsclockDue(reader.clock, head.ullPacket);
    } else {
        llLength = tsLengthEstimate(iFile, layout, reader.uiClockPID,
                                    layout.ullFirst + head.ullPacket * layout.uiUnit, head.ullClock);
    }
    reader.llLength = nanosecondsOf(llLength);
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
    Candidate found{};
    if (!findClock(reader, layout, found, sReason)) {
        return false;
    }
    startClock(reader, iFile, layout, found);
    tsCursorOpen(reader.scan, iFile, kPlayBufferSize, layout);
    if (layout.ullFirst >= layout.uiUnit) {
        frameworkReport("stream", "%s: %llu bytes before the first packet are left out", pszFile,
                        layout.ullFirst);
    }
    return true;
}

int tsReaderNext(TsReader &reader, MediaPacket &packet) {
    if (reader.bHandedOut && reader.bHeld) {
        std::memcpy(reader.aRun, reader.aRun + reader.uiRun * kTsPacketSize, kTsPacketSize);
        reader.llRunDue = reader.llHeldDue;
    }
    if (reader.bHandedOut) {
        reader.uiRun = reader.bHeld ? 1 : 0;
        reader.bHeld = false;
        reader.bHandedOut = false;
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
        const long long llDue = std::max(reader.llRunDue, dueTime(reader, reader.play.ullPassed - 1));
        if (reader.uiRun == 0) {
            reader.llRunDue = llDue;
        } else if (llDue - reader.llRunDue >= kTsRunSpan) {
            reader.bHeld = true;
            reader.llHeldDue = llDue;
            break;
        }
        reader.uiRun++;
    }
    reader.bHandedOut = true;
    packet = {reader.aRun, reader.uiRun * static_cast<unsigned int>(kTsPacketSize), reader.llRunDue};
    return MEDIA_PACKET;
}

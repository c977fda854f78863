#include "tsstream.h"

#include "report.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr std::size_t PLAY_BUFFER = 64 * 1024;
constexpr unsigned long long START_SCAN = 16 * 1024 * 1024; // bytes searched for a clock before the start
constexpr unsigned long long LOOK_AHEAD = 4 * 1024 * 1024;  // bytes searched for the next reference in play
constexpr unsigned long long STEP_BYTES = 1024 * 1024;      // bytes without a packet that one step passes
constexpr unsigned int OTHER_MAX = 10; // references of another PID after which the clock's PID has ended
constexpr std::size_t CLOCKS_MAX = 16; // PIDs compared for the start

// The first reference of a PID that is waiting for its second.
struct CANDIDATE {
    unsigned int uiPID;
    unsigned long long ullClock;
    unsigned long long ullPacket;
};

// Finds the first PID with a sound interval between two references, and the interval's rate.
bool findClock(TSREADER &Reader, const TSLAYOUT &Layout, std::string &sReason) {
    CANDIDATE aCandidate[CLOCKS_MAX] = {};
    std::size_t ulCandidates = 0;
    unsigned long long ullReferences = 0;
    TSCURSOR &Scan = Reader.Scan;
    const unsigned char *pPacket = nullptr;
    const unsigned long long ullLimit = Layout.ullFirst + START_SCAN;
    while (Scan.ullOffset < ullLimit && tsCursorNext(Scan, ullLimit, pPacket) == MEDIA_PACKET) {
        TSREFERENCE Reference{};
        if (!tsReadReference(pPacket, Reference) || !Reference.bClock)
            continue;
        ullReferences++;
        const unsigned long long ullPacket = Scan.ullPassed - 1;
        CANDIDATE *pEnd = aCandidate + ulCandidates;
        CANDIDATE *pCandidate = std::find_if(
            aCandidate, pEnd, [&](const CANDIDATE &Candidate) { return Candidate.uiPID == Reference.uiPID; });
        if (pCandidate != pEnd && !Reference.bDiscontinuity) {
            const unsigned long long ullTicks =
                (Reference.ullClock + TS_CLOCK_WRAP - pCandidate->ullClock) % TS_CLOCK_WRAP;
            const unsigned long long ullPackets = ullPacket - pCandidate->ullPacket;
            if (tsclockIsSound(ullTicks, ullPackets, 0)) {
                Reader.uiClockPID = Reference.uiPID;
                tsclockStart(Reader.Clock, static_cast<double>(ullTicks) / static_cast<double>(ullPackets));
                return true;
            }
        }
        if (pCandidate == pEnd && ulCandidates < CLOCKS_MAX)
            ulCandidates++;
        if (pCandidate < aCandidate + ulCandidates)
            *pCandidate = {Reference.uiPID, Reference.ullClock, ullPacket};
    }
    if (Scan.Window.iError != 0)
        sReason = std::string("it cannot be read: ") + std::strerror(Scan.Window.iError);
    else if (ullReferences == 0)
        sReason = "its first 16 MiB hold no clock reference (PCR), so its pace is not known";
    else
        sReason =
            "its first 16 MiB hold no two clock references (PCR) that make sense, so its pace is not known";
    return false;
}

// Looks ahead for the clock's next reference. Returns false when none is in sight.
bool scanReference(TSREADER &Reader) {
    TSCURSOR &Scan = Reader.Scan;
    const unsigned long long ullLimit = Reader.Play.ullOffset + LOOK_AHEAD;
    const unsigned char *pPacket = nullptr;
    while (Scan.ullOffset < ullLimit && tsCursorNext(Scan, ullLimit, pPacket) == MEDIA_PACKET) {
        TSREFERENCE Reference{};
        if (!tsReadReference(pPacket, Reference))
            continue;
        if (Reference.uiPID != Reader.uiClockPID) {
            if (!Reference.bClock)
                continue;
            Reader.uiOther = Reference.uiPID == Reader.uiOtherPID ? Reader.uiOther + 1 : 1;
            Reader.uiOtherPID = Reference.uiPID;
            if (Reader.uiOther < OTHER_MAX)
                continue;
            Reader.uiClockPID = Reference.uiPID;
            Reader.bNewBase = true;
        }
        Reader.bNewBase = Reader.bNewBase || Reference.bDiscontinuity;
        if (!Reference.bClock)
            continue;
        tsclockNext(Reader.Clock, Scan.ullPassed - 1, Reference.ullClock, Reader.bNewBase, Reader.ullAsked);
        Reader.bNewBase = false;
        Reader.uiOther = 0;
        return true;
    }
    return false;
}

// When the packet is due, in nanoseconds.
long long dueTime(TSREADER &Reader, unsigned long long ullPacket) {
    while (tsclockNeedsNext(Reader.Clock, ullPacket) && scanReference(Reader)) {
    }
    Reader.ullAsked = ullPacket;
    const long long llTicks = tsclockDue(Reader.Clock, ullPacket);
    return llTicks / 27 * 1000 + llTicks % 27 * 1000 / 27;
}

void reportLoss(TSREADER &Reader) {
    if (Reader.bReported || Reader.Play.ullLosses == 0)
        return;
    Reader.bReported = true;
    frameworkReport("stream", "%s: no transport stream packet at byte %llu: going on with the next ones",
                    Reader.sFile.c_str(), Reader.Play.ullFirstLoss);
}

void reportEnd(const TSREADER &Reader) {
    const TSCURSOR &Play = Reader.Play;
    if (Play.Window.iError != 0) {
        frameworkReport("stream", "%s: cannot be read on at byte %llu: %s: the playout ends here",
                        Reader.sFile.c_str(), Play.ullOffset, std::strerror(Play.Window.iError));
        return;
    }
    std::size_t ulRest = 0;
    if (Play.Window.ullOffset + Play.Window.ulLength > Play.ullOffset)
        ulRest = static_cast<std::size_t>(Play.Window.ullOffset + Play.Window.ulLength - Play.ullOffset);
    if (ulRest > 0)
        frameworkReport("stream", "%s: ends with %zu bytes that are no whole packet: they are left out",
                        Reader.sFile.c_str(), ulRest);
    if (Play.ullLosses > 1)
        frameworkReport("stream", "%s: %llu bytes in %llu places were no transport stream packets",
                        Reader.sFile.c_str(), Play.ullSkipped, Play.ullLosses);
}

} // namespace

bool tsReaderRecognises(int iFile) {
    FILEWINDOW Window;
    TSLAYOUT Layout;
    windowOpen(Window, iFile, TS_PROBE);
    return tsFindLayout(Window, Layout);
}

bool tsReaderStart(TSREADER &Reader, int iFile, const char *pszFile, std::string &sReason) {
    Reader = TSREADER{};
    Reader.sFile = pszFile;
    FILEWINDOW Window;
    TSLAYOUT Layout;
    windowOpen(Window, iFile, TS_PROBE);
    if (!tsFindLayout(Window, Layout)) {
        sReason = "its head holds no transport stream packets";
        return false;
    }
    tsCursorOpen(Reader.Play, iFile, PLAY_BUFFER, Layout);
    tsCursorOpen(Reader.Scan, iFile, PLAY_BUFFER, Layout);
    if (!findClock(Reader, Layout, sReason))
        return false;
    tsCursorOpen(Reader.Scan, iFile, PLAY_BUFFER, Layout);
    if (Layout.ullFirst >= Layout.uiUnit)
        frameworkReport("stream", "%s: %llu bytes before the first packet are left out", pszFile,
                        Layout.ullFirst);
    return true;
}

int tsReaderNext(TSREADER &Reader, MEDIAPACKET &Packet) {
    if (Reader.bHandedOut) {
        Reader.bHandedOut = false;
        Reader.uiRun = 0;
    }
    while (Reader.uiRun < TS_RUN) {
        const unsigned char *pPacket = nullptr;
        const int iStep = tsCursorNext(Reader.Play, Reader.Play.ullOffset + STEP_BYTES, pPacket);
        reportLoss(Reader);
        if (iStep == MEDIA_BUSY)
            return MEDIA_BUSY;
        if (iStep == MEDIA_END) {
            if (Reader.uiRun > 0)
                break;
            reportEnd(Reader);
            return MEDIA_END;
        }
        std::memcpy(Reader.aRun + Reader.uiRun * TS_PACKET, pPacket, TS_PACKET);
        if (Reader.uiRun++ == 0)
            Reader.llRunDue = std::max(Reader.llRunDue, dueTime(Reader, Reader.Play.ullPassed - 1));
    }
    Reader.bHandedOut = true;
    Packet = {Reader.aRun, Reader.uiRun * static_cast<unsigned int>(TS_PACKET), Reader.llRunDue};
    return MEDIA_PACKET;
}

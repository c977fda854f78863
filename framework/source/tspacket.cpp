#include "tspacket.h"

#include <algorithm>
#include <cstring>
#include <iterator>

namespace {

constexpr unsigned int kUnits[] = {188, 192, 204};
constexpr unsigned int kRunSure = 32;              // a run of this many packets leaves no doubt
constexpr unsigned int kRunMin = 5;                // a run of this many packets is believed
constexpr unsigned int kRunShort = 2;              // the same if the file ends before kRunMin packets
constexpr std::size_t kHeadMax = kTsProbeSize / 2; // most bytes before the first packet
constexpr unsigned int kPidNull = 0x1FFF;

// Returns how many packets follow each other from p on, at most uiMost.
// bToEnd: set if the run reaches the end of the ulHave bytes.
unsigned int countRun(const unsigned char *p, std::size_t ulHave, unsigned int uiUnit, unsigned int uiMost,
                      bool &bToEnd) {
    unsigned int uiRun = 0;
    std::size_t ulAt = 0;
    while (uiRun < uiMost && ulAt + kTsPacketSize <= ulHave && p[ulAt] == kTsSync) {
        uiRun++;
        ulAt += uiUnit;
    }
    bToEnd = ulAt + kTsPacketSize > ulHave;
    return uiRun;
}

// Returns whether the ulHave bytes at p begin with a run of packets. There are fewer than kRunMin units
// only at the end of the file. There, a single last packet counts if it is where one was expected.
bool followsRun(const unsigned char *p, std::size_t ulHave, unsigned int uiUnit, bool bExpected) {
    bool bToEnd = false;
    const unsigned int uiRun = countRun(p, ulHave, uiUnit, kRunMin, bToEnd);
    return uiRun >= kRunMin || (bToEnd && (uiRun >= kRunShort || (uiRun == 1 && bExpected)));
}

// Moves a hunting cursor to the next packet, at most to about ullLimit. Returns MEDIA_PACKET at a packet,
// MEDIA_END, MEDIA_BUSY.
int huntPacket(TsCursor &cursor, unsigned long long ullLimit) {
    constexpr std::size_t kNeed = std::size_t{kRunMin} * 204;
    for (;;) {
        std::size_t ulHave = 0;
        const unsigned char *p = windowBytes(cursor.window, cursor.ullOffset, kNeed, ulHave);
        if (ulHave < kTsPacketSize) {
            return MEDIA_END;
        }
        const std::size_t ulEnd = ulHave < kNeed ? ulHave - kTsPacketSize + 1 : ulHave - kNeed + 1;
        std::size_t ulAt = 0;
        while (ulAt < ulEnd) {
            const void *pFound = std::memchr(p + ulAt, kTsSync, ulEnd - ulAt);
            ulAt = pFound ? static_cast<std::size_t>(static_cast<const unsigned char *>(pFound) - p) : ulEnd;
            const bool bExpected = (cursor.ullOffset + ulAt - cursor.ullLastLoss) % cursor.uiUnit == 0;
            if (ulAt < ulEnd && followsRun(p + ulAt, ulHave - ulAt, cursor.uiUnit, bExpected)) {
                break;
            }
            ulAt += ulAt < ulEnd;
        }
        const bool bFound = ulAt < ulEnd;
        const unsigned long long ullHere = cursor.ullOffset + ulAt;
        const unsigned long long ullNext = bFound ? ullHere : windowSkipHole(cursor.window, ullHere);
        cursor.ullSkipped += ullNext - cursor.ullOffset;
        cursor.ullOffset = ullNext;
        if (bFound) {
            cursor.bHunting = false;
            return MEDIA_PACKET;
        }
        if (cursor.ullOffset >= ullLimit) {
            return MEDIA_BUSY;
        }
    }
}

} // namespace

bool tsFindLayout(FileWindow &window, TsLayout &layout) {
    std::size_t ulHave = 0;
    const unsigned char *p = windowBytes(window, 0, kTsProbeSize, ulHave);
    unsigned int uiBest = 0;
    unsigned long long aullFirst[std::size(kUnits)] = {}; // where each unit's first run begins
    bool abFound[std::size(kUnits)] = {};
    for (std::size_t ulPhase = 0; ulPhase < std::min(ulHave, kHeadMax) && uiBest < kRunSure; ulPhase++) {
        if (p[ulPhase] != kTsSync) {
            continue;
        }
        for (std::size_t ulUnit = 0; ulUnit < std::size(kUnits); ulUnit++) {
            const unsigned int uiUnit = kUnits[ulUnit];
            bool bToEnd = false;
            const unsigned int uiRun = countRun(p + ulPhase, ulHave - ulPhase, uiUnit, kRunSure, bToEnd);
            const bool bShort = bToEnd && ulHave < kTsProbeSize && ulPhase < uiUnit && uiRun >= kRunShort;
            if (uiRun < kRunMin && !bShort) {
                continue;
            }
            if (!abFound[ulUnit]) {
                aullFirst[ulUnit] = ulPhase;
            }
            abFound[ulUnit] = true;
            // Take the unit of the longest run, but begin at that unit's first run. Damage in the head then
            // loses no packets before it.
            if (uiRun > uiBest) {
                uiBest = uiRun;
                layout = {uiUnit, aullFirst[ulUnit]};
            }
        }
    }
    return uiBest > 0;
}

void tsCursorOpen(TsCursor &cursor, int iFile, std::size_t ulBuffer, const TsLayout &layout) {
    cursor = TsCursor{};
    windowOpen(cursor.window, iFile, ulBuffer);
    cursor.uiUnit = layout.uiUnit;
    cursor.ullOffset = layout.ullFirst;
}

int tsCursorNext(TsCursor &cursor, unsigned long long ullLimit, const unsigned char *&pPacket) {
    std::size_t ulHave = 0;
    if (!cursor.bHunting) {
        pPacket = windowBytes(cursor.window, cursor.ullOffset, kTsPacketSize, ulHave);
        if (ulHave < kTsPacketSize) {
            return MEDIA_END;
        }
        if (*pPacket != kTsSync) {
            cursor.ullLastLoss = cursor.ullOffset;
            if (cursor.ullLosses++ == 0) {
                cursor.ullFirstLoss = cursor.ullOffset;
            }
            cursor.bHunting = true;
        }
    }
    if (cursor.bHunting) {
        const int iHunt = huntPacket(cursor, ullLimit);
        if (iHunt != MEDIA_PACKET) {
            return iHunt;
        }
        pPacket = windowBytes(cursor.window, cursor.ullOffset, kTsPacketSize, ulHave);
    }
    cursor.ullOffset += cursor.uiUnit;
    cursor.ullPassed++;
    return MEDIA_PACKET;
}

bool tsReadReference(const unsigned char *pPacket, TsReference &reference) {
    const bool bDamaged = (pPacket[1] & 0x80) != 0;
    const bool bAdaptation = (pPacket[3] & 0x20) != 0;
    const unsigned int uiAdaptation = pPacket[4];
    reference.uiPID = (pPacket[1] & 0x1FU) << 8 | pPacket[2];
    if (bDamaged || !bAdaptation || uiAdaptation == 0 || uiAdaptation > 183 || reference.uiPID == kPidNull) {
        return false;
    }
    reference.bDiscontinuity = (pPacket[5] & 0x80) != 0;
    reference.bClock = (pPacket[5] & 0x10) != 0 && uiAdaptation >= 7;
    reference.ullClock = 0;
    if (reference.bClock) {
        const unsigned long long ullBase = static_cast<unsigned long long>(pPacket[6]) << 25 |
                                           static_cast<unsigned long long>(pPacket[7]) << 17 |
                                           static_cast<unsigned long long>(pPacket[8]) << 9 |
                                           static_cast<unsigned long long>(pPacket[9]) << 1 |
                                           pPacket[10] >> 7;
        const unsigned int uiExtension = (pPacket[10] & 1U) << 8 | pPacket[11];
        reference.ullClock = (ullBase * 300 + uiExtension) % kTsClockWrap;
    }
    return reference.bDiscontinuity || reference.bClock;
}

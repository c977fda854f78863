#include "tspacket.h"

#include <algorithm>
#include <cstring>
#include <iterator>

namespace {

constexpr unsigned int UNITS[] = {188, 192, 204};
constexpr unsigned int RUN_SURE = 32;          // packets in a row that leave no doubt
constexpr unsigned int RUN_MIN = 5;            // packets in a row that are believed
constexpr unsigned int RUN_SHORT = 2;          // the same for a file that ends before RUN_MIN
constexpr std::size_t HEAD_MAX = TS_PROBE / 2; // bytes before the first packet
constexpr unsigned int PID_NULL = 0x1FFF;

// How many packets follow each other from p on, at most uiMost; bToEnd: up to the last one of the ulHave
// bytes.
unsigned int countRun(const unsigned char *p, std::size_t ulHave, unsigned int uiUnit, unsigned int uiMost,
                      bool &bToEnd) {
    unsigned int uiRun = 0;
    std::size_t ulAt = 0;
    while (uiRun < uiMost && ulAt + TS_PACKET <= ulHave && p[ulAt] == TS_SYNC) {
        uiRun++;
        ulAt += uiUnit;
    }
    bToEnd = ulAt + TS_PACKET > ulHave;
    return uiRun;
}

// Whether the ulHave bytes at p begin with a packet that others follow. ulHave falls short of RUN_MIN units
// only at the end of the file; a last packet that stands alone is believed where it was to be expected.
bool followsRun(const unsigned char *p, std::size_t ulHave, unsigned int uiUnit, bool bExpected) {
    bool bToEnd = false;
    const unsigned int uiRun = countRun(p, ulHave, uiUnit, RUN_MIN, bToEnd);
    return uiRun >= RUN_MIN || (bToEnd && (uiRun >= RUN_SHORT || (uiRun == 1 && bExpected)));
}

// Moves a hunting cursor on towards ullLimit. Returns MEDIA_PACKET at a packet, MEDIA_END, MEDIA_BUSY.
int huntPacket(TSCURSOR &Cursor, unsigned long long ullLimit) {
    constexpr std::size_t NEED = RUN_MIN * 204;
    for (;;) {
        std::size_t ulHave = 0;
        const unsigned char *p = windowBytes(Cursor.Window, Cursor.ullOffset, NEED, ulHave);
        if (ulHave < TS_PACKET)
            return MEDIA_END;
        const std::size_t ulEnd = ulHave < NEED ? ulHave - TS_PACKET + 1 : ulHave - NEED + 1;
        std::size_t ulAt = 0;
        while (ulAt < ulEnd) {
            const void *pFound = std::memchr(p + ulAt, TS_SYNC, ulEnd - ulAt);
            ulAt = pFound ? static_cast<std::size_t>(static_cast<const unsigned char *>(pFound) - p) : ulEnd;
            const bool bExpected = (Cursor.ullOffset + ulAt - Cursor.ullLastLoss) % Cursor.uiUnit == 0;
            if (ulAt < ulEnd && followsRun(p + ulAt, ulHave - ulAt, Cursor.uiUnit, bExpected))
                break;
            ulAt += ulAt < ulEnd;
        }
        const bool bFound = ulAt < ulEnd;
        const unsigned long long ullHere = Cursor.ullOffset + ulAt;
        const unsigned long long ullNext = bFound ? ullHere : windowSkipHole(Cursor.Window, ullHere);
        Cursor.ullSkipped += ullNext - Cursor.ullOffset;
        Cursor.ullOffset = ullNext;
        if (bFound) {
            Cursor.bHunting = false;
            return MEDIA_PACKET;
        }
        if (Cursor.ullOffset >= ullLimit)
            return MEDIA_BUSY;
    }
}

} // namespace

bool tsFindLayout(FILEWINDOW &Window, TSLAYOUT &Layout) {
    std::size_t ulHave = 0;
    const unsigned char *p = windowBytes(Window, 0, TS_PROBE, ulHave);
    unsigned int uiBest = 0;
    unsigned long long aullFirst[std::size(UNITS)] = {}; // where each unit's first run begins
    bool abFound[std::size(UNITS)] = {};
    for (std::size_t ulPhase = 0; ulPhase < std::min(ulHave, HEAD_MAX) && uiBest < RUN_SURE; ulPhase++) {
        if (p[ulPhase] != TS_SYNC)
            continue;
        for (std::size_t ulUnit = 0; ulUnit < std::size(UNITS); ulUnit++) {
            const unsigned int uiUnit = UNITS[ulUnit];
            bool bToEnd = false;
            const unsigned int uiRun = countRun(p + ulPhase, ulHave - ulPhase, uiUnit, RUN_SURE, bToEnd);
            const bool bShort = bToEnd && ulHave < TS_PROBE && ulPhase < uiUnit && uiRun >= RUN_SHORT;
            if (uiRun < RUN_MIN && !bShort)
                continue;
            if (!abFound[ulUnit])
                aullFirst[ulUnit] = ulPhase;
            abFound[ulUnit] = true;
            // The unit of the longest run, but from its first run on: damage in the head costs no packets.
            if (uiRun > uiBest) {
                uiBest = uiRun;
                Layout = {uiUnit, aullFirst[ulUnit]};
            }
        }
    }
    return uiBest > 0;
}

void tsCursorOpen(TSCURSOR &Cursor, int iFile, std::size_t ulBuffer, const TSLAYOUT &Layout) {
    Cursor = TSCURSOR{};
    windowOpen(Cursor.Window, iFile, ulBuffer);
    Cursor.uiUnit = Layout.uiUnit;
    Cursor.ullOffset = Layout.ullFirst;
}

int tsCursorNext(TSCURSOR &Cursor, unsigned long long ullLimit, const unsigned char *&pPacket) {
    std::size_t ulHave = 0;
    if (!Cursor.bHunting) {
        pPacket = windowBytes(Cursor.Window, Cursor.ullOffset, TS_PACKET, ulHave);
        if (ulHave < TS_PACKET)
            return MEDIA_END;
        if (*pPacket != TS_SYNC) {
            Cursor.ullLastLoss = Cursor.ullOffset;
            if (Cursor.ullLosses++ == 0)
                Cursor.ullFirstLoss = Cursor.ullOffset;
            Cursor.bHunting = true;
        }
    }
    if (Cursor.bHunting) {
        const int iHunt = huntPacket(Cursor, ullLimit);
        if (iHunt != MEDIA_PACKET)
            return iHunt;
        pPacket = windowBytes(Cursor.Window, Cursor.ullOffset, TS_PACKET, ulHave);
    }
    Cursor.ullOffset += Cursor.uiUnit;
    Cursor.ullPassed++;
    return MEDIA_PACKET;
}

bool tsReadReference(const unsigned char *pPacket, TSREFERENCE &Reference) {
    const bool bDamaged = (pPacket[1] & 0x80) != 0;
    const bool bAdaptation = (pPacket[3] & 0x20) != 0;
    const unsigned int uiAdaptation = pPacket[4];
    Reference.uiPID = (pPacket[1] & 0x1FU) << 8 | pPacket[2];
    if (bDamaged || !bAdaptation || uiAdaptation == 0 || uiAdaptation > 183 || Reference.uiPID == PID_NULL)
        return false;
    Reference.bDiscontinuity = (pPacket[5] & 0x80) != 0;
    Reference.bClock = (pPacket[5] & 0x10) != 0 && uiAdaptation >= 7;
    Reference.ullClock = 0;
    if (Reference.bClock) {
        const unsigned long long ullBase = static_cast<unsigned long long>(pPacket[6]) << 25 |
                                           static_cast<unsigned long long>(pPacket[7]) << 17 |
                                           static_cast<unsigned long long>(pPacket[8]) << 9 |
                                           static_cast<unsigned long long>(pPacket[9]) << 1 |
                                           pPacket[10] >> 7;
        const unsigned int uiExtension = (pPacket[10] & 1U) << 8 | pPacket[11];
        Reference.ullClock = (ullBase * 300 + uiExtension) % TS_CLOCK_WRAP;
    }
    return Reference.bDiscontinuity || Reference.bClock;
}

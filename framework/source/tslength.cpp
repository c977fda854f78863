#include "tslength.h"

#include <algorithm>
#include <cmath>
#include <sys/stat.h>
#include <vector>

namespace {

constexpr std::size_t kBufferSize = std::size_t{64} * 1024;
constexpr unsigned int kParts = 8;                     // of the file, between two places that are read
constexpr unsigned long long kPlaceBytes = 2ULL << 20; // bytes read at a place
constexpr double kUneven = 4; // a part this many times slower than the middle one holds a jump

struct Place {
    unsigned long long ullOffset;
    unsigned long long ullClock;
};

// Finds the first reference from ullFrom on, or the last one before the file's end. Searches kPlaceBytes.
bool findPlace(int iFile, const TsLayout &layout, unsigned int uiPID, unsigned long long ullFrom, bool bLast,
               Place &place) {
    TsCursor cursor;
    tsCursorOpen(cursor, iFile, kBufferSize, layout);
    cursor.ullOffset +=
        (std::max(ullFrom, layout.ullFirst) - layout.ullFirst) / layout.uiUnit * layout.uiUnit;
    const unsigned long long ullLimit = cursor.ullOffset + kPlaceBytes + layout.uiUnit;
    bool bFound = false;
    const unsigned char *pPacket = nullptr;
    while ((bLast || !bFound) && cursor.ullOffset < ullLimit &&
           tsCursorNext(cursor, ullLimit, pPacket) == MEDIA_PACKET) {
        TsReference reference{};
        if (tsReadReference(pPacket, reference) && reference.bClock && reference.uiPID == uiPID) {
            place = {cursor.ullOffset - layout.uiUnit, reference.ullClock};
            bFound = true;
        }
    }
    return bFound;
}

} // namespace

long long tsLengthEstimate(int iFile, const TsLayout &layout, unsigned int uiPID, unsigned long long ullFirst,
                           unsigned long long ullClock) {
    struct stat status {};
    if (fstat(iFile, &status) != 0) {
        return 0;
    }
    const unsigned long long ullSize = static_cast<unsigned long long>(status.st_size);
    std::vector<double> rates; // ticks a byte of each part
    Place last = {ullFirst, ullClock};
    double dTicks = 0;
    for (unsigned int ui = 1; ui <= kParts; ui++) {
        const bool bEnd = ui == kParts;
        const unsigned long long ullFrom =
            bEnd ? ullSize - std::min(ullSize, kPlaceBytes) : ullSize / kParts * ui;
        Place place{};
        if (!findPlace(iFile, layout, uiPID, ullFrom, bEnd, place) || place.ullOffset <= last.ullOffset) {
            if (bEnd) {
                return 0;
            }
            continue;
        }
        const double dPart =
            static_cast<double>((place.ullClock + kTsClockWrap - last.ullClock) % kTsClockWrap);
        rates.push_back(dPart / static_cast<double>(place.ullOffset - last.ullOffset));
        dTicks += dPart;
        last = place;
    }
    const double dSpan = static_cast<double>(last.ullOffset - ullFirst);
    std::sort(rates.begin(), rates.end());
    if (rates.back() > rates[rates.size() / 2] * kUneven) {
        return 0;
    }
    // What lies before the first reference and behind the last one goes at the average rate.
    return std::llround(dTicks * static_cast<double>(ullSize - layout.ullFirst) / dSpan);
}

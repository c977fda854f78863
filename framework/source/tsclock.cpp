#include "tsclock.h"

#include "tspacket.h"

#include <algorithm>
#include <cmath>

namespace {

constexpr double kRateMin = 8.0 * kTsPacketSize * kTsClockHz / 1e9; // ticks a packet at 1 Gbit/s
// The longest interval that needs no further reason, in ticks. The standard allows 100 ms between references,
// but some files exceed that.
constexpr unsigned long long kIntervalPlain = kTsClockHz;
constexpr unsigned long long kIntervalFirst = 5 * kTsClockHz;
constexpr double kInKeeping = 4;               // at most this many times slower is in keeping with the rate
constexpr unsigned long long kAboutAsLong = 8; // at most this many times longer is about as long
constexpr double kRateOnwardMax = 1.0 * kTsClockHz; // without a reference, a packet takes at most a second
constexpr double kOutOfProportion = 8; // a rate this many times slower than the average is dropped

// Returns the rate to continue at where no reference follows.
double rateOnward(const TsClock &clock) {
    const double dRate = std::min(clock.dRate, kRateOnwardMax);
    if (clock.ullSoundPackets == 0) {
        return dRate;
    }
    const double dAverage =
        static_cast<double>(clock.llSoundTicks) / static_cast<double>(clock.ullSoundPackets);
    return dRate > dAverage * kOutOfProportion ? dAverage : dRate;
}

double packetsBetween(unsigned long long ullFrom, unsigned long long ullTo) {
    return static_cast<double>(static_cast<long long>(ullTo - ullFrom));
}

long long ticksOnward(const TsClock &clock, unsigned long long ullPacket) {
    return clock.llFromTicks +
           std::llround(rateOnward(clock) * packetsBetween(clock.ullFromPacket, ullPacket));
}

// Returns whether the interval from the last reference to mark is sound.
bool isMarkSound(const TsClock &clock, const TsMark &mark, unsigned long long ullAfter) {
    return clock.bReference && !mark.bNewBase &&
           tsclockIsSound(tsclockTicks(clock.reference, mark), mark.ullPacket - clock.reference.ullPacket,
                          clock.dRate, clock.ullSpacing, ullAfter);
}

void takeInterval(TsClock &clock, unsigned long long ullTicks, unsigned long long ullPackets) {
    clock.dRate = static_cast<double>(ullTicks) / static_cast<double>(ullPackets);
    clock.ullSoundPackets += ullPackets;
    clock.llSoundTicks += static_cast<long long>(ullTicks);
    clock.ullSpacing = std::max(ullTicks, clock.ullSpacing - clock.ullSpacing / 4);
    clock.ullMostPackets = std::max(clock.ullMostPackets, ullPackets);
}

} // namespace

unsigned long long tsclockTicks(const TsMark &from, const TsMark &to) {
    return (to.ullClock + kTsClockWrap - from.ullClock) % kTsClockWrap;
}

bool tsclockIsSound(unsigned long long ullTicks, unsigned long long ullPackets, double dRate,
                    unsigned long long ullSpacing, unsigned long long ullAfter) {
    if (ullPackets == 0 || ullTicks > kTsIntervalMax) {
        return false;
    }
    const double dThis = static_cast<double>(ullTicks) / static_cast<double>(ullPackets);
    if (dThis < kRateMin) {
        return false;
    }
    const bool bKnown = dRate > 0;
    return ullTicks <= (bKnown ? kIntervalPlain : kIntervalFirst) ||
           (bKnown && dThis <= dRate * kInKeeping) || ullTicks <= ullSpacing * kAboutAsLong ||
           (ullAfter <= kTsIntervalMax && ullTicks <= ullAfter * kAboutAsLong);
}

void tsclockStart(TsClock &clock, double dRate, unsigned long long ullSpacing) {
    clock = TsClock{};
    clock.dRate = dRate;
    clock.ullSpacing = ullSpacing;
}

bool tsclockNeedsNext(TsClock &clock, unsigned long long ullPacket) {
    if (clock.bNext && ullPacket >= clock.ullNextPacket) {
        clock.ullFromPacket = clock.ullNextPacket;
        clock.llFromTicks = clock.llNextTicks;
        clock.bNext = false;
    }
    return !clock.bNext;
}

bool tsclockDoubts(const TsClock &clock, const TsMark &mark) {
    return !isMarkSound(clock, mark, 0) && isMarkSound(clock, mark, kTsIntervalMax);
}

void tsclockNext(TsClock &clock, const TsMark &mark, const TsMark *pAfter, unsigned long long ullAsked) {
    long long llTicks = ticksOnward(clock, mark.ullPacket);
    const long long llAsked = ticksOnward(clock, ullAsked); // as it was given out
    const unsigned long long ullAfter = pAfter && !pAfter->bNewBase ? tsclockTicks(mark, *pAfter) : 0;
    if (isMarkSound(clock, mark, ullAfter)) {
        const unsigned long long ullTicks = tsclockTicks(clock.reference, mark);
        llTicks = clock.llReferenceTicks + static_cast<long long>(ullTicks);
        takeInterval(clock, ullTicks, mark.ullPacket - clock.reference.ullPacket);
    }
    if (ullAsked > clock.ullFromPacket) {
        // The reference was found late. Start the line at the last time given out. Lead it to the
        // reference's time only if that pace is sound.
        clock.ullFromPacket = ullAsked;
        clock.llFromTicks = llAsked;
        const unsigned long long ullRest = static_cast<unsigned long long>(llTicks - llAsked);
        if (!tsclockIsSound(ullRest, mark.ullPacket - ullAsked, clock.dRate, clock.ullSpacing, 0)) {
            llTicks = ticksOnward(clock, mark.ullPacket);
        }
    }
    clock.bNext = true;
    clock.ullNextPacket = mark.ullPacket;
    clock.llNextTicks = std::max(llTicks, clock.llFromTicks);
    clock.bReference = true;
    clock.reference = mark;
    clock.llReferenceTicks = clock.llNextTicks;
}

void tsclockEnd(TsClock &clock, unsigned long long ullEnd, unsigned long long ullAsked) {
    if (clock.bNext || ullAsked > clock.ullFromPacket || ullEnd <= clock.ullFromPacket ||
        ullEnd - clock.ullFromPacket > clock.ullMostPackets) {
        return;
    }
    clock.bNext = true;
    clock.ullNextPacket = ullEnd;
    clock.llNextTicks =
        std::min(ticksOnward(clock, ullEnd), clock.llFromTicks + static_cast<long long>(clock.ullSpacing));
}

long long tsclockDue(const TsClock &clock, unsigned long long ullPacket) {
    if (!clock.bNext) {
        return ticksOnward(clock, ullPacket);
    }
    const double dPart = packetsBetween(clock.ullFromPacket, ullPacket) /
                         std::max(packetsBetween(clock.ullFromPacket, clock.ullNextPacket), 1.0);
    return clock.llFromTicks +
           std::llround(dPart * static_cast<double>(clock.llNextTicks - clock.llFromTicks));
}

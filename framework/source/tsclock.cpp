#include "tsclock.h"

#include "tspacket.h"

#include <algorithm>
#include <cmath>

namespace {

constexpr double kRateMin = 8.0 * kTsPacketSize * kTsClockHz / 1e9; // ticks a packet at 1 Gbit/s
constexpr double kRateMax = 1.0 * kTsClockHz;                       // ticks a packet at one packet a second
// The longest intervals, in ticks. The standard allows 100 ms between references, but some files exceed
// that. A longer interval is a jump, unless it has as many packets as its time needs ("in keeping" with the
// rate).
constexpr unsigned long long kIntervalMax = kTsClockHz;
constexpr unsigned long long kIntervalFirstMax = 5 * kTsClockHz;
constexpr unsigned long long kIntervalInKeepingMax = 60 * kTsClockHz;
constexpr double kInKeeping = 4;       // at most this many times faster or slower is in keeping
constexpr double kOutOfProportion = 8; // a rate this many times slower than the average is dropped

// Returns the rate to continue at where no reference follows.
double rateOnward(const TsClock &clock) {
    if (clock.ullSoundPackets == 0) {
        return clock.dRate;
    }
    const double dAverage =
        static_cast<double>(clock.llSoundTicks) / static_cast<double>(clock.ullSoundPackets);
    return clock.dRate > dAverage * kOutOfProportion ? dAverage : clock.dRate;
}

double packetsBetween(unsigned long long ullFrom, unsigned long long ullTo) {
    return static_cast<double>(static_cast<long long>(ullTo - ullFrom));
}

long long ticksOnward(const TsClock &clock, unsigned long long ullPacket) {
    return clock.llFromTicks +
           std::llround(rateOnward(clock) * packetsBetween(clock.ullFromPacket, ullPacket));
}

} // namespace

bool tsclockIsSound(unsigned long long ullTicks, unsigned long long ullPackets, double dRate) {
    if (ullPackets == 0) {
        return false;
    }
    const double dThis = static_cast<double>(ullTicks) / static_cast<double>(ullPackets);
    if (dThis < kRateMin || dThis > kRateMax) {
        return false;
    }
    if (dRate <= 0) {
        return ullTicks <= kIntervalFirstMax;
    }
    return ullTicks <= kIntervalMax ||
           (ullTicks <= kIntervalInKeepingMax && dThis <= dRate * kInKeeping && dThis >= dRate / kInKeeping);
}

void tsclockStart(TsClock &clock, double dRate) {
    clock = TsClock{};
    clock.dRate = dRate;
}

bool tsclockNeedsNext(TsClock &clock, unsigned long long ullPacket) {
    if (clock.bNext && ullPacket >= clock.ullNextPacket) {
        clock.ullFromPacket = clock.ullNextPacket;
        clock.llFromTicks = clock.llNextTicks;
        clock.bNext = false;
    }
    return !clock.bNext;
}

void tsclockNext(TsClock &clock, unsigned long long ullPacket, unsigned long long ullReference, bool bNewBase,
                 unsigned long long ullAsked) {
    long long llTicks = ticksOnward(clock, ullPacket);
    const long long llAsked = ticksOnward(clock, ullAsked); // as it was given out
    if (clock.bReference && !bNewBase) {
        const unsigned long long ullTicks = (ullReference + kTsClockWrap - clock.ullReference) % kTsClockWrap;
        const unsigned long long ullPackets = ullPacket - clock.ullReferencePacket;
        if (tsclockIsSound(ullTicks, ullPackets, clock.dRate)) {
            llTicks = clock.llReferenceTicks + static_cast<long long>(ullTicks);
            clock.dRate = static_cast<double>(ullTicks) / static_cast<double>(ullPackets);
            clock.ullSoundPackets += ullPackets;
            clock.llSoundTicks += static_cast<long long>(ullTicks);
        }
    }
    if (ullAsked > clock.ullFromPacket) {
        // The reference was found late. Start the line at the last time given out. Lead it to the
        // reference's time only if that pace is sound.
        clock.ullFromPacket = ullAsked;
        clock.llFromTicks = llAsked;
        const unsigned long long ullRest = static_cast<unsigned long long>(llTicks - llAsked);
        if (!tsclockIsSound(ullRest, ullPacket - ullAsked, clock.dRate)) {
            llTicks = ticksOnward(clock, ullPacket);
        }
    }
    clock.bNext = true;
    clock.ullNextPacket = ullPacket;
    clock.llNextTicks = std::max(llTicks, clock.llFromTicks);
    clock.bReference = true;
    clock.ullReference = ullReference;
    clock.ullReferencePacket = ullPacket;
    clock.llReferenceTicks = clock.llNextTicks;
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

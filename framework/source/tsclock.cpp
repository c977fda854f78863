#include "tsclock.h"

#include "tspacket.h"

#include <algorithm>
#include <cmath>

namespace {

constexpr double RATE_MIN = 8.0 * TS_PACKET * TS_CLOCK_HZ / 1e9; // ticks a packet at a gigabit a second
constexpr double RATE_MAX = 1.0 * TS_CLOCK_HZ;                   // and at a packet a second
// The standard allows 100 ms between references, and files break that; what is longer is a jump, unless it
// took as many packets as that time takes.
constexpr unsigned long long INTERVAL_MAX = TS_CLOCK_HZ;
constexpr unsigned long long INTERVAL_FIRST_MAX = 5 * TS_CLOCK_HZ;
constexpr unsigned long long INTERVAL_IN_KEEPING_MAX = 60 * TS_CLOCK_HZ;
constexpr double IN_KEEPING = 4;        // so many times faster or slower
constexpr double OUT_OF_PROPORTION = 8; // a rate so many times slower than the file's is not gone on with

// The rate to go on at where no reference tells.
double rateOnward(const TSCLOCK &Clock) {
    if (Clock.ullSoundPackets == 0)
        return Clock.dRate;
    const double dAverage =
        static_cast<double>(Clock.llSoundTicks) / static_cast<double>(Clock.ullSoundPackets);
    return Clock.dRate > dAverage * OUT_OF_PROPORTION ? dAverage : Clock.dRate;
}

double packetsBetween(unsigned long long ullFrom, unsigned long long ullTo) {
    return static_cast<double>(static_cast<long long>(ullTo - ullFrom));
}

long long ticksOnward(const TSCLOCK &Clock, unsigned long long ullPacket) {
    return Clock.llFromTicks +
           std::llround(rateOnward(Clock) * packetsBetween(Clock.ullFromPacket, ullPacket));
}

} // namespace

bool tsclockIsSound(unsigned long long ullTicks, unsigned long long ullPackets, double dRate) {
    if (ullPackets == 0)
        return false;
    const double dThis = static_cast<double>(ullTicks) / static_cast<double>(ullPackets);
    if (dThis < RATE_MIN || dThis > RATE_MAX)
        return false;
    if (dRate <= 0)
        return ullTicks <= INTERVAL_FIRST_MAX;
    return ullTicks <= INTERVAL_MAX || (ullTicks <= INTERVAL_IN_KEEPING_MAX && dThis <= dRate * IN_KEEPING &&
                                        dThis >= dRate / IN_KEEPING);
}

void tsclockStart(TSCLOCK &Clock, double dRate) {
    Clock = TSCLOCK{};
    Clock.dRate = dRate;
}

bool tsclockNeedsNext(TSCLOCK &Clock, unsigned long long ullPacket) {
    if (Clock.bNext && ullPacket >= Clock.ullNextPacket) {
        Clock.ullFromPacket = Clock.ullNextPacket;
        Clock.llFromTicks = Clock.llNextTicks;
        Clock.bNext = false;
    }
    return !Clock.bNext;
}

void tsclockNext(TSCLOCK &Clock, unsigned long long ullPacket, unsigned long long ullReference, bool bNewBase,
                 unsigned long long ullAsked) {
    long long llTicks = ticksOnward(Clock, ullPacket);
    const long long llAsked = ticksOnward(Clock, ullAsked); // at the rate that it was given out at
    if (Clock.bReference && !bNewBase) {
        const unsigned long long ullTicks =
            (ullReference + TS_CLOCK_WRAP - Clock.ullReference) % TS_CLOCK_WRAP;
        const unsigned long long ullPackets = ullPacket - Clock.ullReferencePacket;
        if (tsclockIsSound(ullTicks, ullPackets, Clock.dRate)) {
            llTicks = Clock.llReferenceTicks + static_cast<long long>(ullTicks);
            Clock.dRate = static_cast<double>(ullTicks) / static_cast<double>(ullPackets);
            Clock.ullSoundPackets += ullPackets;
            Clock.llSoundTicks += static_cast<long long>(ullTicks);
        }
    }
    if (ullAsked > Clock.ullFromPacket) {
        // The reference came into sight late: the line starts where the playout has got to, and leads to the
        // reference's time only at a pace that can be.
        Clock.ullFromPacket = ullAsked;
        Clock.llFromTicks = llAsked;
        const unsigned long long ullRest = static_cast<unsigned long long>(llTicks - llAsked);
        if (!tsclockIsSound(ullRest, ullPacket - ullAsked, Clock.dRate))
            llTicks = ticksOnward(Clock, ullPacket);
    }
    Clock.bNext = true;
    Clock.ullNextPacket = ullPacket;
    Clock.llNextTicks = std::max(llTicks, Clock.llFromTicks);
    Clock.bReference = true;
    Clock.ullReference = ullReference;
    Clock.ullReferencePacket = ullPacket;
    Clock.llReferenceTicks = Clock.llNextTicks;
}

long long tsclockDue(const TSCLOCK &Clock, unsigned long long ullPacket) {
    if (!Clock.bNext)
        return ticksOnward(Clock, ullPacket);
    const double dPart = packetsBetween(Clock.ullFromPacket, ullPacket) /
                         std::max(packetsBetween(Clock.ullFromPacket, Clock.ullNextPacket), 1.0);
    return Clock.llFromTicks +
           std::llround(dPart * static_cast<double>(Clock.llNextTicks - Clock.llFromTicks));
}

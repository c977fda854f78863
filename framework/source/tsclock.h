// tsclock.h - computes when a transport stream's packets are due, from its program clock references.
//
// Used by the transport stream reader, which finds the references. Reads no file and no clock of the
// machine. Packets are numbered from 0; times are ticks of 27 MHz after packet 0. Between two references
// the rate is constant, so a packet's time follows from its place between them. Where the references make
// no sense (a jump, a new time base, none for long), time continues at the rate of the last sound interval.
//
// References that come at least once a second are believed whatever the rate does. Some files have them
// more rarely. A longer interval, up to kTsIntervalMax, is believed if one of these holds:
// - it has as many packets as its time needs at the rate so far, or more;
// - the file's earlier intervals were about as long;
// - the next interval is about as long.
// All else is a jump.
#ifndef FRAMEWORK_TSCLOCK_H
#define FRAMEWORK_TSCLOCK_H

constexpr unsigned long long kTsIntervalMax = 60ULL * 27'000'000; // the longest interval believed, in ticks

// A reference: its value in ticks of 27 MHz (modulo the wrap), and the packet that carries it.
struct TsMark {
    unsigned long long ullPacket = 0;
    unsigned long long ullClock = 0;
    bool bNewBase = false; // begins a new time base: says nothing about the time since the one before
};

struct TsClock {
    double dRate = 0; // ticks a packet in the last sound interval; before the first, the rate to begin with
    // The straight line that gives the packets' times. If bNext, it runs to the next reference.
    unsigned long long ullFromPacket = 0;
    long long llFromTicks = 0;
    unsigned long long ullNextPacket = 0;
    long long llNextTicks = 0;
    bool bNext = false;
    // The last reference, if bReference.
    bool bReference = false;
    TsMark reference;
    long long llReferenceTicks = 0;
    // The sum of all sound intervals. Their average replaces a last rate that is far too slow.
    unsigned long long ullSoundPackets = 0;
    long long llSoundTicks = 0;
    // How long the file's intervals are: the longest sound one, of which each later one takes away a part.
    unsigned long long ullSpacing = 0;
    unsigned long long ullMostPackets = 0; // the most packets that a sound interval had
};

// Returns the ticks between two references, whose values may wrap in between.
unsigned long long tsclockTicks(const TsMark &from, const TsMark &to);

// Returns whether an interval between two references is sound: not faster than a gigabit a second, and no
// longer than the head of this file allows.
// dRate: ticks a packet so far; 0 not known. An interval of up to 5 s is then sound as the first.
// ullSpacing, ullAfter: how many ticks the earlier intervals and the next one have; 0 not known.
bool tsclockIsSound(unsigned long long ullTicks, unsigned long long ullPackets, double dRate,
                    unsigned long long ullSpacing, unsigned long long ullAfter);

// Sets the clock to packet 0 and time 0. dRate: ticks a packet until the first sound interval.
// ullSpacing: ticks of the file's first sound interval.
void tsclockStart(TsClock &clock, double dRate, unsigned long long ullSpacing);

// Returns whether the time of packet ullPacket depends on a reference that tsclockNext has not been given
// yet. Drops the reference that the packet has reached.
bool tsclockNeedsNext(TsClock &clock, unsigned long long ullPacket);

// Returns whether the reference behind mark decides if mark is believed. tsclockNext then needs it.
bool tsclockDoubts(const TsClock &clock, const TsMark &mark);

// Adds the next reference. pAfter: the one behind it; null not known.
// ullAsked: the last packet whose time has been given out. Times given out do not change.
void tsclockNext(TsClock &clock, const TsMark &mark, const TsMark *pAfter, unsigned long long ullAsked);

// Says that the file ends before packet ullEnd, with no reference left. If no more packets are left than an
// interval has, they take no longer than an interval does.
// ullAsked: as above.
void tsclockEnd(TsClock &clock, unsigned long long ullEnd, unsigned long long ullAsked);

// Returns when packet ullPacket is due, in ticks.
long long tsclockDue(const TsClock &clock, unsigned long long ullPacket);

#endif

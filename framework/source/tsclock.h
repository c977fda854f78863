// tsclock.h - computes when a transport stream's packets are due, from its program clock references.
//
// Used by the transport stream reader, which finds the references. Reads no file and no clock of the
// machine. Packets are numbered from 0; times are ticks of 27 MHz after packet 0. Between two references
// the rate is constant, so a packet's time follows from its place between them. Where the references make
// no sense (a jump, a new time base, none for long), time continues at the rate of the last sound interval.
#ifndef FRAMEWORK_TSCLOCK_H
#define FRAMEWORK_TSCLOCK_H

struct TsClock {
    double dRate = 0; // ticks a packet in the last sound interval, 0 before the first
    // The straight line that gives the packets' times. If bNext, it runs to the next reference.
    unsigned long long ullFromPacket = 0;
    long long llFromTicks = 0;
    unsigned long long ullNextPacket = 0;
    long long llNextTicks = 0;
    bool bNext = false;
    // The last reference, if bReference.
    bool bReference = false;
    unsigned long long ullReference = 0;
    unsigned long long ullReferencePacket = 0;
    long long llReferenceTicks = 0;
    // The sum of all sound intervals. Their average replaces a last rate that is far too slow.
    unsigned long long ullSoundPackets = 0;
    long long llSoundTicks = 0;
};

// Returns whether an interval between two references is sound: not backwards, not faster than a gigabit a
// second, not slower than a packet a second, and not longer than a stream goes without a reference.
// ullTicks: its length in ticks of 27 MHz, modulo the wrap. ullPackets: its length in packets.
// dRate: ticks a packet so far, 0 unknown. An interval of about this rate may be longer than others.
bool tsclockIsSound(unsigned long long ullTicks, unsigned long long ullPackets, double dRate);

// Sets the clock to packet 0 and time 0. dRate: ticks a packet in the file's first sound interval.
void tsclockStart(TsClock &clock, double dRate);

// Returns whether the time of packet ullPacket depends on a reference that tsclockNext has not been given
// yet. Drops the reference that the packet has reached.
bool tsclockNeedsNext(TsClock &clock, unsigned long long ullPacket);

// Adds the next reference, ullReference at packet ullPacket.
// bNewBase: it begins a new time base.
// ullAsked: the last packet whose time has been given out. Times given out do not change.
void tsclockNext(TsClock &clock, unsigned long long ullPacket, unsigned long long ullReference, bool bNewBase,
                 unsigned long long ullAsked);

// Returns when packet ullPacket is due, in ticks.
long long tsclockDue(const TsClock &clock, unsigned long long ullPacket);

#endif

// tsclock.h - when a transport stream's packets are due, from its program clock references.
//
// Used by the transport stream reader, which finds the references. No file, no clock of the machine: packets
// are numbered from 0, times are ticks of 27 MHz after packet 0. Between two references the rate is constant,
// so a packet's time follows from its place between them; where the references make no sense (a jump, a new
// time base, none for long) time goes on at the rate of the last sound interval.
#ifndef FRAMEWORK_TSCLOCK_H
#define FRAMEWORK_TSCLOCK_H

struct TsClock {
    double dRate = 0; // ticks a packet, of the last sound interval; 0 before the first
    // The line on which the packets' times are: from one packet to the next reference, where that is known.
    unsigned long long ullFromPacket = 0;
    long long llFromTicks = 0;
    unsigned long long ullNextPacket = 0;
    long long llNextTicks = 0;
    bool bNext = false;
    // The last reference taken in.
    bool bReference = false;
    unsigned long long ullReference = 0;
    unsigned long long ullReferencePacket = 0;
    long long llReferenceTicks = 0;
    // All sound intervals, against a last one that is out of all proportion.
    unsigned long long ullSoundPackets = 0;
    long long llSoundTicks = 0;
};

// Whether ullTicks (27 MHz, modulo the wrap) between two references ullPackets packets apart can be: not
// backwards, not faster than a gigabit nor slower than a packet a second, not longer than a stream goes
// without a reference. dRate: ticks a packet so far, 0 unknown; an interval in keeping with it may be longer.
bool tsclockIsSound(unsigned long long ullTicks, unsigned long long ullPackets, double dRate);

// Sets the clock to packet 0, time 0, and a rate from the file's first sound interval.
void tsclockStart(TsClock &clock, double dRate);

// Returns whether the next reference is needed for packet ullPacket's time; steps over the one that the
// packet has reached.
bool tsclockNeedsNext(TsClock &clock, unsigned long long ullPacket);

// Takes in the next reference, at packet ullPacket. bNewBase: it does not continue the one before it.
// ullAsked: the last packet whose time has been given out; such times stay.
void tsclockNext(TsClock &clock, unsigned long long ullPacket, unsigned long long ullReference, bool bNewBase,
                 unsigned long long ullAsked);

// Returns when packet ullPacket is due, in ticks.
long long tsclockDue(const TsClock &clock, unsigned long long ullPacket);

#endif

// tspacket.h - transport stream packets in a stored file: their layout, their order, their clock references.
//
// Used by the transport stream reader. A file holds packets of 188 bytes, alone or in units of 192 (a time
// stamp of 4 bytes before each) or 204 bytes (16 bytes of error correction behind each), possibly with bytes
// in between that belong to no packet.
#ifndef FRAMEWORK_TSPACKET_H
#define FRAMEWORK_TSPACKET_H

#include "filewindow.h"
#include "mediapacket.h"

constexpr std::size_t kTsPacketSize = 188;
constexpr unsigned char kTsSync = 0x47;
constexpr std::size_t kTsProbeSize = 128 * 1024; // bytes of the file's head in which packets must show
constexpr long long kTsClockHz = 27'000'000;
constexpr unsigned long long kTsClockWrap = (1ULL << 33) * 300;

// Where a file's packets are: the distance between two of them, and the file offset of the first.
struct TsLayout {
    unsigned int uiUnit = 0;
    unsigned long long ullFirst = 0;
};

// Finds the layout by what the head of the file holds. Window: at least kTsProbeSize bytes of buffer.
// Returns false when no run of packets is found.
bool tsFindLayout(FileWindow &window, TsLayout &layout);

// A place in the file that moves from packet to packet. Two cursors of one file pass the same packets.
struct TsCursor {
    FileWindow window;
    unsigned int uiUnit = 0;
    unsigned long long ullOffset = 0;    // file offset of the next packet
    unsigned long long ullPassed = 0;    // packets passed so far
    bool bHunting = false;               // looking for the next packet, byte by byte
    unsigned long long ullLosses = 0;    // how often packets did not follow each other
    unsigned long long ullFirstLoss = 0; // file offset of the first time
    unsigned long long ullLastLoss = 0;  // and of the last time
    unsigned long long ullSkipped = 0;   // bytes that belong to no packet
};

void tsCursorOpen(TsCursor &cursor, int iFile, std::size_t ulBuffer, const TsLayout &layout);

// Steps over the next packet and lends its 188 bytes until the next step. Where no packet follows, the next
// run of packets is looked for, up to the file offset ullLimit in this step. Returns MEDIA_PACKET, MEDIA_END
// (no whole packet follows; Window.iError tells a failed read), MEDIA_BUSY.
int tsCursorNext(TsCursor &cursor, unsigned long long ullLimit, const unsigned char *&pPacket);

// What one packet says about its program's clock.
struct TsReference {
    unsigned int uiPID;
    bool bDiscontinuity;         // the clock is about to start anew
    bool bClock;                 // ullClock holds a reference
    unsigned long long ullClock; // 27 MHz, below kTsClockWrap
};

// Reads the clock reference of a packet. Returns false when there is neither a reference nor a discontinuity.
bool tsReadReference(const unsigned char *pPacket, TsReference &reference);

#endif

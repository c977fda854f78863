// tspacket.h - finds transport stream packets in a stored file, and reads their clock references.
//
// Used by the transport stream reader. A file holds packets of 188 bytes in units of 188, 192 or 204 bytes.
// A unit of 192 has a time stamp of 4 bytes before the packet; a unit of 204 has 16 bytes of error
// correction behind it. There may be bytes in between that belong to no packet.
#ifndef FRAMEWORK_TSPACKET_H
#define FRAMEWORK_TSPACKET_H

#include "filewindow.h"
#include "mediapacket.h"

constexpr std::size_t kTsPacketSize = 188;
constexpr unsigned char kTsSync = 0x47;
constexpr std::size_t kTsProbeSize = std::size_t{128} * 1024; // packets must appear in this head of the file
constexpr long long kTsClockHz = 27'000'000;
constexpr unsigned long long kTsClockWrap = (1ULL << 33) * 300;

// Where a file's packets are: the bytes from one to the next, and the file offset of the first.
struct TsLayout {
    unsigned int uiUnit = 0;
    unsigned long long ullFirst = 0;
};

// Finds the layout from the head of the file. window: has a buffer of at least kTsProbeSize bytes.
// Returns false if there is no run of packets.
bool tsFindLayout(FileWindow &window, TsLayout &layout);

// A place in the file that moves from packet to packet. All cursors of a file meet the same packets.
struct TsCursor {
    FileWindow window;
    unsigned int uiUnit = 0;
    unsigned long long ullOffset = 0;    // file offset of the next packet
    unsigned long long ullPassed = 0;    // packets passed so far
    bool bHunting = false;               // searches for the next packet byte by byte
    unsigned long long ullLosses = 0;    // how often no packet followed the one before
    unsigned long long ullFirstLoss = 0; // file offset of the first loss
    unsigned long long ullLastLoss = 0;  // file offset of the last loss
    unsigned long long ullSkipped = 0;   // bytes that belong to no packet
};

void tsCursorOpen(TsCursor &cursor, int iFile, std::size_t ulBuffer, const TsLayout &layout);

// Moves over the next packet and lends its 188 bytes until the next step. If no packet follows here,
// searches for the next run of packets, in this step as far as the file offset ullLimit.
// Returns MEDIA_PACKET, MEDIA_BUSY, or MEDIA_END if no whole packet follows. After MEDIA_END, window.iError
// is set if a read failed.
int tsCursorNext(TsCursor &cursor, unsigned long long ullLimit, const unsigned char *&pPacket);

// What one packet says about its program's clock.
struct TsReference {
    unsigned int uiPID;
    bool bDiscontinuity;         // the clock starts anew
    bool bClock;                 // ullClock holds a reference
    unsigned long long ullClock; // 27 MHz, below kTsClockWrap
};

// Reads the clock reference of a packet. Returns false if it holds neither a reference nor a discontinuity.
bool tsReadReference(const unsigned char *pPacket, TsReference &reference);

#endif

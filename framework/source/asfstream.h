// asfstream.h - reads a stored ASF file as data packets with due times.
//
// Used by the stream, on the thread that plays it. A packet is due at its send time, counted from the first
// packet's; where send times jump, time goes on at the file's bit rate. The header's counts are not relied
// on: what is played is the data object, or in a file that does not know its size what follows as data
// packets.
#ifndef FRAMEWORK_ASFSTREAM_H
#define FRAMEWORK_ASFSTREAM_H

#include "asffile.h"
#include "mediapacket.h"

struct AsfReader {
    std::string sFile; // for reports
    FileWindow window;
    AsfHeader header;
    unsigned long long ullOffset = 0; // file offset of the next packet
    unsigned long long ullEnd = 0;    // where the packets end
    bool bOpenEnd = false;            // ullEnd is not known: the packets end where none follows
    bool bFirst = true;
    unsigned int uiSendTime = 0; // of the last packet that said one
    long long llDue = 0;         // nanoseconds
    long long llSpacing = 0;     // nanoseconds a packet takes at the file's bit rate
    bool bReported = false;      // a jump has been reported
};

// Reads the header of iFile (borrowed). Returns false and the reason when the file cannot be played.
bool asfReaderStart(AsfReader &reader, int iFile, const char *pszFile, std::string &sReason);

// Hands out the next data packet. Returns MEDIA_PACKET or MEDIA_END.
int asfReaderNext(AsfReader &reader, MediaPacket &packet);

#endif

// asfstream.h - reads a stored ASF file as data packets with due times.
//
// Used by the stream, on the thread that plays it. A packet is due at its send time, counted from the send
// time of the first packet. Where send times jump, time continues at the file's bit rate. The header's
// packet counts are not used. The reader plays the data object to its end; if the file does not know that
// size, it plays for as long as data packets follow. Objects such as an index may follow these.
#ifndef FRAMEWORK_ASFSTREAM_H
#define FRAMEWORK_ASFSTREAM_H

#include "asffile.h"
#include "mediapacket.h"

struct AsfReader {
    std::string sFile; // for reports
    FileWindow window;
    AsfHeader header;
    unsigned long long ullOffset = 0; // file offset of the next packet
    unsigned long long ullEnd = 0;    // file offset of the end of the packets
    bool bOpenEnd = false;            // the end is not known: play as long as packets follow
    bool bFirst = true;               // no send time has been read yet
    unsigned int uiSendTime = 0;      // the last send time that was read, milliseconds
    long long llDue = 0;              // due time of the last packet, nanoseconds
    long long llSpacing = 0;          // nanoseconds a packet takes at the file's bit rate
    bool bReported = false;           // a jump has been reported
};

// Reads the header of iFile (borrowed). Returns false and the reason if the file cannot be played.
bool asfReaderStart(AsfReader &reader, int iFile, const char *pszFile, std::string &sReason);

// Hands out the next data packet. Returns MEDIA_PACKET or MEDIA_END.
int asfReaderNext(AsfReader &reader, MediaPacket &packet);

#endif

// asffile.h - the parts of an ASF file that are looked at: the header's facts and a data packet's send time.
//
// Used by the ASF reader and by the station tool. No state.
#ifndef FRAMEWORK_ASFFILE_H
#define FRAMEWORK_ASFFILE_H

#include "filewindow.h"

constexpr std::size_t kAsfDataHeaderSize = 50;        // bytes of the data object before its first packet
constexpr unsigned long long kAsfHeaderMax = 1 << 20; // bytes of a header object that are believed

struct AsfHeader {
    unsigned long long ullHeaderSize = 0; // the header object, from the file's first byte on
    unsigned long long ullDataOffset = 0; // where the data object begins
    unsigned long long ullDataSize = 0;   // as it says; not to be relied on in a broadcast file
    bool bBroadcast = false;              // the file was recorded as it came: sizes and counts may be 0
    unsigned int uiPacketSize = 0;
    unsigned int uiBitRate = 0; // bits a second at most, 0 not known
};

// Whether the bytes are those of a file that begins with an ASF header.
bool asfRecognises(const unsigned char *pData, std::size_t ulLength);

// Reads what AsfHeader holds. Window: the file, with a buffer of at least 4 KiB. Returns false and the reason
// when the header makes no sense.
bool asfReadHeader(FileWindow &window, AsfHeader &header, std::string &sReason);

// Reads the send time, in milliseconds, of a data packet. Returns false when the bytes are no data packet.
bool asfReadSendTime(const unsigned char *pPacket, std::size_t ulLength, unsigned int &uiSendTime);

#endif

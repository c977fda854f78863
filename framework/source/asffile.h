// asffile.h - reads what is needed of an ASF file: facts of its header, and a data packet's send time.
//
// Used by the ASF reader and by the station tool. No state.
#ifndef FRAMEWORK_ASFFILE_H
#define FRAMEWORK_ASFFILE_H

#include "filewindow.h"

constexpr std::size_t kAsfDataHeaderSize = 50;        // bytes of the data object before its first packet
constexpr unsigned long long kAsfHeaderMax = 1 << 20; // a header object that claims more bytes is refused

struct AsfHeader {
    unsigned long long ullHeaderSize = 0; // bytes of the header object, which begins the file
    unsigned long long ullDataOffset = 0; // file offset of the data object
    unsigned long long ullDataSize = 0;   // what the data object says; may be wrong in a broadcast file
    unsigned long long ullSendTime = 0;   // time in which it is sent, in units of 100 ns; 0 not known
    bool bBroadcast = false;              // recorded from a live broadcast: sizes and counts may be 0
    unsigned int uiPacketSize = 0;
    unsigned int uiBitRate = 0; // highest rate in bits a second, 0 not known
};

// Returns whether a file that begins with these bytes begins with an ASF header.
bool asfRecognises(const unsigned char *pData, std::size_t ulLength);

// Reads the facts of AsfHeader. window: the file, with a buffer of at least 4 KiB.
// Returns false and the reason if the header makes no sense.
bool asfReadHeader(FileWindow &window, AsfHeader &header, std::string &sReason);

// Returns whether the bytes are whole ASF objects, one after the other, to the last byte.
bool asfAreObjects(const unsigned char *pData, std::size_t ulLength);

// Reads the send time of a data packet, in milliseconds. Returns false if the bytes are no data packet.
bool asfReadSendTime(const unsigned char *pPacket, std::size_t ulLength, unsigned int &uiSendTime);

#endif

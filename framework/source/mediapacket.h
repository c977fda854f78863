// mediapacket.h - what the readers of stored files hand to the stream: packets with their due times.
#ifndef FRAMEWORK_MEDIAPACKET_H
#define FRAMEWORK_MEDIAPACKET_H

// How a reader's step ended.
enum MediaStep {
    MEDIA_END = 0,    // every packet has been handed out, or the file cannot be read on (reported)
    MEDIA_PACKET = 1, // one packet was handed out
    MEDIA_BUSY = 2    // the step was ended to keep it short: ask again
};

struct MediaPacket {
    const unsigned char *pData; // the reader's, valid until its next step
    unsigned int uiLength;
    long long llDue; // nanoseconds after the file's first packet; never less than the packet's before it
};

#endif

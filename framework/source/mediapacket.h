// mediapacket.h - what a reader of stored files hands to the stream: packets with due times.
#ifndef FRAMEWORK_MEDIAPACKET_H
#define FRAMEWORK_MEDIAPACKET_H

// Result of one step of a reader.
enum MediaStep {
    MEDIA_END = 0,    // no packet is left, or the file can no longer be read (reported)
    MEDIA_PACKET = 1, // one packet was handed out
    MEDIA_BUSY = 2    // no packet yet; the step ended early to stay short. Ask again
};

struct MediaPacket {
    const unsigned char *pData; // owned by the reader, valid until its next step
    unsigned int uiLength;
    long long llDue; // nanoseconds after the file's first packet; never earlier than the packet before
};

#endif

// ktpacket.h - the item packet: a run of tagged values, built item by item, read in place.
//
// On the wire an item is tag (16 bits), length (16 bits), value; a value of 65535 bytes or more has FFFF in
// the length field and a 32-bit length behind it. Little-endian, no header, count or terminator of its own.
// A packet and its buffer belong to one thread.
#ifndef PCCAST_KTPACKET_H
#define PCCAST_KTPACKET_H

extern "C" {

typedef struct KTPacketItem {
    unsigned short usTag;
    unsigned long ulLength;     // bytes of the value
    unsigned char *pValue;      // building: an owned copy; reading: inside the received buffer
    struct KTPacketItem *pNext; // building: the next item; reading: the first byte after this item
} KTPacketItem;

typedef struct KTPacket {
    unsigned long ulSize; // bytes that KTPacketBuild will lay out
    KTPacketItem *pHead;
    KTPacketItem *pTail;
} KTPacket;

void KTPacketInit(KTPacket *pPacket);

// Adds an item with a copy of ulLength bytes: after the last one when iAppend is not 0, else before the
// first. Returns the new ulSize; 0 packet or value missing; -1 no memory, or a packet whose size no longer
// fits the result. Nothing is added unless the result is positive.
int KTPacketInsertItem(KTPacket *pPacket, int iAppend, unsigned short usTag, unsigned long ulLength,
                       const void *pValue);

// Lays the items out in a new buffer in *ppBuffer, which the caller releases with free. The items stay.
// Returns the bytes laid out; 0 no packet or nothing in it (*ppBuffer untouched), or no memory (*ppBuffer
// null).
int KTPacketBuild(KTPacket *pPacket, unsigned char **ppBuffer);

// Releases the items; the packet needs KTPacketInit before it is used again. Returns 0.
int KTPacketCleanUp(KTPacket *pPacket);

// Reads the item at pData, unchecked: the caller knows that a whole item is there. Returns its whole size.
int KTPacketGetAnItem(const unsigned char *pData, KTPacketItem *pItem);

unsigned short ktpacketGetWORD(const unsigned char *pValue);
unsigned int ktpacketGetDWORD(const unsigned char *pValue);
}

// Reads the item at *pulOffset of ulTotal received bytes if it lies whole within them, and moves the offset
// behind it. False at the end, and at an item that does not fit: a reader's walk stops there.
bool ktpacketNextItem(const unsigned char *pData, unsigned long ulTotal, unsigned long *pulOffset,
                      KTPacketItem *pItem);

#endif

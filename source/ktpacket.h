// ktpacket.h - the item packet: a row of tagged values. It is built item by item and read in place.
//
// On the wire an item is tag (16 bits), length (16 bits), value. For a value of 65535 bytes or more, the
// length field holds FFFF and a 32-bit length follows it. All numbers are little-endian. A packet has no
// header, count or terminator of its own. The engines and the request modules use it. A packet and its buffer
// belong to one thread.
#ifndef PCCAST_KTPACKET_H
#define PCCAST_KTPACKET_H

extern "C" {

typedef struct KTPacketItem {
    unsigned short usTag;
    unsigned long ulLength; // bytes of the value
    // Building: a copy that the item owns. Reading: points into the received buffer.
    unsigned char *pValue;
    // Building: the next item. Reading: the first byte behind this item.
    struct KTPacketItem *pNext;
} KTPacketItem;

typedef struct KTPacket {
    unsigned long ulSize; // bytes that KTPacketBuild will lay out
    KTPacketItem *pHead;
    KTPacketItem *pTail;
} KTPacket;

// Makes the packet empty. Does not release items.
void KTPacketInit(KTPacket *pPacket);

// Adds an item with a copy of ulLength bytes at pValue. iAppend 0 puts it before the first item, any other
// value behind the last item. Adds nothing unless the result is positive.
// Returns the new ulSize; 0 no packet or no value; -1 no memory, or the new size would not fit an int.
int KTPacketInsertItem(KTPacket *pPacket, int iAppend, unsigned short usTag, unsigned long ulLength,
                       const void *pValue);

// Lays the items out in a new buffer, *ppBuffer. The caller releases it with free. The items stay.
// Returns the number of bytes; 0 no packet, no ppBuffer or no items (*ppBuffer keeps its value), or no memory
// (*ppBuffer is null).
int KTPacketBuild(KTPacket *pPacket, unsigned char **ppBuffer);

// Releases the items. Call KTPacketInit before you use the packet again. Returns 0.
int KTPacketCleanUp(KTPacket *pPacket);

// Reads the item at pData without a check: the caller knows that a whole item is there. Returns the item's
// size in bytes, with tag and length.
int KTPacketGetAnItem(const unsigned char *pData, KTPacketItem *pItem);

// Read a little-endian number of 16 or 32 bits.
unsigned short ktpacketGetWORD(const unsigned char *pValue);
unsigned int ktpacketGetDWORD(const unsigned char *pValue);
}

// Reads the item at offset *pulOffset of ulTotal received bytes and moves the offset behind it. Returns false
// at the end, and at an item that reaches beyond the end. A reader stops there.
bool ktpacketNextItem(const unsigned char *pData, unsigned long ulTotal, unsigned long *pulOffset,
                      KTPacketItem *pItem);

#endif

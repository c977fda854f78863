// Builds and reads item packets. The contracts stand in ktpacket.h.
#include "ktpacket.h"

#include <climits>
#include <cstdlib>
#include <cstring>

namespace {

constexpr unsigned long kShortHeader = 4; // tag, 16-bit length
constexpr unsigned long kLongHeader = 8;  // tag, marker, 32-bit length
constexpr unsigned kLongMarker = 0xFFFF;  // in the 16-bit length field
constexpr unsigned long kShortMax = 0xFFFE;

unsigned long headerSize(unsigned long ulLength) {
    return ulLength <= kShortMax ? kShortHeader : kLongHeader;
}

unsigned char *put(unsigned char *pOut, unsigned long ulValue, int iBytes) {
    for (int i = 0; i < iBytes; ++i) {
        *pOut++ = static_cast<unsigned char>(ulValue >> (8 * i));
    }
    return pOut;
}

} // namespace

void KTPacketInit(KTPacket *pPacket) {
    if (pPacket != nullptr) {
        *pPacket = KTPacket{};
    }
}

int KTPacketInsertItem(KTPacket *pPacket, int iAppend, unsigned short usTag, unsigned long ulLength,
                       const void *pValue) {
    if (pPacket == nullptr || pValue == nullptr) {
        return 0;
    }
    // The result is the packet's new size. So the packet may not grow beyond an int.
    if (ulLength > INT_MAX - kLongHeader || pPacket->ulSize + headerSize(ulLength) + ulLength > INT_MAX) {
        return -1;
    }
    auto *pItem = static_cast<KTPacketItem *>(std::calloc(1, sizeof(KTPacketItem)));
    auto *pCopy = static_cast<unsigned char *>(std::malloc(ulLength > 0 ? ulLength : 1));
    if (pItem == nullptr || pCopy == nullptr) {
        std::free(pItem);
        std::free(pCopy);
        return -1;
    }
    std::memcpy(pCopy, pValue, ulLength);
    *pItem = KTPacketItem{usTag, ulLength, pCopy, nullptr};

    if (pPacket->pHead == nullptr) {
        pPacket->pHead = pPacket->pTail = pItem;
    } else if (iAppend != 0) {
        pPacket->pTail->pNext = pItem;
        pPacket->pTail = pItem;
    } else {
        pItem->pNext = pPacket->pHead;
        pPacket->pHead = pItem;
    }
    pPacket->ulSize += headerSize(ulLength) + ulLength;
    return static_cast<int>(pPacket->ulSize);
}

int KTPacketBuild(KTPacket *pPacket, unsigned char **ppBuffer) {
    if (pPacket == nullptr || ppBuffer == nullptr || pPacket->ulSize == 0) {
        return 0;
    }
    *ppBuffer = static_cast<unsigned char *>(std::malloc(pPacket->ulSize));
    if (*ppBuffer == nullptr) {
        return 0;
    }
    unsigned char *pOut = *ppBuffer;
    for (const KTPacketItem *pItem = pPacket->pHead; pItem != nullptr; pItem = pItem->pNext) {
        pOut = put(pOut, pItem->usTag, 2);
        if (headerSize(pItem->ulLength) == kShortHeader) {
            pOut = put(pOut, pItem->ulLength, 2);
        } else {
            pOut = put(pOut, kLongMarker, 2);
            pOut = put(pOut, pItem->ulLength, 4);
        }
        std::memcpy(pOut, pItem->pValue, pItem->ulLength);
        pOut += pItem->ulLength;
    }
    return static_cast<int>(pOut - *ppBuffer);
}

int KTPacketCleanUp(KTPacket *pPacket) {
    if (pPacket == nullptr) {
        return 0;
    }
    for (KTPacketItem *pItem = pPacket->pHead; pItem != nullptr;) {
        KTPacketItem *pNext = pItem->pNext;
        std::free(pItem->pValue);
        std::free(pItem);
        pItem = pNext;
    }
    return 0;
}

int KTPacketGetAnItem(const unsigned char *pData, KTPacketItem *pItem) {
    unsigned long ulHeader = kShortHeader;
    pItem->usTag = ktpacketGetWORD(pData);
    pItem->ulLength = ktpacketGetWORD(pData + 2);
    if (pItem->ulLength == kLongMarker) {
        pItem->ulLength = ktpacketGetDWORD(pData + 4);
        ulHeader = kLongHeader;
    }
    // Nobody writes through the fields of an item that was read. So the cast does no harm.
    pItem->pValue = const_cast<unsigned char *>(pData) + ulHeader;
    pItem->pNext = reinterpret_cast<KTPacketItem *>(pItem->pValue + pItem->ulLength);
    return static_cast<int>(ulHeader + pItem->ulLength);
}

unsigned short ktpacketGetWORD(const unsigned char *pValue) {
    return static_cast<unsigned short>(pValue[0] | pValue[1] << 8);
}

unsigned int ktpacketGetDWORD(const unsigned char *pValue) {
    return ktpacketGetWORD(pValue) | static_cast<unsigned int>(ktpacketGetWORD(pValue + 2)) << 16;
}

bool ktpacketNextItem(const unsigned char *pData, unsigned long ulTotal, unsigned long *pulOffset,
                      KTPacketItem *pItem) {
    const unsigned long ulLeft = ulTotal - *pulOffset;
    const unsigned char *pHere = pData + *pulOffset;
    if (ulLeft < kShortHeader || (ktpacketGetWORD(pHere + 2) == kLongMarker && ulLeft < kLongHeader)) {
        return false;
    }
    KTPacketGetAnItem(pHere, pItem);
    const auto ulHeader = static_cast<unsigned long>(pItem->pValue - pHere);
    if (pItem->ulLength > ulLeft - ulHeader) {
        return false;
    }
    *pulOffset += ulHeader + pItem->ulLength;
    return true;
}

#include "asffile.h"

#include <cstring>

namespace {

using Guid = unsigned char[16];

constexpr Guid kGuidHeader = {0x30, 0x26, 0xB2, 0x75, 0x8E, 0x66, 0xCF, 0x11,
                              0xA6, 0xD9, 0x00, 0xAA, 0x00, 0x62, 0xCE, 0x6C};
constexpr Guid kGuidData = {0x36, 0x26, 0xB2, 0x75, 0x8E, 0x66, 0xCF, 0x11,
                            0xA6, 0xD9, 0x00, 0xAA, 0x00, 0x62, 0xCE, 0x6C};
constexpr Guid kGuidFileProperties = {0xA1, 0xDC, 0xAB, 0x8C, 0x47, 0xA9, 0xCF, 0x11,
                                      0x8E, 0xE4, 0x00, 0xC0, 0x0C, 0x20, 0x53, 0x65};

constexpr std::size_t kObjectHeaderSize = 24;    // GUID and size
constexpr std::size_t kFixedHeaderSize = 30;     // bytes of the header object before its first sub-object
constexpr std::size_t kFilePropertiesSize = 104; // the object's whole size
constexpr unsigned int kPacketMin = 16;          // a smaller packet has no room for its own fields
constexpr unsigned int kPacketMax = 65536;
constexpr unsigned int kObjectsMax = 64; // objects between header and data that are skipped

unsigned long long little(const unsigned char *p, unsigned int uiBytes) {
    unsigned long long ullValue = 0;
    for (unsigned int ui = uiBytes; ui > 0; ui--) {
        ullValue = ullValue << 8 | p[ui - 1];
    }
    return ullValue;
}

bool readFileProperties(const unsigned char *p, AsfHeader &header, std::string &sReason) {
    const unsigned long long ullLeast = little(p + 92, 4);
    const unsigned long long ullMost = little(p + 96, 4);
    header.bBroadcast = (p[88] & 1) != 0;
    header.ullSendTime = header.bBroadcast ? 0 : little(p + 72, 8);
    header.uiBitRate = static_cast<unsigned int>(little(p + 100, 4));
    header.uiPacketSize = static_cast<unsigned int>(ullMost);
    if (ullLeast == ullMost && ullMost >= kPacketMin && ullMost <= kPacketMax) {
        return true;
    }
    sReason = "its header names packets of " + std::to_string(ullLeast) + " to " + std::to_string(ullMost) +
              " bytes; one size of " + std::to_string(kPacketMin) + " to " + std::to_string(kPacketMax) +
              " is needed";
    return false;
}

// Moves ulAt behind a field. The two bits of uiType give the field's length: 0, 1, 2 or 4 bytes.
// Returns false if the packet ends before the field does.
bool skipTyped(unsigned int uiType, std::size_t ulLength, std::size_t &ulAt) {
    constexpr std::size_t kFieldSizes[] = {0, 1, 2, 4};
    ulAt += kFieldSizes[uiType & 3];
    return ulAt <= ulLength;
}

} // namespace

bool asfRecognises(const unsigned char *pData, std::size_t ulLength) {
    return ulLength >= sizeof kGuidHeader && std::memcmp(pData, kGuidHeader, sizeof kGuidHeader) == 0;
}

bool asfReadHeader(FileWindow &window, AsfHeader &header, std::string &sReason) {
    header = AsfHeader{};
    std::size_t ulHave = 0;
    const unsigned char *p = windowBytes(window, 0, kFixedHeaderSize, ulHave);
    if (!asfRecognises(p, ulHave) || ulHave < kFixedHeaderSize) {
        sReason = "it does not begin with an ASF header";
        return false;
    }
    header.ullHeaderSize = little(p + 16, 8);
    if (header.ullHeaderSize < kFixedHeaderSize || header.ullHeaderSize > kAsfHeaderMax) {
        sReason = "its header says that it is " + std::to_string(header.ullHeaderSize) + " bytes long";
        return false;
    }

    // Walk the sub-objects. Each is at least as long as its own header, so the walk always ends.
    bool bFound = false;
    unsigned long long ullAt = kFixedHeaderSize;
    while (!bFound && ullAt + kObjectHeaderSize <= header.ullHeaderSize) {
        p = windowBytes(window, ullAt, kFilePropertiesSize, ulHave);
        if (ulHave < kObjectHeaderSize) {
            break;
        }
        const unsigned long long ullSize = little(p + 16, 8);
        if (ullSize < kObjectHeaderSize || ullSize > header.ullHeaderSize - ullAt) {
            sReason = "an object of its header, at byte " + std::to_string(ullAt) + ", says that it is " +
                      std::to_string(ullSize) + " bytes long";
            return false;
        }
        bFound = std::memcmp(p, kGuidFileProperties, sizeof(Guid)) == 0 && ullSize >= kFilePropertiesSize &&
                 ulHave >= kFilePropertiesSize;
        if (bFound && !readFileProperties(p, header, sReason)) {
            return false;
        }
        ullAt += ullSize;
    }
    if (!bFound) {
        sReason = "its header has no file properties object";
        return false;
    }

    ullAt = header.ullHeaderSize;
    for (unsigned int ui = 0; ui < kObjectsMax; ui++) {
        p = windowBytes(window, ullAt, kAsfDataHeaderSize, ulHave);
        if (ulHave < kObjectHeaderSize) {
            break;
        }
        const unsigned long long ullSize = little(p + 16, 8);
        if (std::memcmp(p, kGuidData, sizeof(Guid)) == 0 && ulHave >= kAsfDataHeaderSize) {
            header.ullDataOffset = ullAt;
            header.ullDataSize = ullSize;
            return true;
        }
        if (ullSize < kObjectHeaderSize || ullSize > (1ULL << 62) || ullAt > (1ULL << 62)) {
            break;
        }
        ullAt += ullSize;
    }
    sReason = "no data object follows its header";
    return false;
}

bool asfAreObjects(const unsigned char *pData, std::size_t ulLength) {
    while (ulLength >= kObjectHeaderSize) {
        const unsigned long long ullSize = little(pData + 16, 8);
        if (ullSize < kObjectHeaderSize || ullSize > ulLength) {
            return false;
        }
        pData += ullSize;
        ulLength -= static_cast<std::size_t>(ullSize);
    }
    return ulLength == 0;
}

bool asfReadSendTime(const unsigned char *pPacket, std::size_t ulLength, unsigned int &uiSendTime) {
    std::size_t ulAt = 0;
    if (ulLength < kPacketMin) {
        return false;
    }
    if (pPacket[0] & 0x80) {
        // Error correction data comes first, with its length in the low nibble. The bits above it must be
        // 0: they mean another type of length, or a packet of error correction alone.
        if ((pPacket[0] & 0x70) != 0) {
            return false;
        }
        ulAt = 1 + (pPacket[0] & 0x0FU);
    }
    if (ulAt + 2 > ulLength) {
        return false;
    }
    const unsigned int uiTypes = pPacket[ulAt];
    ulAt += 2;
    for (const unsigned int uiShift : {5U, 1U, 3U}) { // packet length, sequence, padding length
        if (!skipTyped(uiTypes >> uiShift, ulLength, ulAt)) {
            return false;
        }
    }
    if (ulAt + 6 > ulLength) { // send time and duration
        return false;
    }
    uiSendTime = static_cast<unsigned int>(little(pPacket + ulAt, 4));
    return true;
}

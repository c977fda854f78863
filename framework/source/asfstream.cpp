#include "asfstream.h"

#include "report.h"

#include <algorithm>
#include <cstring>
#include <limits>

namespace {

constexpr std::size_t kBufferSize = std::size_t{128} * 1024; // two packets of the largest size
constexpr long long kMillisecond = 1'000'000;
constexpr long long kStepMax = 30'000 * kMillisecond; // a longer step between two packets is a jump
constexpr long long kBackMax = 1'000 * kMillisecond;  // a longer step back is a jump too
constexpr unsigned int kBitRateUnknown = 1'000'000;

long long spacing(const AsfHeader &header) {
    const long long llBitRate = header.uiBitRate > 0 ? header.uiBitRate : kBitRateUnknown;
    return std::min(header.uiPacketSize * 8'000'000'000LL / llBitRate, 1'000 * kMillisecond);
}

// Moves the reader's due time on to the next packet's. bTime: uiSendTime was read from the packet.
void takeTime(AsfReader &reader, bool bTime, unsigned int uiSendTime) {
    if (!bTime) { // a damaged packet goes out in its place
        reader.llDue += reader.bFirst ? 0 : reader.llSpacing;
        return;
    }
    const long long llStep = static_cast<int>(uiSendTime - reader.uiSendTime) * kMillisecond;
    const bool bFirst = reader.bFirst;
    reader.bFirst = false;
    if (!bFirst && llStep < 0 && llStep >= -kBackMax) {
        return;
    }
    if (!bFirst && (llStep < 0 || llStep > kStepMax)) {
        if (!reader.bReported) {
            frameworkReport("stream", "%s: send times jump from %u to %u ms: going on at the file's bit rate",
                            reader.sFile.c_str(), reader.uiSendTime, uiSendTime);
        }
        reader.bReported = true;
        reader.llDue += reader.llSpacing;
    } else if (!bFirst) {
        reader.llDue += llStep;
    }
    reader.uiSendTime = uiSendTime;
}

// pRest: the ulRest bytes that are no packet, at most a packet's size of them.
void reportEnd(const AsfReader &reader, const unsigned char *pRest, std::size_t ulRest) {
    if (reader.window.iError != 0) {
        frameworkReport("stream", "%s: cannot be read on at byte %llu: %s: the playout ends here",
                        reader.sFile.c_str(), reader.ullOffset, std::strerror(reader.window.iError));
    } else if (reader.bOpenEnd ? ulRest < reader.header.uiPacketSize && !asfAreObjects(pRest, ulRest)
                               : reader.ullOffset < reader.ullEnd) {
        frameworkReport("stream",
                        "%s: its packets end at byte %llu, before its data does: the playout ends here",
                        reader.sFile.c_str(), reader.ullOffset);
    }
}

} // namespace

bool asfReaderStart(AsfReader &reader, int iFile, const char *pszFile, std::string &sReason) {
    reader = AsfReader{};
    reader.sFile = pszFile;
    windowOpen(reader.window, iFile, kBufferSize);
    if (!asfReadHeader(reader.window, reader.header, sReason)) {
        if (reader.window.iError != 0) {
            sReason = std::string("it cannot be read: ") + std::strerror(reader.window.iError);
        }
        return false;
    }
    const AsfHeader &header = reader.header;
    reader.ullOffset = header.ullDataOffset + kAsfDataHeaderSize;
    reader.bOpenEnd = header.bBroadcast || header.ullDataSize < kAsfDataHeaderSize + header.uiPacketSize;
    reader.ullEnd = std::numeric_limits<unsigned long long>::max();
    if (!reader.bOpenEnd && header.ullDataSize < reader.ullEnd - header.ullDataOffset) {
        reader.ullEnd = header.ullDataOffset + header.ullDataSize;
    }
    reader.llSpacing = spacing(header);
    return true;
}

int asfReaderNext(AsfReader &reader, MediaPacket &packet) {
    const unsigned int uiSize = reader.header.uiPacketSize;
    if (reader.ullEnd - reader.ullOffset < uiSize) {
        return MEDIA_END;
    }
    std::size_t ulHave = 0;
    const unsigned char *p = windowBytes(reader.window, reader.ullOffset, uiSize, ulHave);
    unsigned int uiSendTime = 0;
    const bool bTime = ulHave >= uiSize && asfReadSendTime(p, uiSize, uiSendTime);
    if (ulHave < uiSize || (reader.bOpenEnd && !bTime)) {
        reportEnd(reader, p, ulHave);
        return MEDIA_END;
    }
    takeTime(reader, bTime, uiSendTime);
    reader.ullOffset += uiSize;
    packet = {p, uiSize, reader.llDue};
    return MEDIA_PACKET;
}

#include "asfstream.h"

#include "report.h"

#include <algorithm>
#include <cstring>
#include <limits>

namespace {

constexpr std::size_t BUFFER = 128 * 1024; // two packets of the largest size
constexpr long long MILLISECOND = 1'000'000;
constexpr long long STEP_MAX = 30'000 * MILLISECOND; // between packets; what is longer is a jump
constexpr long long BACK_MAX = 1'000 * MILLISECOND;  // packets somewhat out of order; what is more is a jump
constexpr unsigned int BIT_RATE_UNKNOWN = 1'000'000;

long long spacing(const ASFHEADER &Header) {
    const long long llBitRate = Header.uiBitRate > 0 ? Header.uiBitRate : BIT_RATE_UNKNOWN;
    return std::min(Header.uiPacketSize * 8'000'000'000LL / llBitRate, 1'000 * MILLISECOND);
}

// Moves the reader's time on to a packet's.
void takeTime(ASFREADER &Reader, bool bTime, unsigned int uiSendTime) {
    if (!bTime) { // damaged: it goes where it stands
        Reader.llDue += Reader.bFirst ? 0 : Reader.llSpacing;
        return;
    }
    const long long llStep = static_cast<int>(uiSendTime - Reader.uiSendTime) * MILLISECOND;
    const bool bFirst = Reader.bFirst;
    Reader.bFirst = false;
    if (!bFirst && llStep < 0 && llStep >= -BACK_MAX)
        return;
    if (!bFirst && (llStep < 0 || llStep > STEP_MAX)) {
        if (!Reader.bReported)
            frameworkReport("stream", "%s: send times jump from %u to %u ms: going on at the file's bit rate",
                            Reader.sFile.c_str(), Reader.uiSendTime, uiSendTime);
        Reader.bReported = true;
        Reader.llDue += Reader.llSpacing;
    } else if (!bFirst) {
        Reader.llDue += llStep;
    }
    Reader.uiSendTime = uiSendTime;
}

void reportEnd(const ASFREADER &Reader, std::size_t ulRest) {
    if (Reader.Window.iError != 0)
        frameworkReport("stream", "%s: cannot be read on at byte %llu: %s: the playout ends here",
                        Reader.sFile.c_str(), Reader.ullOffset, std::strerror(Reader.Window.iError));
    else if (Reader.bOpenEnd ? ulRest > 0 && ulRest < Reader.Header.uiPacketSize
                             : Reader.ullOffset < Reader.ullEnd)
        frameworkReport("stream",
                        "%s: its packets end at byte %llu, before its data does: the playout ends here",
                        Reader.sFile.c_str(), Reader.ullOffset);
}

} // namespace

bool asfReaderStart(ASFREADER &Reader, int iFile, const char *pszFile, std::string &sReason) {
    Reader = ASFREADER{};
    Reader.sFile = pszFile;
    windowOpen(Reader.Window, iFile, BUFFER);
    if (!asfReadHeader(Reader.Window, Reader.Header, sReason)) {
        if (Reader.Window.iError != 0)
            sReason = std::string("it cannot be read: ") + std::strerror(Reader.Window.iError);
        return false;
    }
    const ASFHEADER &Header = Reader.Header;
    Reader.ullOffset = Header.ullDataOffset + ASF_DATA_HEADER;
    Reader.bOpenEnd = Header.bBroadcast || Header.ullDataSize < ASF_DATA_HEADER + Header.uiPacketSize;
    Reader.ullEnd = std::numeric_limits<unsigned long long>::max();
    if (!Reader.bOpenEnd && Header.ullDataSize < Reader.ullEnd - Header.ullDataOffset)
        Reader.ullEnd = Header.ullDataOffset + Header.ullDataSize;
    Reader.llSpacing = spacing(Header);
    return true;
}

int asfReaderNext(ASFREADER &Reader, MEDIAPACKET &Packet) {
    const unsigned int uiSize = Reader.Header.uiPacketSize;
    if (Reader.ullEnd - Reader.ullOffset < uiSize)
        return MEDIA_END;
    std::size_t ulHave = 0;
    const unsigned char *p = windowBytes(Reader.Window, Reader.ullOffset, uiSize, ulHave);
    unsigned int uiSendTime = 0;
    const bool bTime = ulHave >= uiSize && asfReadSendTime(p, uiSize, uiSendTime);
    if (ulHave < uiSize || (Reader.bOpenEnd && !bTime)) {
        reportEnd(Reader, ulHave);
        return MEDIA_END;
    }
    takeTime(Reader, bTime, uiSendTime);
    Reader.ullOffset += uiSize;
    Packet = {p, uiSize, Reader.llDue};
    return MEDIA_PACKET;
}

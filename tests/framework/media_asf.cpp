// ASF files: which data packets come out, when they are due, and which headers are refused.
#include "asfstream.h"
#include "media_files.h"

#include <functional>

namespace {

constexpr unsigned int PACKET = 100;

std::string bytes(std::initializer_list<int> Values) {
    std::string sBytes;
    for (const int iValue : Values)
        sBytes += static_cast<char>(iValue);
    return sBytes;
}

const std::string GUID_TAIL = bytes({0x8E, 0x66, 0xCF, 0x11, 0xA6, 0xD9, 0x00, 0xAA, 0x00, 0x62, 0xCE, 0x6C});
const std::string GUID_HEADER = bytes({0x30, 0x26, 0xB2, 0x75}) + GUID_TAIL;
const std::string GUID_DATA = bytes({0x36, 0x26, 0xB2, 0x75}) + GUID_TAIL;
const std::string GUID_PROPERTIES =
    bytes({0xA1, 0xDC, 0xAB, 0x8C, 0x47, 0xA9, 0xCF, 0x11, 0x8E, 0xE4, 0x00, 0xC0, 0x0C, 0x20, 0x53, 0x65});
const std::string GUID_INDEX =
    bytes({0x90, 0x08, 0x00, 0x33, 0xB1, 0xE5, 0xCF, 0x11, 0x89, 0xF4, 0x00, 0xA0, 0xC9, 0x03, 0x49, 0xCB});

// Where a header's facts can lie.
struct HEADERFACTS {
    unsigned long long ullHeaderSize = 30 + 40 + 104;
    unsigned long long ullOtherSize = 40; // of the object before the file properties
    unsigned long long ullDataSize = 0;   // 0: what it is
    unsigned long long ullCount = 0;
    unsigned int uiFlags = 2;
    unsigned int uiLeast = PACKET;
    unsigned int uiMost = PACKET;
    unsigned int uiBitRate = 80'000; // 10 ms a packet
    std::string sProperties = GUID_PROPERTIES;
    std::string sData = GUID_DATA;
};

std::string headerBytes(const HEADERFACTS &Facts, std::size_t ulPackets) {
    std::string sFile = GUID_HEADER;
    appendLittle(sFile, Facts.ullHeaderSize, 8);
    appendLittle(sFile, 2, 4);
    appendLittle(sFile, 0x0201, 2);
    sFile += std::string(16, 'o');
    appendLittle(sFile, Facts.ullOtherSize, 8);
    sFile += std::string(16, 'o') + Facts.sProperties;
    appendLittle(sFile, 104, 8);
    sFile += std::string(64, '\0');
    appendLittle(sFile, Facts.uiFlags, 4);
    appendLittle(sFile, Facts.uiLeast, 4);
    appendLittle(sFile, Facts.uiMost, 4);
    appendLittle(sFile, Facts.uiBitRate, 4);
    sFile += Facts.sData;
    appendLittle(sFile, Facts.ullDataSize == 0 ? 50 + ulPackets * PACKET : Facts.ullDataSize, 8);
    sFile += std::string(16, 'f');
    appendLittle(sFile, Facts.ullCount, 8);
    appendLittle(sFile, 0x0101, 2);
    return sFile;
}

// A data packet with error correction, a word of padding length and no packet length, or with all lengths.
std::string packetBytes(unsigned int uiSendTime, std::size_t ulNumber) {
    std::string sPacket = bytes({0x82, 0, 0, 0x10, 0x5D, 0, 0});
    if (ulNumber % 3 == 1)
        sPacket = bytes({0x7E, 0x5D, PACKET, 0, 0, 0, 9, 9, 9, 9, 0, 0, 0, 0});
    if (ulNumber % 3 == 2)
        sPacket = bytes({0x00, 0x5D});
    appendLittle(sPacket, uiSendTime, 4);
    appendLittle(sPacket, 40, 2);
    sPacket.resize(PACKET, static_cast<char>('A' + ulNumber % 26));
    return sPacket;
}

std::string packetsBytes(const std::vector<unsigned int> &SendTimes) {
    std::string sBytes;
    for (std::size_t ul = 0; ul < SendTimes.size(); ul++)
        sBytes += packetBytes(SendTimes[ul], ul);
    return sBytes;
}

DRAINED play(const std::string &sFile) {
    const MEMORYFILE File(sFile);
    ASFREADER Reader;
    std::string sReason;
    EXPECT_TRUE(asfReaderStart(Reader, File.iFile, "file.asf", sReason)) << sReason;
    return drain(Reader, asfReaderNext);
}

} // namespace

TEST(MediaAsf, PacketsAreDueAtTheirSendTimesWhateverThoseSay) {
    constexpr unsigned int HOUR = 3'600'000;
    const struct {
        const char *pszWhat;
        std::vector<unsigned int> SendTimes;
        std::vector<double> DueMs;
    } aCase[] = {
        {"from the first packet's send time", {3000, 3000, 3040, 3120}, {0, 0, 40, 120}},
        {"32-bit wrap", {0xFFFFFFF0, 0xFFFFFFF8, 8}, {0, 8, 24}},
        {"jump forward goes on at the bit rate", {0, 40, HOUR, HOUR + 40}, {0, 40, 50, 90}},
        {"jump back goes on at the bit rate", {HOUR, HOUR + 40, 0, 40}, {0, 40, 50, 90}},
        {"one wild send time", {0, 40, 2 * HOUR, 80, 120}, {0, 40, 50, 60, 100}},
        {"somewhat out of order keeps the schedule", {0, 40, 20, 80}, {0, 40, 40, 80}},
        {"a long pause is a pause", {0, 20'000}, {0, 20'000}},
    };
    for (const auto &Case : aCase) {
        SCOPED_TRACE(Case.pszWhat);
        const DRAINED Drained = play(headerBytes({}, Case.SendTimes.size()) + packetsBytes(Case.SendTimes));
        EXPECT_EQ(Drained.DueMs, Case.DueMs);
        EXPECT_TRUE(Drained.sBytes == packetsBytes(Case.SendTimes));
    }
}

TEST(MediaAsf, LyingSizesAndCountsLoseNoPacket) {
    const std::vector<unsigned int> SendTimes = {0, 10, 20, 30, 40};
    const std::string sPackets = packetsBytes(SendTimes);
    const std::string sIndex = GUID_INDEX + std::string(200, '\0');
    const struct {
        const char *pszWhat;
        HEADERFACTS Facts;
        std::string sBehind; // the packets
        std::size_t ulPackets;
    } aCase[] = {
        {"a count of 0", {}, "", 5},
        {"a count too high", {.ullCount = 1ULL << 60}, "", 5},
        {"an index behind the data", {.ullCount = 5}, sIndex, 5},
        {"a data object of 0 bytes, as written by a live recorder", {.ullDataSize = 1}, sIndex, 5},
        {"a broadcast file with an empty data object", {.ullDataSize = 50, .uiFlags = 3}, "", 5},
        {"a data object larger than the file", {.ullDataSize = 1ULL << 40}, "", 5},
        {"a data object larger than any file", {.ullDataSize = ~0ULL}, "", 5},
        {"a data object that ends in a packet", {.ullDataSize = 50 + 350}, "", 3},
        {"a cut tail", {.ullDataSize = 50 + 600}, std::string(60, 'x'), 5},
    };
    for (const auto &Case : aCase) {
        SCOPED_TRACE(Case.pszWhat);
        const DRAINED Drained = play(headerBytes(Case.Facts, SendTimes.size()) + sPackets + Case.sBehind);
        EXPECT_TRUE(Drained.sBytes == sPackets.substr(0, Case.ulPackets * PACKET));
    }
}

TEST(MediaAsf, DamagedPacketGoesOutInItsPlace) {
    std::string sPackets = packetsBytes({0, 40, 80, 120});
    sPackets[2 * PACKET] = '\xFF'; // an error correction that is no such thing
    const DRAINED Drained = play(headerBytes({}, 4) + sPackets);
    EXPECT_TRUE(Drained.sBytes == sPackets);
    EXPECT_EQ(Drained.DueMs[2], 50);
}

TEST(MediaAsf, HeadersThatMakeNoSenseAreRefused) {
    const struct {
        const char *pszReason;
        HEADERFACTS Facts;
    } aCase[] = {
        {"one size", {.uiLeast = 100, .uiMost = 200}},
        {"one size", {.uiLeast = 0, .uiMost = 0}},
        {"one size", {.uiLeast = 1U << 20, .uiMost = 1U << 20}},
        {"header says", {.ullHeaderSize = 0}},
        {"header says", {.ullHeaderSize = ~0ULL}},
        {"an object", {.ullOtherSize = 0}},
        {"an object", {.ullOtherSize = ~0ULL}},
        {"an object", {.ullOtherSize = 30 + 40 + 105}},
        {"no file properties", {.sProperties = GUID_INDEX}},
        {"no data object", {.ullDataSize = 20, .sData = GUID_INDEX}},
        {"no data object", {.ullDataSize = ~0ULL, .sData = GUID_INDEX}},
    };
    for (const auto &Case : aCase) {
        const MEMORYFILE File(headerBytes(Case.Facts, 3) + packetsBytes({0, 10, 20}));
        ASFREADER Reader;
        std::string sReason;
        EXPECT_FALSE(asfReaderStart(Reader, File.iFile, "file.asf", sReason)) << Case.pszReason;
        EXPECT_NE(sReason.find(Case.pszReason), std::string::npos) << Case.pszReason << ": " << sReason;
    }
}

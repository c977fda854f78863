// Tests of ASF files: which data packets come out, when they are due, and which headers are refused.
#include "asfstream.h"
#include "media_files.h"

namespace {

using namespace std::string_literals;

constexpr unsigned int kPacket = 100;

const std::string kGuidTail = "\x8E\x66\xCF\x11\xA6\xD9\x00\xAA\x00\x62\xCE\x6C"s;
const std::string kGuidIndex = "\x90\x08\x00\x33\xB1\xE5\xCF\x11\x89\xF4\x00\xA0\xC9\x03\x49\xCB"s;

// Bytes put at an offset of the header, to make one of its fields lie.
struct Put {
    std::size_t ulAt;
    std::string sBytes;
};
using Lies = std::vector<Put>;
constexpr std::size_t kHeaderSize = 16, kOtherSize = 46, kProperties = 70, kFlags = 158, kLeast = 162,
                      kData = 174, kDataSize = 190, kCount = 214;

// Returns a header with an unknown object before the file properties. Its packets have 100 bytes at 80
// kbit/s, so each takes 10 ms.
std::string headerBytes(std::size_t ulPackets, const Lies &lies = {}) {
    std::string sHeader = "\x30\x26\xB2\x75"s + kGuidTail + little(30 + 40 + 104, 8) + "\2\0\0\0\1\2"s +
                          std::string(16, 'o') + little(40, 8) + std::string(16, 'o') +
                          "\xA1\xDC\xAB\x8C\x47\xA9\xCF\x11\x8E\xE4\x00\xC0\x0C\x20\x53\x65"s +
                          little(104, 8) + std::string(64, '\0') + little(2, 4) + little(kPacket, 4) +
                          little(kPacket, 4) + little(80'000, 4) + "\x36\x26\xB2\x75"s + kGuidTail +
                          little(50 + ulPackets * kPacket, 8) + std::string(16, 'f') + little(0, 8) + "\1\1";
    for (const Put &lie : lies) {
        sHeader.replace(lie.ulAt, lie.sBytes.size(), lie.sBytes);
    }
    return sHeader;
}

// Returns data packets of three kinds in turn: with error correction, a word of padding length and no
// packet length; with all lengths; with neither.
std::string packetsBytes(const std::vector<unsigned int> &sendTimes) {
    const std::string asFront[] = {"\x82\0\0\x10\x5D\0\0"s, "\x7E\x5D\x64\0\0\0\x9\x9\x9\x9\0\0\0\0"s,
                                   "\0\x5D"s};
    std::string sBytes;
    for (std::size_t ul = 0; ul < sendTimes.size(); ul++) {
        sBytes += asFront[ul % 3] + little(sendTimes[ul], 4) + little(40, 2);
        sBytes.resize((ul + 1) * kPacket, static_cast<char>('A' + ul % 26));
    }
    return sBytes;
}

Drained play(const std::string &sFile) {
    const MemoryFile file(sFile);
    AsfReader reader;
    std::string sReason;
    EXPECT_TRUE(asfReaderStart(reader, file.iFile, "file.asf", sReason)) << sReason;
    return drain(reader, asfReaderNext);
}

} // namespace

TEST(MediaAsf, PacketsAreDueAtTheirSendTimesWhateverThoseSay) {
    constexpr unsigned int kHour = 3'600'000;
    const struct {
        const char *pszWhat;
        std::vector<unsigned int> sendTimes;
        std::vector<double> dueMs;
    } aCase[] = {
        {"from the first packet's send time", {3000, 3000, 3040, 3120}, {0, 0, 40, 120}},
        {"32-bit wrap", {0xFFFFFFF0, 0xFFFFFFF8, 8}, {0, 8, 24}},
        {"jump forward goes on at the bit rate", {0, 40, kHour, kHour + 40}, {0, 40, 50, 90}},
        {"jump back goes on at the bit rate", {kHour, kHour + 40, 0, 40}, {0, 40, 50, 90}},
        {"one wild send time", {0, 40, 2 * kHour, 80, 120}, {0, 40, 50, 60, 100}},
        {"somewhat out of order keeps the schedule", {0, 40, 20, 80}, {0, 40, 40, 80}},
        {"a long pause is a pause", {0, 20'000}, {0, 20'000}},
    };
    for (const auto &testCase : aCase) {
        SCOPED_TRACE(testCase.pszWhat);
        const Drained drained =
            play(headerBytes(testCase.sendTimes.size()) + packetsBytes(testCase.sendTimes));
        EXPECT_EQ(drained.dueMs, testCase.dueMs);
        EXPECT_TRUE(drained.sBytes == packetsBytes(testCase.sendTimes));
    }
}

TEST(MediaAsf, LyingSizesAndCountsLoseNoPacket) {
    const std::string sPackets = packetsBytes({0, 10, 20, 30, 40});
    const std::string sIndex = kGuidIndex + std::string(200, '\0');
    const struct {
        const char *pszWhat;
        Lies lies;
        std::string sBehind; // bytes behind the packets
        std::size_t ulPackets = 5;
    } aCase[] = {
        {"a count of 0", {}, ""},
        {"a count too high", {{kCount, little(1ULL << 60, 8)}}, ""},
        {"an index behind the data", {{kCount, little(5, 8)}}, sIndex},
        {"a data object of 1 byte, as written by a live recorder", {{kDataSize, little(1, 8)}}, sIndex},
        {"a broadcast file with an empty data object", {{kDataSize, little(50, 8)}, {kFlags, "\3"}}, ""},
        {"a data object larger than the file", {{kDataSize, little(1ULL << 40, 8)}}, ""},
        {"a data object larger than any file", {{kDataSize, little(~0ULL, 8)}}, ""},
        {"a data object that ends in a packet", {{kDataSize, little(50 + 350, 8)}}, "", 3},
        {"a cut tail", {{kDataSize, little(50 + 600, 8)}}, std::string(60, 'x')},
    };
    for (const auto &testCase : aCase) {
        SCOPED_TRACE(testCase.pszWhat);
        const Drained drained = play(headerBytes(5, testCase.lies) + sPackets + testCase.sBehind);
        EXPECT_TRUE(drained.sBytes == sPackets.substr(0, testCase.ulPackets * kPacket));
    }
}

TEST(MediaAsf, OnlyAnEndInsideTheDataIsReported) {
    const std::string sIndex = kGuidIndex + little(60, 8) + std::string(36, 'i');
    const std::string sOther = kGuidIndex + little(30, 8) + std::string(6, 'i');
    const struct {
        const char *pszWhat;
        std::string sBehind;
        bool bReported;
    } aCase[] = {
        {"nothing", "", false},
        {"an index shorter than a packet", sIndex, false},
        {"two objects", sIndex + sOther, false},
        {"half a packet", std::string(60, '\0'), true},
        {"half an index", sIndex.substr(0, 59), true},
    };
    for (const auto &testCase : aCase) {
        const std::string sPackets = packetsBytes({0, 10});
        const MemoryFile file(headerBytes(2, {{kDataSize, little(50, 8)}, {kFlags, "\3"}}) + sPackets +
                              testCase.sBehind);
        AsfReader reader;
        std::string sReason;
        testing::internal::CaptureStderr();
        EXPECT_TRUE(asfReaderStart(reader, file.iFile, testCase.pszWhat, sReason)) << sReason;
        EXPECT_TRUE(drain(reader, asfReaderNext).sBytes == sPackets);
        EXPECT_EQ(testing::internal::GetCapturedStderr().find("before its data does") != std::string::npos,
                  testCase.bReported)
            << testCase.pszWhat;
    }
}

// The data object is read where it is, behind whatever lies between it and the header.
TEST(MediaAsf, DataBeyondFourGibibytesIsPlayed) {
    const std::string sHeader = headerBytes(2);
    const std::string sPackets = packetsBytes({0, 10});
    for (const unsigned long long ullBetween : {24ULL, 5'000'000'001ULL}) {
        const MemoryFile file(sHeader.substr(0, kData) + kGuidIndex + little(ullBetween, 8));
        const std::string sData = sHeader.substr(kData) + sPackets;
        ASSERT_EQ(pwrite(file.iFile, sData.data(), sData.size(), static_cast<off_t>(kData + ullBetween)),
                  static_cast<ssize_t>(sData.size()));
        AsfReader reader;
        std::string sReason;
        ASSERT_TRUE(asfReaderStart(reader, file.iFile, "file.asf", sReason)) << sReason;
        EXPECT_TRUE(drain(reader, asfReaderNext).sBytes == sPackets);
    }
}

TEST(MediaAsf, DamagedPacketGoesOutInItsPlace) {
    std::string sPackets = packetsBytes({0, 40, 80, 120});
    sPackets[std::size_t{2} * kPacket] = '\xFF'; // invalid error correction
    const Drained drained = play(headerBytes(4) + sPackets);
    EXPECT_TRUE(drained.sBytes == sPackets);
    EXPECT_EQ(drained.dueMs[2], 50);
}

TEST(MediaAsf, HeadersThatMakeNoSenseAreRefused) {
    const std::pair<const char *, Lies> aCase[] = {
        {"one size", {{kLeast, little(200, 4)}}},
        {"one size", {{kLeast, little(0, 8)}}},
        {"one size", {{kLeast, little(1U << 20, 4) + little(1U << 20, 4)}}},
        {"header says", {{kHeaderSize, little(0, 8)}}},
        {"header says", {{kHeaderSize, little(~0ULL, 8)}}},
        {"an object", {{kOtherSize, little(0, 8)}}},
        {"an object", {{kOtherSize, little(~0ULL, 8)}}},
        {"an object", {{kOtherSize, little(30 + 40 + 105, 8)}}},
        {"no file properties", {{kProperties, kGuidIndex}}},
        {"no data object", {{kDataSize, little(20, 8)}, {kData, kGuidIndex}}},
        {"no data object", {{kDataSize, little(~0ULL, 8)}, {kData, kGuidIndex}}},
    };
    for (const auto &[pszReason, lies] : aCase) {
        const MemoryFile file(headerBytes(3, lies) + packetsBytes({0, 10, 20}));
        AsfReader reader;
        std::string sReason;
        EXPECT_FALSE(asfReaderStart(reader, file.iFile, "file.asf", sReason)) << pszReason;
        EXPECT_NE(sReason.find(pszReason), std::string::npos) << pszReason << ": " << sReason;
    }
}

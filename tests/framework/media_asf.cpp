// Tests of ASF files: which data packets come out, when they are due, and which headers are refused.
#include "asfstream.h"
#include "ktn_support.h"
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
        {"a long pause is a pause", {0, 30'000}, {0, 30'000}},
        {"a longer one is a jump", {0, 30'001, 30'041}, {0, 10, 50}},
        {"a second out of order", {5000, 4000, 5040}, {0, 0, 40}},
        {"more than a second back is a jump", {5000, 3999, 4039}, {0, 10, 50}},
    };
    testing::internal::CaptureStderr();
    for (const auto &testCase : aCase) {
        SCOPED_TRACE(testCase.pszWhat);
        const Drained drained =
            play(headerBytes(testCase.sendTimes.size()) + packetsBytes(testCase.sendTimes));
        EXPECT_EQ(drained.dueMs, testCase.dueMs);
        EXPECT_TRUE(drained.sBytes == packetsBytes(testCase.sendTimes));
    }
    constexpr char kJumps[] = "stream: file.asf: send times jump from ",
                   kOn[] = " ms: going on at the file's bit rate\n";
    std::string sExpected;
    for (const char *pszFromTo :
         {"40 to 3600000", "3600040 to 0", "40 to 7200000", "0 to 30001", "5000 to 3999"}) {
        sExpected += std::string(kJumps) + pszFromTo + kOn;
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(), sExpected);

    const Lies noRate = {{kLeast + 8, little(0, 4)}}, lowRate = {{kLeast + 8, little(1, 4)}};
    EXPECT_EQ(play(headerBytes(2, noRate) + packetsBytes({0, kHour})).dueMs, (std::vector<double>{0, 0.8}));
    EXPECT_EQ(play(headerBytes(2, lowRate) + packetsBytes({0, kHour})).dueMs, (std::vector<double>{0, 1000}));
}

TEST(MediaAsf, SendTimeIsReadWhereThePacketHasRoomForIt) {
    const struct {
        std::string sFront;
        std::size_t ulLength, ulAt; // 0: it cannot be read
    } aCase[] = {
        {"\x00\x5D"s, 16, 2},
        {"\x00\x5D"s, 15, 0},
        {"\x02\x5D"s, 16, 3},
        {"\x04\x5D"s, 16, 4},
        {"\x08\x5D"s, 16, 3},
        {"\x20\x5D"s, 16, 3},
        {"\x7E\x5D"s, 20, 14},
        {"\x7E\x5D"s, 19, 0},
        {"\x81\x09\x00\x5D"s, 16, 4},
        {"\x8F"s + std::string(17, '\0'), 24, 18},
        {"\x8F"s + std::string(17, '\0'), 23, 0},
        {"\x8F"s, 16, 0},
        {"\x8E\0\0\0\0\0\0\0\0\0\0\0\0\0\0"s, 17, 0},
        {"\x90\x09\x00\x5D"s, 16, 0},
        {"\xA0\x09\x00\x5D"s, 16, 0},
        {"\xC0\x09\x00\x5D"s, 16, 0},
    };
    for (std::size_t ul = 0; ul < std::size(aCase); ul++) {
        std::string sPacket = aCase[ul].sFront;
        while (sPacket.size() < aCase[ul].ulLength) {
            sPacket += static_cast<char>(sPacket.size());
        }
        unsigned int uiSendTime = 0;
        EXPECT_EQ(asfReadSendTime(reinterpret_cast<const unsigned char *>(sPacket.data()), aCase[ul].ulLength,
                                  uiSendTime),
                  aCase[ul].ulAt != 0)
            << "row " << ul;
        EXPECT_EQ(uiSendTime, aCase[ul].ulAt * 0x01010101 + (aCase[ul].ulAt != 0 ? 0x03020100 : 0))
            << "row " << ul;
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
        EXPECT_EQ(testing::internal::GetCapturedStderr(),
                  testCase.bReported
                      ? std::string("stream: ") + testCase.pszWhat +
                            ": its packets end at byte 424, before its data does: the playout ends here\n"
                      : "");
    }
}

TEST(MediaAsf, ReadThatFailsEndsThePlayoutByName) {
    const std::string sFile = headerBytes(2, {{kDataSize, little(1, 8)}}) + packetsBytes({0, 10});
    const MemoryFile file(sFile);
    AsfReader reader;
    std::string sReason;
    failOnce("pread", EIO);
    EXPECT_FALSE(asfReaderStart(reader, file.iFile, "file.asf", sReason));
    EXPECT_EQ(sReason, "it cannot be read: Input/output error");
    ASSERT_TRUE(asfReaderStart(reader, file.iFile, "file.asf", sReason));
    testing::internal::CaptureStderr();
    failOnce("pread", EIO);
    EXPECT_TRUE(drain(reader, asfReaderNext).sBytes == packetsBytes({0, 10}));
    EXPECT_EQ(reported(),
              "stream: file.asf: cannot be read on at byte 424: Input/output error: the playout ends here\n");
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
    const auto sizes = [](unsigned int uiLeast, unsigned int uiMost) {
        return Lies{{kLeast, little(uiLeast, 4) + little(uiMost, 4)}};
    };
    constexpr char kOneSize[] = " bytes; one size of 16 to 65536 is needed";
    const std::string sObject = kGuidIndex + little(24, 8);
    std::string sObjects;
    for (int i = 0; i < 63; i++) {
        sObjects += sObject;
    }
    const struct {
        std::string sReason; // empty: it is taken
        Lies lies;
        std::string sBetween = {}; // objects between header and data
    } aCase[] = {
        {"its header names packets of 200 to 100"s + kOneSize, sizes(200, 100)},
        {"its header names packets of 15 to 15"s + kOneSize, sizes(15, 15)},
        {"", sizes(16, 16)},
        {"", sizes(65'536, 65'536)},
        {"its header names packets of 65537 to 65537"s + kOneSize, sizes(65'537, 65'537)},
        {"its header says that it is 29 bytes long", {{kHeaderSize, little(29, 8)}}},
        {"its header has no file properties object", {{kHeaderSize, little(30, 8)}}},
        {"its header says that it is 1048577 bytes long", {{kHeaderSize, little((1 << 20) + 1, 8)}}},
        {"", {{kHeaderSize, little(1 << 20, 8)}}, std::string((1 << 20) - kData, 'h')},
        {"an object of its header, at byte 30, says that it is 23 bytes long", {{kOtherSize, little(23, 8)}}},
        {"an object of its header, at byte 30, says that it is 18446744073709551615 bytes long",
         {{kOtherSize, little(~0ULL, 8)}}},
        {"an object of its header, at byte 30, says that it is 145 bytes long",
         {{kOtherSize, little(145, 8)}}},
        {"its header has no file properties object", {{kOtherSize, little(144, 8)}}},
        {"its header has no file properties object", {{kProperties, kGuidIndex}}},
        {"its header has no file properties object", {{kProperties + 16, little(103, 8)}}},
        {"no data object follows its header", {{kDataSize, little(20, 8)}, {kData, kGuidIndex}}},
        {"no data object follows its header", {{kDataSize, little(~0ULL, 8)}, {kData, kGuidIndex}}},
        {"", {}, sObjects},
        {"no data object follows its header", {}, sObjects + sObject},
    };
    for (std::size_t ul = 0; ul < std::size(aCase); ul++) {
        const MemoryFile file(headerBytes(3, aCase[ul].lies).insert(kData, aCase[ul].sBetween) +
                              packetsBytes({0, 10, 20}));
        AsfReader reader;
        std::string sReason;
        EXPECT_EQ(asfReaderStart(reader, file.iFile, "file.asf", sReason), aCase[ul].sReason.empty())
            << "row " << ul;
        EXPECT_EQ(sReason, aCase[ul].sReason) << "row " << ul;
    }
}

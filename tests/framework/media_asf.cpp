// ASF files: which data packets come out, when they are due, and which headers are refused.
#include "asfstream.h"
#include "media_files.h"

namespace {

using namespace std::string_literals;

constexpr unsigned int PACKET = 100;

const std::string GUID_TAIL = "\x8E\x66\xCF\x11\xA6\xD9\x00\xAA\x00\x62\xCE\x6C"s;
const std::string GUID_INDEX = "\x90\x08\x00\x33\xB1\xE5\xCF\x11\x89\xF4\x00\xA0\xC9\x03\x49\xCB"s;

// Bytes put at a place of the header, where its facts can lie.
struct PUT {
    std::size_t ulAt;
    std::string sBytes;
};
using LIES = std::vector<PUT>;
constexpr std::size_t HEADER_SIZE = 16, OTHER_SIZE = 46, PROPERTIES = 70, FLAGS = 158, LEAST = 162,
                      DATA = 174, DATA_SIZE = 190, COUNT = 214;

// A header with an object of no known kind before the file properties: packets of 100 bytes at 80 kbit/s,
// that is 10 ms each.
std::string headerBytes(std::size_t ulPackets, const LIES &Lies = {}) {
    std::string sHeader = "\x30\x26\xB2\x75"s + GUID_TAIL + little(30 + 40 + 104, 8) + "\2\0\0\0\1\2"s +
                          std::string(16, 'o') + little(40, 8) + std::string(16, 'o') +
                          "\xA1\xDC\xAB\x8C\x47\xA9\xCF\x11\x8E\xE4\x00\xC0\x0C\x20\x53\x65"s +
                          little(104, 8) + std::string(64, '\0') + little(2, 4) + little(PACKET, 4) +
                          little(PACKET, 4) + little(80'000, 4) + "\x36\x26\xB2\x75"s + GUID_TAIL +
                          little(50 + ulPackets * PACKET, 8) + std::string(16, 'f') + little(0, 8) + "\1\1";
    for (const PUT &Lie : Lies)
        sHeader.replace(Lie.ulAt, Lie.sBytes.size(), Lie.sBytes);
    return sHeader;
}

// Data packets with error correction, a word of padding length and no packet length; with all lengths; with
// neither.
std::string packetsBytes(const std::vector<unsigned int> &SendTimes) {
    const std::string asFront[] = {"\x82\0\0\x10\x5D\0\0"s, "\x7E\x5D\x64\0\0\0\x9\x9\x9\x9\0\0\0\0"s,
                                   "\0\x5D"s};
    std::string sBytes;
    for (std::size_t ul = 0; ul < SendTimes.size(); ul++) {
        sBytes += asFront[ul % 3] + little(SendTimes[ul], 4) + little(40, 2);
        sBytes.resize((ul + 1) * PACKET, static_cast<char>('A' + ul % 26));
    }
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
        const DRAINED Drained = play(headerBytes(Case.SendTimes.size()) + packetsBytes(Case.SendTimes));
        EXPECT_EQ(Drained.DueMs, Case.DueMs);
        EXPECT_TRUE(Drained.sBytes == packetsBytes(Case.SendTimes));
    }
}

TEST(MediaAsf, LyingSizesAndCountsLoseNoPacket) {
    const std::string sPackets = packetsBytes({0, 10, 20, 30, 40});
    const std::string sIndex = GUID_INDEX + std::string(200, '\0');
    const struct {
        const char *pszWhat;
        LIES Lies;
        std::string sBehind; // the packets
        std::size_t ulPackets = 5;
    } aCase[] = {
        {"a count of 0", {}, ""},
        {"a count too high", {{COUNT, little(1ULL << 60, 8)}}, ""},
        {"an index behind the data", {{COUNT, little(5, 8)}}, sIndex},
        {"a data object of 1 byte, as written by a live recorder", {{DATA_SIZE, little(1, 8)}}, sIndex},
        {"a broadcast file with an empty data object", {{DATA_SIZE, little(50, 8)}, {FLAGS, "\3"}}, ""},
        {"a data object larger than the file", {{DATA_SIZE, little(1ULL << 40, 8)}}, ""},
        {"a data object larger than any file", {{DATA_SIZE, little(~0ULL, 8)}}, ""},
        {"a data object that ends in a packet", {{DATA_SIZE, little(50 + 350, 8)}}, "", 3},
        {"a cut tail", {{DATA_SIZE, little(50 + 600, 8)}}, std::string(60, 'x')},
    };
    for (const auto &Case : aCase) {
        SCOPED_TRACE(Case.pszWhat);
        const DRAINED Drained = play(headerBytes(5, Case.Lies) + sPackets + Case.sBehind);
        EXPECT_TRUE(Drained.sBytes == sPackets.substr(0, Case.ulPackets * PACKET));
    }
}

TEST(MediaAsf, DamagedPacketGoesOutInItsPlace) {
    std::string sPackets = packetsBytes({0, 40, 80, 120});
    sPackets[2 * PACKET] = '\xFF'; // an error correction that is no such thing
    const DRAINED Drained = play(headerBytes(4) + sPackets);
    EXPECT_TRUE(Drained.sBytes == sPackets);
    EXPECT_EQ(Drained.DueMs[2], 50);
}

TEST(MediaAsf, HeadersThatMakeNoSenseAreRefused) {
    const std::pair<const char *, LIES> aCase[] = {
        {"one size", {{LEAST, little(200, 4)}}},
        {"one size", {{LEAST, little(0, 8)}}},
        {"one size", {{LEAST, little(1U << 20, 4) + little(1U << 20, 4)}}},
        {"header says", {{HEADER_SIZE, little(0, 8)}}},
        {"header says", {{HEADER_SIZE, little(~0ULL, 8)}}},
        {"an object", {{OTHER_SIZE, little(0, 8)}}},
        {"an object", {{OTHER_SIZE, little(~0ULL, 8)}}},
        {"an object", {{OTHER_SIZE, little(30 + 40 + 105, 8)}}},
        {"no file properties", {{PROPERTIES, GUID_INDEX}}},
        {"no data object", {{DATA_SIZE, little(20, 8)}, {DATA, GUID_INDEX}}},
        {"no data object", {{DATA_SIZE, little(~0ULL, 8)}, {DATA, GUID_INDEX}}},
    };
    for (const auto &[pszReason, Lies] : aCase) {
        const MEMORYFILE File(headerBytes(3, Lies) + packetsBytes({0, 10, 20}));
        ASFREADER Reader;
        std::string sReason;
        EXPECT_FALSE(asfReaderStart(Reader, File.iFile, "file.asf", sReason)) << pszReason;
        EXPECT_NE(sReason.find(pszReason), std::string::npos) << pszReason << ": " << sReason;
    }
}

// Transport stream files: which packets come out, and when they are due.
#include "media_files.h"
#include "tsstream.h"

#include <algorithm>

namespace {

constexpr long long MS = 27'000; // ticks
constexpr long long WRAP = (1LL << 33) * 300;

struct TSPACKET {
    unsigned int uiPID = 0x100;
    long long llClock = -1; // ticks, -1 none
    bool bDiscontinuity = false;
};
using PACKETS = std::vector<TSPACKET>;

std::string bytesOf(const PACKETS &Packets, std::size_t ulBefore = 0, std::size_t ulBehind = 0) {
    std::string sBytes;
    for (std::size_t ul = 0; ul < Packets.size(); ul++) {
        const TSPACKET &Packet = Packets[ul];
        const long long llClock = Packet.llClock < 0 ? -1 : Packet.llClock % WRAP;
        sBytes += std::string(ulBefore, '\0') +
                  tsPacketBytes(ul, llClock, Packet.uiPID, Packet.bDiscontinuity) +
                  std::string(ulBehind, '\xFF');
    }
    return sBytes;
}

// A millisecond a packet, a clock reference every 40 packets: run n is due at 7 n ms.
PACKETS steadyPackets(std::size_t ulPackets, long long llStart = 1000 * MS) {
    PACKETS Packets(ulPackets);
    for (std::size_t ul = 0; ul < ulPackets; ul += 40)
        Packets[ul].llClock = llStart + static_cast<long long>(ul) * MS;
    return Packets;
}

// The same, with every ulStep-th packet from ulFrom to ulTo changed.
template <typename CHANGE>
PACKETS changed(std::size_t ulPackets, std::size_t ulFrom, std::size_t ulTo, std::size_t ulStep,
                CHANGE Change) {
    PACKETS Packets = steadyPackets(ulPackets);
    for (std::size_t ul = ulFrom; ul < ulTo; ul += ulStep)
        Change(Packets[ul], static_cast<long long>(ul));
    return Packets;
}

// The clock shifted from packet 400 on, with the discontinuity flagged in one packet (0 none).
PACKETS shifted(long long llBy, std::size_t ulFlagged = 0) {
    PACKETS Packets = steadyPackets(1200, 20'000'000 * MS);
    for (std::size_t ul = 400; ul < 1200; ul += 40)
        Packets[ul].llClock += llBy;
    Packets[ulFlagged].bDiscontinuity = ulFlagged > 0;
    return Packets;
}

PACKETS without(std::size_t ulFrom, std::size_t ulTo, std::size_t ulPackets) {
    return changed(ulPackets, ulFrom, ulTo, 1, [](TSPACKET &Packet, long long) { Packet.llClock = -1; });
}

DRAINED play(const std::string &sBytes, const char *pszFile = "file.ts") {
    const MEMORYFILE File(sBytes);
    TSREADER Reader;
    std::string sReason;
    EXPECT_TRUE(tsReaderRecognises(File.iFile));
    EXPECT_TRUE(tsReaderStart(Reader, File.iFile, pszFile, sReason)) << sReason;
    return drain(Reader, tsReaderNext);
}

void expectSteady(const DRAINED &Drained, std::size_t ulPackets, double dTolerance = 0.001) {
    ASSERT_EQ(Drained.DueMs.size(), (ulPackets + 6) / 7);
    for (std::size_t ul = 0; ul < Drained.DueMs.size(); ul++)
        ASSERT_NEAR(Drained.DueMs[ul], 7.0 * static_cast<double>(ul), dTolerance) << "run " << ul;
}

} // namespace

TEST(MediaTs, NoLayoutLosesOrChangesPackets) {
    const PACKETS Packets = steadyPackets(1000);
    for (const auto &[ulBefore, ulBehind] : {std::pair{0U, 0U}, {4U, 0U}, {0U, 16U}}) {
        // A head that is no packet, then the packets.
        const DRAINED Drained = play(std::string(1000, 'x') + bytesOf(Packets, ulBefore, ulBehind));

        EXPECT_TRUE(Drained.sBytes == bytesOf(Packets)) << ulBefore << "+188+" << ulBehind;
        EXPECT_EQ(Drained.Lengths.front(), 1316U);
        EXPECT_EQ(Drained.Lengths.back(), 1000U % 7 * 188);
        expectSteady(Drained, Packets.size());
    }
}

// Whatever happens to the clock references, a file of constant rate is played at that rate.
TEST(MediaTs, NoClockNonsenseStallsOrRacesThePlayout) {
    const std::pair<const char *, PACKETS> aCase[] = {
        {"wrap", steadyPackets(1200, WRAP - 333 * MS)},
        {"flagged discontinuity", shifted(50 * MS, 400)},
        {"flagged discontinuity a packet early", shifted(50 * MS, 399)},
        {"jump back", shifted(-3600'000 * MS)},
        {"small jump back", shifted(-50 * MS)},
        {"jump forward", shifted(3600'000 * MS)},
        {"jump forward by some seconds", shifted(5'000 * MS)},
        {"one wild reference",
         changed(1200, 600, 601, 1, [](TSPACKET &Packet, long long) { Packet.llClock = 77'000'000 * MS; })},
        {"first reference late", without(0, 350, 1200)},
        {"no reference at the end", without(600, 1200, 1200)},
        {"20 s without a reference", without(400, 20'400, 22'000)},
        {"more than the look-ahead without a reference", without(400, 40'400, 42'000)},
        {"the clock moves to another PID", changed(2400, 800, 2400, 40,
                                                   [](TSPACKET &Packet, long long) {
                                                       Packet.uiPID = 0x200;
                                                       Packet.llClock += 500'000 * MS;
                                                   })},
        {"two programs with clocks of their own", changed(1200, 20, 1200, 40,
                                                          [](TSPACKET &Packet, long long ll) {
                                                              Packet = {0x200, (9'000'000 + ll) * MS, false};
                                                          })},
        {"references of damaged and of null packets",
         changed(1200, 20, 1200, 40,
                 [](TSPACKET &Packet, long long ll) {
                     Packet = {ll % 80 == 20 ? 0x8100U : 0x1FFFU, ll * 3 * MS, false};
                 })},
    };
    for (const auto &[pszWhat, Packets] : aCase) {
        SCOPED_TRACE(pszWhat);
        const DRAINED Drained = play(bytesOf(Packets));
        EXPECT_TRUE(Drained.sBytes == bytesOf(Packets));
        expectSteady(Drained, Packets.size());
    }
}

TEST(MediaTs, ChangeOfRateIsFollowedAndTheLastRateKept) {
    const DRAINED Drained = play(
        bytesOf(changed(1400, 720, 1400, 40, [](TSPACKET &Packet, long long ll) { // twice as slow from 680
            Packet.llClock = ll < 1200 ? (1680 + 2 * (ll - 680)) * MS : -1;
        })));

    for (const auto &[ulRun, dMs] :
         {std::pair{90U, 630.0}, {97U, 679.0}, {98U, 692.0}, {150U, 1420.0}, {199U, 2106.0}})
        EXPECT_NEAR(Drained.DueMs[ulRun], dMs, 0.001) << "run " << ulRun;
}

TEST(MediaTs, DamageCostsOnlyTheDamagedPackets) {
    const std::string sWhole = bytesOf(steadyPackets(1400));
    const struct {
        const char *pszWhat;
        std::size_t ulAt, ulRemoved;
        std::string sPut;
        std::size_t ulLostAt, ulLost; // of the damaged file
    } aCase[] = {
        {"bytes in between", 188 * 701, 0, std::string(500, 'x'), 188 * 701, 500},
        {"a hole larger than a step", 188 * 701, 0, std::string(9'000'000, '\0'), 188 * 701, 9'000'000},
        {"a sync byte lost", 188 * 701, 1, "x", 188 * 701, 188},
        {"a sync byte lost in the head", 188 * 11, 1, "x", 188 * 11, 188},
        {"the last but one sync byte lost", 188 * 1398, 1, "x", 188 * 1398, 188},
        // The packet's place is kept, its tail is the next one's head: that one is lost.
        {"bytes lost inside a packet", 188 * 701 + 50, 30, "", 188 * 702, 158},
        {"a cut tail", 188 * 1400 - 100, 100, "", 188 * 1399, 88},
    };
    for (const auto &Case : aCase) {
        SCOPED_TRACE(Case.pszWhat);
        std::string sFile = sWhole;
        sFile.replace(Case.ulAt, Case.ulRemoved, Case.sPut);
        std::string sExpected = sFile;
        sExpected.erase(Case.ulLostAt, Case.ulLost);

        testing::internal::CaptureStderr();
        const DRAINED Drained = play(sFile, Case.pszWhat); // reports that repeat another's words are left out
        const std::string sReports = testing::internal::GetCapturedStderr();

        EXPECT_TRUE(Drained.sBytes == sExpected);
        // A lost packet moves the others by its millisecond.
        expectSteady(Drained, sExpected.size() / 188, 1.1);
        EXPECT_EQ(std::count(sReports.begin(), sReports.end(), '\n'), 1) << sReports;
    }
}

TEST(MediaTs, FilesWithoutAClockAreRefused) {
    PACKETS OneReference(400);
    OneReference[40].llClock = 5 * MS;
    const PACKETS StandingStill =
        changed(400, 0, 400, 40, [](TSPACKET &Packet, long long) { Packet.llClock = 5 * MS; });
    for (const PACKETS &Packets : {PACKETS(400), OneReference, StandingStill, PACKETS(100'000)}) {
        const MEMORYFILE File(bytesOf(Packets));
        TSREADER Reader;
        std::string sReason;
        EXPECT_FALSE(tsReaderStart(Reader, File.iFile, "file.ts", sReason));
        EXPECT_NE(sReason.find("clock reference"), std::string::npos) << sReason;
    }
}

// Tests of transport stream files: which packets come out, and when they are due.
#include "ktn_support.h"
#include "media_files.h"
#include "tsstream.h"

#include <algorithm>
#include <cmath>

namespace {

constexpr long long kMsTicks = 27'000; // ticks
constexpr long long kWrap = (1LL << 33) * 300;

struct TsPacket {
    unsigned int uiPID = 0x100;
    long long llClock = -1; // ticks, -1 none
    bool bDiscontinuity = false;
};
using Packets = std::vector<TsPacket>;

std::string bytesOf(const Packets &packets, std::size_t ulBefore = 0, std::size_t ulBehind = 0) {
    std::string sBytes;
    for (std::size_t ul = 0; ul < packets.size(); ul++) {
        const TsPacket &packet = packets[ul];
        const long long llClock = packet.llClock < 0 ? -1 : packet.llClock % kWrap;
        sBytes += std::string(ulBefore, '\0') +
                  tsPacketBytes(ul, llClock, packet.uiPID, packet.bDiscontinuity) +
                  std::string(ulBehind, '\xFF');
    }
    return sBytes;
}

// Returns packets of one millisecond each, with a clock reference in every 40th. Run n is then due at 7 n
// ms.
Packets steadyPackets(std::size_t ulPackets, long long llStart = 1000 * kMsTicks) {
    Packets packets(ulPackets);
    for (std::size_t ul = 0; ul < ulPackets; ul += 40) {
        packets[ul].llClock = llStart + static_cast<long long>(ul) * kMsTicks;
    }
    return packets;
}

// Returns steady packets with every ulStep-th from ulFrom to ulTo changed.
template <typename Change>
Packets changed(std::size_t ulPackets, std::size_t ulFrom, std::size_t ulTo, std::size_t ulStep,
                Change change) {
    Packets packets = steadyPackets(ulPackets);
    for (std::size_t ul = ulFrom; ul < ulTo; ul += ulStep) {
        change(packets[ul], static_cast<long long>(ul));
    }
    return packets;
}

// Returns steady packets with their clock shifted from packet 400 on. One packet flags the discontinuity,
// unless its number is 0.
Packets shifted(long long llBy, std::size_t ulFlagged = 0) {
    Packets packets = steadyPackets(1200, 20'000'000 * kMsTicks);
    for (std::size_t ul = 400; ul < 1200; ul += 40) {
        packets[ul].llClock += llBy;
    }
    packets[ulFlagged].bDiscontinuity = ulFlagged > 0;
    return packets;
}

Packets without(std::size_t ulFrom, std::size_t ulTo, std::size_t ulPackets) {
    return changed(ulPackets, ulFrom, ulTo, 1, [](TsPacket &packet, long long) { packet.llClock = -1; });
}

Drained play(const std::string &sBytes, const char *pszFile = "file.ts") {
    const MemoryFile file(sBytes);
    TsReader reader;
    std::string sReason;
    EXPECT_TRUE(tsReaderRecognises(file.iFile));
    EXPECT_TRUE(tsReaderStart(reader, file.iFile, pszFile, sReason)) << sReason;
    return drain(reader, tsReaderNext);
}

void expectSteady(const Drained &drained, std::size_t ulPackets, double dTolerance = 0.001) {
    ASSERT_EQ(drained.dueMs.size(), (ulPackets + 6) / 7);
    for (std::size_t ul = 0; ul < drained.dueMs.size(); ul++) {
        ASSERT_NEAR(drained.dueMs[ul], 7.0 * static_cast<double>(ul), dTolerance) << "run " << ul;
    }
}

// An interval between two clock references.
struct Interval {
    double dMs;
    std::size_t ulPackets;
};

// Returns packets with these intervals one after the other, and a reference at the end of the last.
Packets packetsOf(const std::vector<Interval> &intervals) {
    Packets packets(1);
    packets[0].llClock = 0;
    for (const Interval &interval : intervals) {
        const long long llClock = packets.back().llClock + std::llround(interval.dMs * kMsTicks);
        packets.resize(packets.size() + interval.ulPackets);
        packets.back().llClock = llClock;
    }
    return packets;
}

// Expects each run to be due when its first packet is by the references.
void expectOnReferences(const Drained &drained, const std::vector<Interval> &intervals) {
    std::size_t ulPacket = 0, ulFrom = 0, ulInterval = 0;
    double dFrom = 0;
    for (std::size_t ul = 0; ul < drained.dueMs.size(); ul++) {
        while (ulInterval < intervals.size() && ulPacket >= ulFrom + intervals[ulInterval].ulPackets) {
            ulFrom += intervals[ulInterval].ulPackets;
            dFrom += intervals[ulInterval++].dMs;
        }
        const double dPart = ulInterval == intervals.size()
                                 ? 0
                                 : intervals[ulInterval].dMs * static_cast<double>(ulPacket - ulFrom) /
                                       static_cast<double>(intervals[ulInterval].ulPackets);
        ASSERT_NEAR(drained.dueMs[ul], dFrom + dPart, 0.001) << "packet " << ulPacket;
        ulPacket += drained.lengths[ul] / kTsPacketSize;
    }
}

} // namespace

TEST(MediaTs, NoLayoutLosesOrChangesPackets) {
    const Packets packets = steadyPackets(1000);
    for (const auto &[ulBefore, ulBehind] : {std::pair{0U, 0U}, {4U, 0U}, {0U, 16U}}) {
        // Bytes that are no packet, then the packets.
        const Drained drained = play(std::string(1000, 'x') + bytesOf(packets, ulBefore, ulBehind));

        EXPECT_TRUE(drained.sBytes == bytesOf(packets)) << ulBefore << "+188+" << ulBehind;
        EXPECT_EQ(drained.lengths.front(), 1316U);
        EXPECT_EQ(drained.lengths.back(), 1000U % 7 * 188);
        expectSteady(drained, packets.size());
    }
}

// A file of constant rate must play at that rate, whatever happens to its clock references.
TEST(MediaTs, NoClockNonsenseStallsOrRacesThePlayout) {
    const std::pair<const char *, Packets> aCase[] = {
        {"wrap", steadyPackets(1200, kWrap - 333 * kMsTicks)},
        {"flagged discontinuity", shifted(50 * kMsTicks, 400)},
        {"flagged discontinuity a packet early", shifted(50 * kMsTicks, 399)},
        {"jump back", shifted(-3600'000 * kMsTicks)},
        {"small jump back", shifted(-50 * kMsTicks)},
        {"jump forward", shifted(3600'000 * kMsTicks)},
        {"jump forward by some seconds", shifted(5'000 * kMsTicks)},
        {"one wild reference",
         changed(1200, 600, 601, 1,
                 [](TsPacket &packet, long long) { packet.llClock = 77'000'000 * kMsTicks; })},
        {"first reference late", without(0, 350, 1200)},
        {"no reference at the end", without(600, 1200, 1200)},
        {"20 s without a reference", without(400, 20'400, 22'000)},
        {"more than the look-ahead without a reference", without(400, 90'400, 92'000)},
        {"the clock moves to another PID", changed(2400, 800, 2400, 40,
                                                   [](TsPacket &packet, long long) {
                                                       packet.uiPID = 0x200;
                                                       packet.llClock += 500'000 * kMsTicks;
                                                   })},
        {"two programs with clocks of their own",
         changed(1200, 20, 1200, 40,
                 [](TsPacket &packet, long long ll) {
                     packet = {0x200, (9'000'000 + ll) * kMsTicks, false};
                 })},
        {"another program's references come nine times as often",
         changed(1200, 44, 1200, 4,
                 [](TsPacket &packet, long long ll) {
                     packet = ll % 40 == 0 ? packet : TsPacket{0x200, ll * 3 * kMsTicks, false};
                 })},
        {"references of damaged and of null packets",
         changed(1200, 20, 1200, 40,
                 [](TsPacket &packet, long long ll) {
                     packet = {ll % 80 == 20 ? 0x8100U : 0x1FFFU, ll * 3 * kMsTicks, false};
                 })},
    };
    for (const auto &[pszWhat, packets] : aCase) {
        SCOPED_TRACE(pszWhat);
        const Drained drained = play(bytesOf(packets));
        EXPECT_TRUE(drained.sBytes == bytesOf(packets));
        expectSteady(drained, packets.size());
    }
}

TEST(MediaTs, ChangeOfRateIsFollowedAndTheLastRateKept) {
    Packets packets =
        changed(1400, 720, 1400, 40, [](TsPacket &packet, long long ll) { // twice as slow from 680
            packet.llClock = ll < 1200 ? (1680 + 2 * (ll - 680)) * kMsTicks : -1;
        });
    packets[700] = {0x200, -1, true}; // another program's clock starts anew: this one's goes on
    const Drained drained = play(bytesOf(packets));

    for (const auto &[ulRun, dMs] :
         {std::pair{90U, 630.0}, {97U, 679.0}, {98U, 692.0}, {150U, 1420.0}, {199U, 2106.0}}) {
        EXPECT_NEAR(drained.dueMs[ulRun], dMs, 0.001) << "run " << ulRun;
    }
}

TEST(MediaTs, AnotherPidIsFollowedFromItsTenthReferenceOn) {
    const Packets packets = changed(2400, 800, 2400, 40, [](TsPacket &packet, long long ll) {
        packet = {0x200, 2 * ll * kMsTicks, false};
    });
    const Drained drained = play(bytesOf(packets));
    for (const auto &[ulRun, dMs] : {std::pair{165U, 1155.0}, {166U, 1164.0}, {342U, 3628.0}}) {
        EXPECT_NEAR(drained.dueMs[ulRun], dMs, 0.001) << "run " << ulRun;
    }
}

TEST(MediaTs, ReadThatFailsEndsThePlayoutByName) {
    const Packets packets = steadyPackets(400);
    for (const int iErrno : {EINTR, EIO}) {
        const MemoryFile file(bytesOf(packets));
        TsReader reader;
        std::string sReason;
        ASSERT_TRUE(tsReaderStart(reader, file.iFile, "file.ts", sReason)) << sReason;
        testing::internal::CaptureStderr();
        failOnce("pread", iErrno);
        EXPECT_EQ(drain(reader, tsReaderNext).sBytes == bytesOf(packets), iErrno == EINTR);
        EXPECT_EQ(reported(), iErrno == EINTR
                                  ? ""
                                  : "stream: file.ts: cannot be read on at byte 0: Input/output error: the "
                                    "playout ends here\n");
    }
    const MemoryFile file(bytesOf(packets));
    TsReader reader;
    std::string sReason;
    failOnce("pread", EIO, 2); // behind the head
    EXPECT_FALSE(tsReaderStart(reader, file.iFile, "file.ts", sReason));
    EXPECT_EQ(sReason, "it cannot be read: Input/output error");
}

// Pictures that come rarely: references as far apart, and as many packets as the picture needs.
TEST(MediaTs, ReferencesFarApartAreBelievedWhateverTheRateDoes) {
    using Intervals = std::vector<Interval>;
    const Interval plain{2000, 4}, noisy{2000, 900}, usual{40, 10};
    const std::pair<const char *, Intervals> aCase[] = {
        {"plain pictures, then noisy ones", {plain, plain, plain, noisy, noisy, noisy}},
        {"noisy pictures, then plain ones", {noisy, noisy, noisy, plain, plain, plain}},
        {"a minute apart", {{60'000, 4}, {60'000, 900}, {60'000, 4}}},
        {"times that differ", {{10'000, 5}, {3000, 500}, {20'000, 5}, {4000, 500}, {9000, 5}}},
        {"only from some time on", {usual, usual, {2000, 20}, {2000, 20}, plain, noisy, usual}},
        {"faster than a jump would be", {{1000, 4}, {1000, 4}, {1500, 9000}, {1000, 4}}},
    };
    for (const auto &[pszWhat, intervals] : aCase) {
        SCOPED_TRACE(pszWhat);
        expectOnReferences(play(bytesOf(packetsOf(intervals))), intervals);
    }

    // The last picture has no reference behind it, the first sound has none before it. They take about as
    // long as the pictures, not their packets' number at the plain pictures' rate.
    Packets packets = packetsOf({plain, plain, plain, noisy, plain, plain, plain});
    packets.insert(packets.begin(), 1500, TsPacket{});
    packets.resize(packets.size() + 800);
    const Drained drained = play(bytesOf(packets));
    EXPECT_GT(drained.dueMs.back(), 14'000);
    EXPECT_LT(drained.dueMs.back(), 18'100);
}

TEST(MediaTs, ClockBelievesIntervalsWithinItsBounds) {
    constexpr unsigned long long kSecond = 27'000'000;
    constexpr double kRate = 27'000; // a packet a millisecond
    const struct {
        unsigned long long ullTicks, ullPackets;
        double dRate;
        unsigned long long ullSpacing, ullAfter;
        bool bSound;
    } aCase[] = {
        {kSecond, 0, kRate, 0, 0, false},
        {4061, 100, kRate, 0, 0, true}, // 1 Gbit/s is 40.608 ticks a packet
        {4060, 100, kRate, 0, 0, false},
        {kSecond, 1, kRate, 0, 0, true}, // a second is believed whatever the rate was
        {kSecond + 1, 1, kRate, 0, 0, false},
        {5 * kSecond, 1, 0, 0, 0, true}, // the first interval
        {5 * kSecond + 1, 1, 0, 0, 0, false},
        {20 * kSecond, 5000, kRate, 0, 0, true}, // in keeping: at most four times slower
        {20 * kSecond, 4999, kRate, 0, 0, false},
        {60 * kSecond, 60'000, kRate, 0, 0, true},
        {60 * kSecond + 1, 60'001, kRate, 60 * kSecond, 60 * kSecond, false},
        {16 * kSecond, 1, kRate, 2 * kSecond, 0, true}, // as long as the earlier ones
        {16 * kSecond, 1, kRate, 2 * kSecond - 1, 0, false},
        {16 * kSecond, 1, kRate, 0, 2 * kSecond, true}, // as long as the next one
        {16 * kSecond, 1, kRate, 0, 2 * kSecond - 1, false},
        {16 * kSecond, 1, kRate, 0, 60 * kSecond + 1, false}, // the next one is a jump itself
    };
    for (const auto &row : aCase) {
        EXPECT_EQ(tsclockIsSound(row.ullTicks, row.ullPackets, row.dRate, row.ullSpacing, row.ullAfter),
                  row.bSound)
            << row.ullTicks << " ticks, " << row.ullPackets << " packets";
    }
}

TEST(MediaTs, RunOfASlowStreamEndsBeforeItsPacketsSpanTooMuch) {
    Packets packets(700);
    for (std::size_t ul = 0; ul < packets.size(); ul += 10) {
        packets[ul].llClock = static_cast<long long>(ul) * 5 * kMsTicks;
    }
    const Drained drained = play(bytesOf(packets));
    EXPECT_TRUE(drained.sBytes == bytesOf(packets));
    ASSERT_EQ(drained.dueMs.size(), 175U);
    for (std::size_t ul = 0; ul < drained.dueMs.size(); ul++) {
        ASSERT_EQ(drained.lengths[ul], 4 * kTsPacketSize); // due at 0, 5, 10 and 15 ms
        ASSERT_NEAR(drained.dueMs[ul], 20.0 * static_cast<double>(ul), 0.001);
    }
}

TEST(MediaTs, LengthOfALargeFileIsFoundUnlessItsClockJumps) {
    Packets packets = steadyPackets(60'000, kWrap - 30'000 * kMsTicks);
    for (const bool bJump : {false, true}) {
        for (std::size_t ul = 40'000; bJump && ul < packets.size(); ul += 40) {
            packets[ul].llClock += 3600'000 * kMsTicks;
        }
        const MemoryFile file(bytesOf(packets));
        TsReader reader;
        std::string sReason;
        ASSERT_TRUE(tsReaderStart(reader, file.iFile, "file.ts", sReason)) << sReason;
        EXPECT_NEAR(static_cast<double>(reader.llLength) / 1e9, bJump ? 0 : 60, 0.001);
    }
}

TEST(MediaTs, DamageCostsOnlyTheDamagedPackets) {
    const std::string sWhole = bytesOf(steadyPackets(1400));
    const struct {
        const char *pszWhat;
        std::size_t ulAt, ulRemoved;
        std::string sPut;
        std::size_t ulLostAt, ulLost; // of the damaged file
    } aCase[] = {
        {"bytes in between", kTsPacketSize * 701, 0, std::string(250, 'x') + "GxG" + std::string(247, 'x'),
         kTsPacketSize * 701, 500},
        {"a hole larger than a step", kTsPacketSize * 701, 0, std::string(8'000'000, '\0'),
         kTsPacketSize * 701, 8'000'000},
        {"a sync byte lost", kTsPacketSize * 701, 1, "x", kTsPacketSize * 701, 188},
        {"a sync byte lost in the head", kTsPacketSize * 11, 1, "x", kTsPacketSize * 11, 188},
        {"the last but one sync byte lost", kTsPacketSize * 1398, 1, "x", kTsPacketSize * 1398, 188},
        // The damaged packet keeps its place and takes the head of the next packet as its tail. The next is
        // lost.
        {"bytes lost inside a packet", kTsPacketSize * 701 + 50, 30, "", kTsPacketSize * 702, 158},
        {"a cut tail", kTsPacketSize * 1400 - 187, 187, "", kTsPacketSize * 1399, 1},
    };
    for (const auto &testCase : aCase) {
        SCOPED_TRACE(testCase.pszWhat);
        std::string sFile = sWhole;
        sFile.replace(testCase.ulAt, testCase.ulRemoved, testCase.sPut);
        std::string sExpected = sFile;
        sExpected.erase(testCase.ulLostAt, testCase.ulLost);

        testing::internal::CaptureStderr();
        // A name of its own for each case: a repeated report would be left out.
        const Drained drained = play(sFile, testCase.pszWhat);
        const std::string sReports = testing::internal::GetCapturedStderr();

        EXPECT_TRUE(drained.sBytes == sExpected);
        // Each lost packet moves the later ones by a millisecond.
        expectSteady(drained, sExpected.size() / kTsPacketSize, 1.1);
        EXPECT_EQ(sReports,
                  std::string("stream: ") + testCase.pszWhat +
                      (testCase.ulLost == 1
                           ? ": ends with 1 bytes that are no whole packet: they are left out\n"
                           : ": no transport stream packet at byte " + std::to_string(testCase.ulLostAt) +
                                 ": going on with the next ones\n"));
    }
}

TEST(MediaTs, FilesWithoutAClockAreRefused) {
    Packets oneReference(400);
    oneReference[40].llClock = 5 * kMsTicks;
    const Packets standingStill =
        changed(400, 0, 400, 40, [](TsPacket &packet, long long) { packet.llClock = 5 * kMsTicks; });
    constexpr char kNone[] = "its first 16 MiB hold no clock reference (PCR), so its pace is not known";
    constexpr char kNoTwo[] =
        "its first 16 MiB hold no two clock references (PCR) that make sense and are at most a "
        "minute apart, so its pace is not known";
    for (const auto &[pszReason, packets] : {std::pair<const char *, Packets>{kNone, Packets(400)},
                                             {kNoTwo, oneReference},
                                             {kNoTwo, standingStill},
                                             {kNone, Packets(100'000)},
                                             {kNoTwo, packetsOf({{61'000, 400}, {61'000, 400}})},
                                             {kNoTwo, packetsOf({{5'001, 4}})}}) {
        const MemoryFile file(bytesOf(packets));
        TsReader reader;
        std::string sReason;
        EXPECT_FALSE(tsReaderStart(reader, file.iFile, "file.ts", sReason));
        EXPECT_EQ(sReason, pszReason);
    }
}

TEST(MediaTs, ClockGivesTheTimesOfItsLine) {
    constexpr unsigned long long kSecond = 27'000'000;
    const auto next = [](TsClock clock, const TsMark &mark, const TsMark *pAfter = nullptr,
                         unsigned long long ullAsked = 0) {
        tsclockNext(clock, mark, pAfter, ullAsked);
        return clock;
    };
    const auto reached = [](TsClock clock, unsigned long long ullPacket) {
        EXPECT_FALSE(tsclockNeedsNext(clock, ullPacket - 1));
        EXPECT_TRUE(tsclockNeedsNext(clock, ullPacket));
        return clock;
    };
    const auto ended = [](TsClock clock, unsigned long long ullEnd, unsigned long long ullAsked) {
        tsclockEnd(clock, ullEnd, ullAsked);
        return clock;
    };
    TsClock fast, start;
    tsclockStart(fast, 2.0 * kSecond, 0);
    tsclockStart(start, 1000, 48'000);
    EXPECT_TRUE(tsclockNeedsNext(start, 0));
    const TsClock first = next(start, {10, 5'000'000}); // no reference before: at the rate so far
    const TsClock second = next(reached(first, 10), {20, 5'030'000}, nullptr, 10); // 3000 ticks a packet
    const TsClock at = reached(second, 20);
    const TsMark jump{30, 5'030'000 + 4 * kSecond}, same{31, jump.ullClock + kSecond},
        fresh{31, same.ullClock, true};
    const TsClock rest = next(at, {40, 5'035'000}, nullptr, 24);
    const TsClock slow = reached(next(at, {30, 5'030'000 + kSecond}, nullptr, 20), 30);
    const TsClock even = reached(next(reached(first, 10), {1010, 6'000'000}, nullptr, 10), 1010);
    const TsClock odd = reached(next(even, {1020, 6'000'000 + kSecond}, nullptr, 1010), 1020);
    const TsClock slower = reached(next(at, {21, 5'030'000 + 20'000}, nullptr, 20), 21);
    const struct {
        TsClock clock;
        unsigned long long ullPacket;
        long long llDue;
    } aCase[] = {
        {fast, 2, 2 * kSecond}, // a packet takes at most a second
        {start, 5, 5000},
        {first, 5, 5000},
        {second, 15, 25'000},
        {at, 25, 55'000},
        {at, 15, 25'000},                          // also before the line
        {next(at, jump, nullptr, 20), 30, 70'000}, // a jump: at the last rate
        {next(at, jump, &same, 20), 30,
         40'000 + 4 * static_cast<long long>(kSecond)}, // the next one is as long
        {next(at, jump, &fresh, 20), 30, 70'000},
        {next(at, {30, 5'060'000, true}, nullptr, 20), 30, 70'000},
        {next(at, {40, 5'090'000}, nullptr, 24), 32, 76'000}, // found late: 52000 for 24 has been given out
        {next(at, {40, 5'090'000}, nullptr, 24), 40, 100'000},
        {rest, 24, 52'000}, // the reference says 45000, which is over: 250 ticks a packet from here
        {rest, 40, 56'000},
        {slow, 50, 81'040'000},
        {odd, 1121, 30'810'000}, // the average of 1010 packets: the last rate is out of proportion
        {next(even, {1020, 6'004'100}, nullptr, 1010), 1020, 1'014'100},
        {slower, 31, 260'000},
        {ended(at, 30, 20), 25, 55'000},
        {ended(at, 30, 20), 30, 70'000},
        {ended(slower, 31, 21), 31, 87'000},  // no longer than an interval
        {ended(slower, 32, 21), 31, 260'000}, // more packets than an interval has
        {ended(slower, 31, 22), 31, 260'000}, // the time is on its way
        {ended(slower, 21, 21), 31, 260'000},
        {ended(second, 30, 10), 20, 40'000},
    };
    for (std::size_t ul = 0; ul < std::size(aCase); ul++) {
        EXPECT_EQ(tsclockDue(aCase[ul].clock, aCase[ul].ullPacket), aCase[ul].llDue) << "row " << ul;
    }
    EXPECT_TRUE(tsclockDoubts(at, jump));
    EXPECT_FALSE(tsclockDoubts(at, {30, 5'060'000}));
    EXPECT_FALSE(tsclockDoubts(at, {30, 5'030'000 + 60 * kSecond + 1}));
    EXPECT_FALSE(tsclockDoubts(at, {30, jump.ullClock, true}));
    EXPECT_FALSE(tsclockDoubts(start, jump));
}

TEST(MediaTs, BytesThatAreNoPacketAreSaid) {
    testing::internal::CaptureStderr();
    play(std::string(187, 'x') + bytesOf(steadyPackets(100)));
    play(std::string(188, 'x') + bytesOf(steadyPackets(100)));
    std::string sTwice = bytesOf(steadyPackets(700));
    sTwice.insert(301 * kTsPacketSize, 60, 'x');
    sTwice.insert(101 * kTsPacketSize, 50, 'x');
    play(sTwice);
    EXPECT_EQ(reported(),
              "stream: file.ts: 188 bytes before the first packet are left out\n"
              "stream: file.ts: no transport stream packet at byte 18988: going on with the next ones\n"
              "stream: file.ts: 110 bytes in 2 places were no transport stream packets\n");
}

TEST(MediaTs, PacketsAreFoundByTheirRun) {
    const auto run = [](std::size_t ulPackets, std::size_t ulUnit = 188) {
        return bytesOf(Packets(ulPackets), ulUnit == 192 ? 4 : 0, ulUnit == 204 ? 16 : 0);
    };
    const auto junk = [](std::size_t ulBytes) { return std::string(ulBytes, 'x'); };
    const struct {
        std::string sFile;
        unsigned int uiUnit; // 0 none is found
        unsigned long long ullFirst;
    } aCase[] = {{run(5) + junk(500), 188, 0},
                 {run(4) + junk(500), 0, 0},
                 {run(2), 188, 0},
                 {run(1), 0, 0},
                 {run(2) + junk(187), 188, 0},
                 {junk(187) + run(2), 188, 187},
                 {junk(188) + run(2), 0, 0},
                 {junk(188) + run(5), 188, 188},
                 {junk(65'535) + run(9), 188, 65'535},
                 {junk(65'536) + run(9), 0, 0},
                 {run(5, 192) + junk(500), 192, 4},
                 {run(5, 204) + junk(500), 204, 0},
                 {run(5) + junk(77) + run(6, 204), 204, 5 * 188 + 77},
                 {junk(131'072 - 376) + run(2), 0, 0}};
    for (std::size_t ul = 0; ul < std::size(aCase); ul++) {
        const MemoryFile file(aCase[ul].sFile);
        FileWindow window;
        windowOpen(window, file.iFile, kTsProbeSize);
        TsLayout layout;
        EXPECT_EQ(tsFindLayout(window, layout), aCase[ul].uiUnit != 0) << "row " << ul;
        EXPECT_EQ(layout.uiUnit, aCase[ul].uiUnit) << "row " << ul;
        EXPECT_EQ(layout.ullFirst, aCase[ul].ullFirst) << "row " << ul;
    }
}

TEST(MediaTs, ReferenceIsReadToItsLastBit) {
    struct Row {
        unsigned char aPacket[12];
        bool bRead, bDiscontinuity;
        long long llClock; // -1 none
    };
    for (const Row &row :
         {Row{{0x47, 0x01, 0x02, 0x30, 7, 0x10, 1, 2, 3, 4, 0x80, 5}, true, false, 10'145'436'305},
          {{0x47, 0x01, 0x02, 0x20, 183, 0x90, 0, 0, 0, 0, 0x7F, 1}, true, true, 257},
          {{0x47, 0x01, 0x02, 0x20, 183, 0x10, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF},
           true,
           false,
           211},                                                                 // wraps
          {{0x47, 0x01, 0x02, 0x30, 6, 0x90, 1, 2, 3, 4, 5, 6}, true, true, -1}, // no room for a reference
          {{0x47, 0x01, 0x02, 0x30, 1, 0x80, 1, 2, 3, 4, 5, 6}, true, true, -1},
          {{0x47, 0x01, 0x02, 0x30, 6, 0x10, 1, 2, 3, 4, 5, 6}, false, false, -1},
          {{0x47, 0x01, 0x02, 0x30, 7, 0x6F, 1, 2, 3, 4, 5, 6}, false, false, -1},
          {{0x47, 0x01, 0x02, 0x30, 0, 0x90, 1, 2, 3, 4, 5, 6}, false, false, -1},
          {{0x47, 0x01, 0x02, 0x30, 184, 0x90, 1, 2, 3, 4, 5, 6}, false, false, -1},
          {{0x47, 0x01, 0x02, 0x10, 7, 0x90, 1, 2, 3, 4, 5, 6}, false, false, -1},
          {{0x47, 0x81, 0x02, 0x30, 7, 0x90, 1, 2, 3, 4, 5, 6}, false, false, -1},
          {{0x47, 0x1F, 0xFF, 0x30, 7, 0x90, 1, 2, 3, 4, 5, 6}, false, false, -1}}) {
        TsReference reference{};
        ASSERT_EQ(tsReadReference(row.aPacket, reference), row.bRead) << int{row.aPacket[4]};
        if (row.bRead) {
            EXPECT_EQ(reference.uiPID, 0x102U);
            EXPECT_EQ(reference.bDiscontinuity, row.bDiscontinuity);
            EXPECT_EQ(reference.bClock ? static_cast<long long>(reference.ullClock) : -1, row.llClock);
        }
    }
}

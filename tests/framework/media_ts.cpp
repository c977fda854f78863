// Transport stream files: which packets come out, and when they are due.
#include "media_files.h"
#include "tsstream.h"

#include <functional>

namespace {

constexpr long long MS = 27'000; // ticks
constexpr long long WRAP = (1LL << 33) * 300;

struct TSPACKET {
    unsigned int uiPID = 0x100;
    long long llClock = -1; // ticks, -1 none
    bool bDiscontinuity = false;
};

std::string packetBytes(const TSPACKET &Packet, std::size_t ulNumber) {
    std::string sBytes = {0x47, static_cast<char>(Packet.uiPID >> 8), static_cast<char>(Packet.uiPID), 0x10};
    if (Packet.llClock >= 0 || Packet.bDiscontinuity) {
        const unsigned long long ullBase = static_cast<unsigned long long>(Packet.llClock % WRAP) / 300;
        const unsigned int uiExtension = static_cast<unsigned int>(Packet.llClock % WRAP % 300);
        sBytes[3] = 0x30;
        sBytes += static_cast<char>(Packet.llClock >= 0 ? 7 : 1);
        sBytes += static_cast<char>((Packet.bDiscontinuity ? 0x80 : 0) | (Packet.llClock >= 0 ? 0x10 : 0));
        if (Packet.llClock >= 0) {
            for (const unsigned int uiShift : {25U, 17U, 9U, 1U})
                sBytes += static_cast<char>(ullBase >> uiShift);
            sBytes += static_cast<char>((ullBase & 1) << 7 | 0x7E | uiExtension >> 8);
            sBytes += static_cast<char>(uiExtension);
        }
    }
    appendLittle(sBytes, ulNumber, 4);
    sBytes.resize(TS_PACKET, static_cast<char>(0x80 + ulNumber % 64)); // no sync bytes by chance
    return sBytes;
}

std::string bytesOf(const std::vector<TSPACKET> &Packets) {
    std::string sBytes;
    for (std::size_t ul = 0; ul < Packets.size(); ul++)
        sBytes += packetBytes(Packets[ul], ul);
    return sBytes;
}

// A millisecond a packet, a clock reference every 40 packets: run n is due at 7 n ms.
std::vector<TSPACKET> steadyPackets(std::size_t ulPackets, long long llStart = 1000 * MS) {
    std::vector<TSPACKET> Packets(ulPackets);
    for (std::size_t ul = 0; ul < ulPackets; ul += 40)
        Packets[ul].llClock = llStart + static_cast<long long>(ul) * MS;
    return Packets;
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
    const std::vector<TSPACKET> Packets = steadyPackets(1000);
    for (const auto &[ulBefore, ulBehind] : {std::pair{0, 0}, {4, 0}, {0, 16}}) {
        std::string sFile(1000, 'x'); // a head that is no packet
        std::string sExpected;
        for (std::size_t ul = 0; ul < Packets.size(); ul++) {
            sFile += std::string(static_cast<std::size_t>(ulBefore), '\0') + packetBytes(Packets[ul], ul) +
                     std::string(static_cast<std::size_t>(ulBehind), '\xFF');
            sExpected += packetBytes(Packets[ul], ul);
        }

        const DRAINED Drained = play(sFile);

        EXPECT_TRUE(Drained.sBytes == sExpected) << ulBefore << "+188+" << ulBehind;
        EXPECT_EQ(Drained.Lengths.front(), 1316U);
        EXPECT_EQ(Drained.Lengths.back(), 1000U % 7 * 188);
        expectSteady(Drained, Packets.size());
    }
}

// Whatever happens to the clock references, a file of constant rate is played at that rate.
TEST(MediaTs, NoClockNonsenseStallsOrRacesThePlayout) {
    struct CASE {
        const char *pszWhat;
        std::function<std::vector<TSPACKET>()> Build;
    };
    const auto shifted = [](long long llBy, bool bFlag) { // from packet 400 on
        std::vector<TSPACKET> Packets = steadyPackets(1200, 20'000'000 * MS);
        for (std::size_t ul = 400; ul < 1200; ul += 40)
            Packets[ul].llClock += llBy;
        Packets[400].bDiscontinuity = bFlag;
        return Packets;
    };
    const auto without = [](std::size_t ulFrom, std::size_t ulTo, std::size_t ulPackets) {
        std::vector<TSPACKET> Packets = steadyPackets(ulPackets);
        for (std::size_t ul = ulFrom; ul < ulTo; ul++)
            Packets[ul].llClock = -1;
        return Packets;
    };
    const CASE aCase[] = {
        {"wrap", [] { return steadyPackets(1200, WRAP - 333 * MS); }},
        {"flagged discontinuity", [&] { return shifted(50 * MS, true); }},
        {"flagged discontinuity a packet early",
         [&] {
             std::vector<TSPACKET> Packets = shifted(50 * MS, false);
             Packets[399].bDiscontinuity = true;
             return Packets;
         }},
        {"jump back", [&] { return shifted(-3600'000 * MS, false); }},
        {"small jump back", [&] { return shifted(-50 * MS, false); }},
        {"jump forward", [&] { return shifted(3600'000 * MS, false); }},
        {"jump forward by some seconds", [&] { return shifted(5'000 * MS, false); }},
        {"one wild reference",
         [&] {
             std::vector<TSPACKET> Packets = steadyPackets(1200);
             Packets[600].llClock = 77'000'000 * MS;
             return Packets;
         }},
        {"first reference late", [&] { return without(0, 350, 1200); }},
        {"no reference at the end", [&] { return without(600, 1200, 1200); }},
        {"20 s without a reference", [&] { return without(400, 20'400, 22'000); }},
        {"more than the look-ahead without a reference", [&] { return without(400, 40'400, 42'000); }},
        {"the clock moves to another PID",
         [] {
             std::vector<TSPACKET> Packets = steadyPackets(2400);
             for (std::size_t ul = 800; ul < 2400; ul += 40) {
                 Packets[ul].uiPID = 0x200;
                 Packets[ul].llClock += 500'000 * MS;
             }
             return Packets;
         }},
        {"two programs with clocks of their own",
         [] {
             std::vector<TSPACKET> Packets = steadyPackets(1200);
             for (std::size_t ul = 20; ul < 1200; ul += 40)
                 Packets[ul] = {0x200, 9'000'000 * MS + static_cast<long long>(ul) * MS, false};
             return Packets;
         }},
        {"references of damaged and of null packets",
         [] {
             std::vector<TSPACKET> Packets = steadyPackets(1200);
             for (std::size_t ul = 20; ul < 1200; ul += 40)
                 Packets[ul] = {ul % 80 == 20 ? 0x8100U : 0x1FFFU, static_cast<long long>(ul) * 3 * MS,
                                false};
             return Packets;
         }},
    };
    for (const CASE &Case : aCase) {
        SCOPED_TRACE(Case.pszWhat);
        const std::vector<TSPACKET> Packets = Case.Build();

        const DRAINED Drained = play(bytesOf(Packets));

        EXPECT_TRUE(Drained.sBytes == bytesOf(Packets));
        expectSteady(Drained, Packets.size());
    }
}

TEST(MediaTs, ChangeOfRateIsFollowedAndTheLastRateKept) {
    std::vector<TSPACKET> Packets = steadyPackets(1400);
    for (std::size_t ul = 720; ul < 1200; ul += 40) // twice as slow from 680 on
        Packets[ul].llClock = (1680 + 2 * (static_cast<long long>(ul) - 680)) * MS;
    for (std::size_t ul = 1200; ul < 1400; ul++)
        Packets[ul].llClock = -1;

    const DRAINED Drained = play(bytesOf(Packets));

    for (const auto &[ulRun, dMs] :
         {std::pair{90U, 630.0}, {97U, 679.0}, {98U, 692.0}, {150U, 1420.0}, {199U, 2106.0}})
        EXPECT_NEAR(Drained.DueMs[ulRun], dMs, 0.001) << "run " << ulRun;
}

TEST(MediaTs, DamageCostsOnlyTheDamagedPackets) {
    const std::vector<TSPACKET> Packets = steadyPackets(1400);
    const std::string sWhole = bytesOf(Packets);
    struct CASE {
        const char *pszWhat;
        std::function<void(std::string &sFile, std::string &sExpected)> Damage;
    };
    const CASE aCase[] = {
        {"bytes in between", [](std::string &sFile, std::string &) { sFile.insert(188 * 701, 500, 'x'); }},
        {"a hole larger than a step",
         [](std::string &sFile, std::string &) { sFile.insert(188 * 701, 9'000'000, '\0'); }},
        {"a sync byte lost",
         [](std::string &sFile, std::string &sExpected) {
             sFile[188 * 701] = 'x';
             sExpected.erase(188 * 701, 188);
         }},
        {"a sync byte lost in the head",
         [](std::string &sFile, std::string &sExpected) {
             sFile[188 * 11] = 'x';
             sExpected.erase(188 * 11, 188);
         }},
        {"the last but one sync byte lost",
         [](std::string &sFile, std::string &sExpected) {
             sFile[188 * 1398] = 'x';
             sExpected.erase(188 * 1398, 188);
         }},
        {"bytes lost inside a packet",
         [](std::string &sFile, std::string &sExpected) {
             // The packet's place is kept, its tail is the next one's head: that one is lost.
             sFile.erase(188 * 701 + 50, 30);
             sExpected.erase(188 * 701 + 50, 30);
             sExpected.erase(188 * 702, 158);
         }},
        {"a cut tail",
         [](std::string &sFile, std::string &sExpected) {
             sFile.resize(sFile.size() - 100);
             sExpected.resize(sExpected.size() - 188);
         }},
    };
    for (const CASE &Case : aCase) {
        SCOPED_TRACE(Case.pszWhat);
        std::string sFile = sWhole;
        std::string sExpected = sWhole;
        Case.Damage(sFile, sExpected);

        testing::internal::CaptureStderr();
        const DRAINED Drained = play(sFile, Case.pszWhat); // reports that repeat another's words are left out
        const std::string sReports = testing::internal::GetCapturedStderr();

        EXPECT_TRUE(Drained.sBytes == sExpected);
        expectSteady(Drained, sExpected.size() / 188,
                     1.1); // a lost packet moves the others by its millisecond
        EXPECT_EQ(std::count(sReports.begin(), sReports.end(), '\n'), 1) << sReports;
    }
}

TEST(MediaTs, FilesWithoutAClockAreRefused) {
    std::vector<TSPACKET> StandingStill = steadyPackets(400);
    for (std::size_t ul = 0; ul < 400; ul += 40)
        StandingStill[ul].llClock = 5 * MS;
    std::vector<TSPACKET> OneReference(400);
    OneReference[40].llClock = 5 * MS;
    for (const std::vector<TSPACKET> &Packets :
         {std::vector<TSPACKET>(400), OneReference, StandingStill, std::vector<TSPACKET>(100'000)}) {
        const MEMORYFILE File(bytesOf(Packets));
        TSREADER Reader;
        std::string sReason;
        EXPECT_FALSE(tsReaderStart(Reader, File.iFile, "file.ts", sReason));
        EXPECT_NE(sReason.find("clock reference"), std::string::npos) << sReason;
    }
}

TEST(MediaTs, RandomReferencesKeepTheirPace) {
    std::vector<TSPACKET> Packets = steadyPackets(7000);
    unsigned long long ullRandom = 12345;
    for (std::size_t ul = 400; ul < 7000; ul += 3) {
        ullRandom = ullRandom * 6364136223846793005ULL + 1442695040888963407ULL;
        Packets[ul].llClock = static_cast<long long>((ullRandom >> 11) % WRAP);
        Packets[ul].bDiscontinuity = ullRandom % 5 == 0;
    }

    const DRAINED Drained = play(bytesOf(Packets));

    EXPECT_NEAR(Drained.DueMs.back(), 6993.0, 3000.0);
    for (std::size_t ul = 1; ul < Drained.DueMs.size(); ul++)
        ASSERT_LE(Drained.DueMs[ul] - Drained.DueMs[ul - 1], 1000.0);
}

// Streams as a player sees them: what is opened at all, the clock in real time, files that change in play.
#include "media_files.h"

#include <fcntl.h>
#include <memory>
#include <qxapi.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <time.h>

namespace {

using STREAMOWNER = std::unique_ptr<ts_qxapi_stream, decltype(&qxapi_close_stream)>;

STREAMOWNER openStream(const std::string &sPath) {
    return {qxapi_open_stream(sPath.c_str()), qxapi_close_stream};
}

// ulPackets transport stream packets with a clock reference in every tenth, ulMicroseconds apart.
std::string transportStream(std::size_t ulPackets, unsigned long ulMicroseconds) {
    std::string sFile;
    for (std::size_t ul = 0; ul < ulPackets; ul++) {
        std::string sPacket = {0x47, 1, 0, 0x10};
        if (ul % 10 == 0) {
            const unsigned long ulBase = ul * ulMicroseconds * 9 / 100;
            sPacket = {0x47, 1, 0, 0x30, 7, 0x10, 0};
            sPacket += static_cast<char>(ulBase >> 17);
            sPacket += static_cast<char>(ulBase >> 9);
            sPacket += static_cast<char>(ulBase >> 1);
            sPacket += static_cast<char>((ulBase & 1) << 7);
            sPacket += '\0';
        }
        appendLittle(sPacket, ul, 4);
        sPacket.resize(188, '-');
        sFile += sPacket;
    }
    return sFile;
}

double milliseconds(clockid_t iClock) {
    timespec Now{};
    clock_gettime(iClock, &Now);
    return static_cast<double>(Now.tv_sec) * 1e3 + static_cast<double>(Now.tv_nsec) / 1e6;
}

// Plays the stream to its end and returns what came out; after pAfterRun(run) of each.
template <typename AFTERRUN>
std::string playStream(ts_qxapi_stream &Stream, AFTERRUN &&pAfterRun) {
    std::string sBytes;
    for (unsigned int uiRun = 0; !Stream.pIsAtEnd(&Stream);) {
        ts_qxapi_packet *pPacket = Stream.pNextPacket(&Stream);
        if (!pPacket) {
            qxapi_load_balance();
            continue;
        }
        sBytes.append(reinterpret_cast<const char *>(pPacket->pData), pPacket->uiLength);
        Stream.pReleasePacket(&Stream, pPacket);
        pAfterRun(uiRun++);
    }
    return sBytes;
}

} // namespace

TEST(MediaStream, WhatCannotBePlayedIsRefusedByName) {
    ASSERT_EQ(mkfifo("/tmp/media.fifo", 0600), 0);
    const MEMORYFILE Empty("");
    const MEMORYFILE Text(std::string(5000, 'G'));
    const MEMORYFILE Page("<html><body>GGGG</body></html>");
    const struct {
        std::string sPath;
        const char *pszReason;
    } aCase[] = {
        {"/nowhere/file.ts", "No such file"}, {"/tmp", "a directory"},
        {"/tmp/media.fifo", "a FIFO"},        {"/dev/zero", "a device"},
        {Empty.sPath, "it is empty"},         {Page.sPath, "neither an ASF file"},
        {"/proc/self/mem", "cannot be read"},
    };
    for (const auto &Case : aCase) {
        testing::internal::CaptureStderr();
        EXPECT_FALSE(openStream(Case.sPath)) << Case.sPath;
        const std::string sReport = testing::internal::GetCapturedStderr();
        EXPECT_NE(sReport.find(Case.sPath), std::string::npos) << sReport;
        EXPECT_NE(sReport.find(Case.pszReason), std::string::npos) << sReport;
    }
    unlink("/tmp/media.fifo");
    EXPECT_FALSE(openStream(""));
    EXPECT_EQ(qxapi_open_stream(nullptr), nullptr);

    // Sync bytes and nothing else pass for a transport stream, but have no clock.
    const STREAMOWNER pStream = openStream(Text.sPath);
    ASSERT_TRUE(pStream);
    EXPECT_EQ(pStream->pStart(pStream.get()), 0);
    EXPECT_NE(pStream->pIsAtEnd(pStream.get()), 0);
    EXPECT_EQ(pStream->pNextPacket(pStream.get()), nullptr);
}

TEST(MediaStream, PlayoutTakesTheFilesTimeAndHoldsTheScheduleAfterADelay) {
    const std::string sFile = transportStream(700, 1000); // 0.7 s, the last run at 693 ms
    const MEMORYFILE File(sFile);
    const STREAMOWNER pStream = openStream(File.sPath);
    ASSERT_TRUE(pStream);
    ASSERT_EQ(pStream->pStart(pStream.get()), 1);
    EXPECT_EQ(pStream->pStart(pStream.get()), 0);
    const double dStart = milliseconds(CLOCK_MONOTONIC);
    const double dCPU = milliseconds(CLOCK_THREAD_CPUTIME_ID);

    const std::string sBytes = playStream(*pStream, [](unsigned int uiRun) {
        if (uiRun == 20)
            usleep(400'000);
    });

    EXPECT_TRUE(sBytes == sFile);
    const double dTaken = milliseconds(CLOCK_MONOTONIC) - dStart;
    EXPECT_GE(dTaken, 692.0);
    EXPECT_LE(dTaken, 800.0);                                       // 700 and the delay would be 900
    EXPECT_LE(milliseconds(CLOCK_THREAD_CPUTIME_ID) - dCPU, 350.0); // it sleeps in between
}

TEST(MediaStream, OnePacketIsLentAtATime) {
    const MEMORYFILE File(transportStream(700, 2));
    const STREAMOWNER pStream = openStream(File.sPath);
    ASSERT_TRUE(pStream);
    ASSERT_EQ(pStream->pStart(pStream.get()), 1);
    ts_qxapi_packet *pPacket = pStream->pNextPacket(pStream.get());
    ASSERT_NE(pPacket, nullptr);
    usleep(20'000);
    EXPECT_EQ(pStream->pNextPacket(pStream.get()), nullptr);
    EXPECT_EQ(pStream->pIsAtEnd(pStream.get()), 0);
    EXPECT_EQ(pPacket->pData[16], '-'); // what is lent stays
    EXPECT_EQ(pPacket->pData[12], 0);
    pStream->pReleasePacket(pStream.get(), pPacket);
    EXPECT_NE(pStream->pNextPacket(pStream.get()), nullptr);
}

TEST(MediaStream, FileThatShrinksEndsAndOneThatGrowsGoesOn) {
    const std::string sFile = transportStream(7000, 20);
    for (const bool bGrow : {false, true}) {
        const MEMORYFILE File(sFile);
        const STREAMOWNER pStream = openStream(File.sPath);
        ASSERT_TRUE(pStream);
        ASSERT_EQ(pStream->pStart(pStream.get()), 1);
        const auto change = [&] {
            return bGrow ? pwrite(File.iFile, sFile.data(), 188 * 7, 188 * 7000) == 188 * 7
                         : ftruncate(File.iFile, 188 * 3000 + 50) == 0;
        };

        const std::string sBytes = playStream(*pStream, [&](unsigned int uiRun) {
            if (uiRun == 100) {
                EXPECT_TRUE(change());
            }
        });

        if (bGrow) {
            EXPECT_TRUE(sBytes == sFile + sFile.substr(0, 188 * 7));
        } else {
            EXPECT_LE(sBytes.size(), 188U * 3700); // what was read before
            EXPECT_TRUE(sBytes == sFile.substr(0, sBytes.size()));
        }
    }
}

TEST(MediaStream, SparseFileOfManyTimesTheMemoryIsPlayed) {
    const std::string sPart = transportStream(700, 10);
    const MEMORYFILE File(sPart);
    ASSERT_EQ(pwrite(File.iFile, sPart.data(), sPart.size(), 300'000'001),
              static_cast<ssize_t>(sPart.size()));
    rusage Before{};
    getrusage(RUSAGE_SELF, &Before);
    const STREAMOWNER pStream = openStream(File.sPath);
    ASSERT_TRUE(pStream);
    ASSERT_EQ(pStream->pStart(pStream.get()), 1);

    const std::string sBytes = playStream(*pStream, [](unsigned int) {});

    rusage After{};
    getrusage(RUSAGE_SELF, &After);
    EXPECT_TRUE(sBytes == sPart + sPart);
    EXPECT_LE(After.ru_maxrss - Before.ru_maxrss, 32 * 1024);
}

// Tests of streams as a player sees them: which files open, the clock in real time, files that change while
// played.
#include "ktn_support.h"
#include "media_files.h"

#include <chrono>
#include <ctime>
#include <memory>
#include <qxapi.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>

namespace {

using namespace std::chrono_literals;
constexpr std::size_t kRunSize = std::size_t{188} * 7; // bytes of a full run
using StreamOwner = std::unique_ptr<ts_qxapi_stream, decltype(&qxapi_close_stream)>;

StreamOwner openStream(const std::string &sPath) {
    return {qxapi_open_stream(sPath.c_str()), qxapi_close_stream};
}

StreamOwner startedStream(const std::string &sPath) {
    StreamOwner pStream = openStream(sPath);
    EXPECT_TRUE(pStream && pStream->pStart(pStream.get()) == 1);
    return pStream;
}

// Returns ulPackets transport stream packets that are ulMicroseconds apart. Every tenth has a clock
// reference.
std::string transportStream(std::size_t ulPackets, unsigned long ulMicroseconds) {
    std::string sFile;
    for (std::size_t ul = 0; ul < ulPackets; ul++) {
        sFile += tsPacketBytes(ul, ul % 10 == 0 ? static_cast<long long>(ul * ulMicroseconds * 27) : -1);
    }
    return sFile;
}

// Plays the stream to its end and returns the bytes that came out. Calls pAfterRun(n) after run n.
template <typename AfterRun>
std::string playStream(ts_qxapi_stream &stream, AfterRun &&pAfterRun) {
    std::string sBytes;
    for (unsigned int uiRun = 0; !stream.pIsAtEnd(&stream);) {
        ts_qxapi_packet *pPacket = stream.pNextPacket(&stream);
        if (!pPacket) {
            qxapi_load_balance();
            continue;
        }
        sBytes.append(reinterpret_cast<const char *>(pPacket->pData), pPacket->uiLength);
        stream.pReleasePacket(&stream, pPacket);
        pAfterRun(uiRun++);
    }
    return sBytes;
}

} // namespace

TEST(MediaStream, WhatCannotBePlayedIsRefusedByName) {
    ASSERT_EQ(mkfifo("/tmp/media.fifo", 0600), 0);
    PlainSocket socket("/tmp/media.socket");
    ASSERT_TRUE(socket.bindTo());
    const MemoryFile empty("");
    const MemoryFile text(std::string(5000, 'G'));
    const MemoryFile page("<html><body>GGGG</body></html>");
    const std::pair<std::string, const char *> aCase[] = {
        {"/nowhere/file.ts", "it cannot be opened: No such file or directory"},
        {"/tmp", "it is a directory, not a regular file"},
        {"/tmp/media.fifo", "it is a FIFO, not a regular file"},
        {"/dev/zero", "it is a device, not a regular file"},
        {socket.address.sun_path, "it is a socket, not a regular file"},
        {empty.sPath, "it is empty"},
        {page.sPath, "it is neither an ASF file nor an MPEG transport stream"},
        {"/proc/self/mem", "it cannot be read: Input/output error"}};
    for (const auto &[sPath, pszReason] : aCase) {
        testing::internal::CaptureStderr();
        EXPECT_FALSE(openStream(sPath)) << sPath;
        EXPECT_EQ(reported(), "stream: " + sPath + " cannot be played: " + pszReason + "\n");
    }
    unlink("/tmp/media.socket");
    unlink("/tmp/media.fifo");
    testing::internal::CaptureStderr();
    EXPECT_FALSE(openStream(""));
    EXPECT_EQ(reported(), "stream: no file is named\n");
    EXPECT_EQ(qxapi_open_stream(nullptr), nullptr);
    qxapi_close_stream(nullptr);
    testing::internal::CaptureStderr();
    failOnce("new", 0);
    EXPECT_FALSE(openStream("/proc/self/exe"));
    EXPECT_EQ(reported(), "stream: /proc/self/exe cannot be played: no memory\n");

    // Sync bytes alone pass for a transport stream, but have no clock.
    const StreamOwner pStream = openStream(text.sPath);
    ASSERT_TRUE(pStream);
    testing::internal::CaptureStderr();
    EXPECT_EQ(pStream->pStart(pStream.get()), 0);
    failOnce("new", 0);
    EXPECT_EQ(pStream->pStart(pStream.get()), 0);
    EXPECT_EQ(
        reported(text.sPath),
        "stream: $ cannot be played: its first 16 MiB hold no clock reference (PCR), so its pace is not "
        "known\nstream: $ cannot be played: no memory\n");
    EXPECT_NE(pStream->pIsAtEnd(pStream.get()), 0);
    EXPECT_EQ(pStream->pNextPacket(pStream.get()), nullptr);
}

TEST(MediaStream, PlayoutTakesTheFilesTimeAndHoldsTheScheduleAfterADelay) {
    const std::string sFile = transportStream(700, 1000); // 0.7 s, the last run at 693 ms
    const MemoryFile file(sFile);
    const auto start = std::chrono::steady_clock::now();
    const int iSlack = prctl(PR_GET_TIMERSLACK);
    std::string sBytes;
    sBytes.reserve(sFile.size());
    const long lObjects = faults().lObjects;
    StreamOwner pStream = startedStream(file.sPath);
    EXPECT_EQ(prctl(PR_GET_TIMERSLACK), 1);
    testing::internal::CaptureStderr();
    EXPECT_EQ(pStream->pStart(pStream.get()), 0);
    EXPECT_EQ(reported(), "stream: " + file.sPath + ": started a second time: it plays on\n");
    ts_qxapi_packet *pFirst = pStream->pNextPacket(pStream.get()), other{};
    ASSERT_NE(pFirst, nullptr);
    sBytes.assign(reinterpret_cast<const char *>(pFirst->pData), pFirst->uiLength);
    usleep(20'000); // the next is due
    pStream->pReleasePacket(pStream.get(), &other);
    EXPECT_EQ(pStream->pNextPacket(pStream.get()), nullptr) << "one is still lent";
    pStream->pReleasePacket(pStream.get(), pFirst);
    const std::clock_t lProcessor = std::clock();

    sBytes += playStream(*pStream, [](unsigned int uiRun) {
        if (uiRun == 20) {
            usleep(400'000);
        }
    });
    pStream.reset();
    EXPECT_EQ(prctl(PR_GET_TIMERSLACK), iSlack);
    EXPECT_EQ(faults().lObjects, lObjects);

    EXPECT_TRUE(sBytes == sFile);
    const auto taken = std::chrono::steady_clock::now() - start;
    EXPECT_GE(taken, 692ms);
    EXPECT_LT(taken, 1090ms);                                        // the file's time and the delay
    EXPECT_LE(std::clock() - lProcessor, CLOCKS_PER_SEC * 35 / 100); // it sleeps in between
}

TEST(MediaStream, FileThatShrinksEndsAndOneThatGrowsGoesOn) {
    const std::string sFile = transportStream(7000, 20);
    for (const bool bGrow : {false, true}) {
        const MemoryFile file(sFile);
        const StreamOwner pStream = startedStream(file.sPath);
        const std::string sBytes = playStream(*pStream, [&](unsigned int uiRun) {
            if (uiRun == 100) {
                ASSERT_TRUE(bGrow ? pwrite(file.iFile, sFile.data(), kRunSize, off_t{188} * 7000) == kRunSize
                                  : ftruncate(file.iFile, off_t{188} * 3000 + 50) == 0);
            }
        });

        EXPECT_TRUE(sBytes == (sFile + sFile.substr(0, kRunSize)).substr(0, sBytes.size()));
        EXPECT_GE(sBytes.size(), bGrow ? 188U * 7007 : 188U * 700);
        EXPECT_LE(sBytes.size(), bGrow ? 188U * 7007 : 188U * 3700); // what was read ahead comes out too
    }
}

TEST(MediaStream, ProgressOfRealFilesIsTold) {
    for (const auto &[pszFile, ulLengthMs] : {std::pair{"sample.ts", 12'077UL}, {"sample.asf", 6'046UL}}) {
        SCOPED_TRACE(pszFile);
        ts_qxapi_stream_progress progress{1, 2, 3};
        const StreamOwner pStream = openStream(std::string(SAMPLES) + pszFile);
        EXPECT_EQ(qxapi_stream_progress(pStream.get(), &progress), 0);
        EXPECT_EQ(progress.ulPositionMs, 1U);
        ASSERT_EQ(pStream->pStart(pStream.get()), 1);
        ASSERT_EQ(qxapi_stream_progress(pStream.get(), &progress), 1);
        EXPECT_EQ(progress.ulPositionMs, 0U);
        EXPECT_NEAR(static_cast<double>(progress.ulLengthMs), static_cast<double>(ulLengthMs), 1);
        EXPECT_EQ(progress.ulLate, 0U);

        usleep(300'000); // all that was due until now is late, except for the last 10 ms
        unsigned long ulPackets = 0;
        while (ts_qxapi_packet *pPacket = pStream->pNextPacket(pStream.get())) {
            pStream->pReleasePacket(pStream.get(), pPacket);
            ulPackets++;
        }
        ASSERT_EQ(qxapi_stream_progress(pStream.get(), &progress), 1);
        EXPECT_GE(progress.ulPositionMs, 200U);
        EXPECT_LE(progress.ulPositionMs, 2000U);
        EXPECT_GE(progress.ulLate, 3U);
        EXPECT_LE(progress.ulLate, ulPackets);
    }
    EXPECT_EQ(qxapi_stream_progress(nullptr, nullptr), 0);
}

TEST(MediaStream, SparseFileOfManyTimesTheMemoryIsPlayed) {
    const std::string sPart = transportStream(700, 10);
    const MemoryFile file(sPart + std::string(3'000'000, '\0')); // more than one step of the reader
    ASSERT_EQ(pwrite(file.iFile, sPart.data(), sPart.size(), 5'000'000'001),
              static_cast<ssize_t>(sPart.size()));
    rusage before{};
    getrusage(RUSAGE_SELF, &before);
    const StreamOwner pStream = startedStream(file.sPath);

    const std::string sBytes = playStream(*pStream, [](unsigned int) {});

    rusage after{};
    getrusage(RUSAGE_SELF, &after);
    EXPECT_TRUE(sBytes == sPart + sPart);
    EXPECT_LE(after.ru_maxrss - before.ru_maxrss, 32 * 1024);
}

// Tests of the framework's threads, log and yields.
#include "report.h"

#include <qxapi.h>
#include <vexa_pgl.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <map>
#include <pthread.h>
#include <string>
#include <sys/resource.h>
#include <thread>
#include <vector>

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// What a started thread found. bDone hands the rest over to the test.
struct Seen {
    sigset_t mask;
    char szName[16];
    std::atomic<bool> bDone{false};
};

void *lookAround(void *pGiven) {
    auto *pSeen = static_cast<Seen *>(pGiven);
    pthread_sigmask(SIG_SETMASK, nullptr, &pSeen->mask);
    pthread_getname_np(pthread_self(), pSeen->szName, sizeof pSeen->szName);
    pSeen->bDone = true;
    return nullptr;
}

TEST(Thread, ProcessSignalsStayAwayAndFaultsAreSeen) {
    Seen seen;
    ASSERT_EQ(qxapi_detached_thread_tag(lookAround, &seen, "ATagThatIsTooLong", 12), 1);
    for (int i = 0; i < 1000 && !seen.bDone; i++) {
        std::this_thread::sleep_for(5ms);
    }
    ASSERT_TRUE(seen.bDone);
    EXPECT_STREQ(seen.szName, "ATagThatIsTooLo");
    for (const int iSignal : {SIGINT, SIGTERM, SIGHUP, SIGUSR1, SIGALRM, SIGCHLD, SIGPIPE}) {
        EXPECT_EQ(sigismember(&seen.mask, iSignal), 1) << iSignal;
    }
    EXPECT_EQ(sigismember(&seen.mask, SIGSEGV), 0);
    sigset_t own;
    pthread_sigmask(SIG_SETMASK, nullptr, &own);
    EXPECT_EQ(sigismember(&own, SIGTERM), 0) << "the starter's mask is its own";
}

TEST(Console, LogRecordsOfThreadsNeverMix) {
    const std::string path = testing::TempDir() + "host_test.log";
    std::ofstream(path) << "before\n";
    setenv("QX_LOG_FILE", path.c_str(), 1);
    std::map<std::string, int> expected{{"before", 1}}, lines;
    std::vector<std::thread> threads;
    for (const std::string &text : {std::string(40, 'a'), std::string(5000, 'b'), std::string(5000, 'c')}) {
        expected["[t] " + text] = 100;
        threads.emplace_back([text] {
            for (int iTime = 0; iTime < 100; iTime++) {
                qxapi_log_printf("t", "%s", text.c_str());
            }
        });
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
    unsetenv("QX_LOG_FILE");
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);) {
        lines[line]++;
    }
    EXPECT_EQ(lines, expected);
    std::remove(path.c_str());

    testing::internal::CaptureStderr();
    setenv("QX_LOG_FILE", "/dev/full", 1);
    EXPECT_EQ(qxapi_log_printf("t", "x"), -1);
    unsetenv("QX_LOG_FILE");
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "qxapi_log_printf: a record of [t] is lost: /dev/full: No space left on device\n");
}

TEST(Yield, PausesAreShortAndIdleLoopsCostLittle) {
    const auto spent = [] {
        rusage usage;
        getrusage(RUSAGE_SELF, &usage);
        return std::chrono::seconds(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
               std::chrono::microseconds(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec);
    };
    for (const auto pause : {vexa_load_balance, qxapi_load_balance}) {
        const auto before = spent();
        std::vector<std::thread> threads;
        threads.reserve(5);
        for (int i = 0; i < 5; i++) {
            threads.emplace_back([pause, started = Clock::now()] {
                int iPasses = 0;
                for (; Clock::now() - started < 2s; iPasses++) {
                    pause();
                }
                EXPECT_LE(iPasses, 250); // no pause below 8 ms
                EXPECT_GE(iPasses, 50);  // on average no pause above 40 ms, even on a busy machine
            });
        }
        for (std::thread &thread : threads) {
            thread.join();
        }
        EXPECT_LT(spent() - before, 100ms) << "five idle loops, 5 % of one core";
    }
}

TEST(Clock, TheWallClockIsStoredReturnedAndTurnedIntoADate) {
    unsigned long ulStored = 0;
    const unsigned long ulReturned = vexa_time(&ulStored);
    EXPECT_EQ(ulStored, ulReturned);
    EXPECT_LE(static_cast<unsigned long>(std::time(nullptr)) - ulReturned + 1, 2u);

    unsigned long ulSeconds = 0, ulMicroseconds = 1'000'000;
    EXPECT_EQ(qxapi_time_ex2(&ulSeconds, &ulMicroseconds), 1);
    EXPECT_LE(ulSeconds - ulReturned, 1u);
    EXPECT_LT(ulMicroseconds, 1'000'000u);
    EXPECT_EQ(qxapi_time_ex2(nullptr, nullptr), 1);

    tm local{}, expected{};
    const auto now = static_cast<time_t>(ulReturned);
    EXPECT_EQ(qxapi_local_time(ulReturned, &local), 1);
    localtime_r(&now, &expected);
    EXPECT_EQ(std::string(std::asctime(&local)), std::asctime(&expected));
    EXPECT_EQ(qxapi_local_time(~0ul, &local), 0);
    EXPECT_EQ(local.tm_mday, 0) << "cleared";
    EXPECT_EQ(qxapi_local_time(0, nullptr), 0);
}

TEST(Report, ControlCharactersDoNotReachTheTerminal) {
    testing::internal::CaptureStderr();
    frameworkReport("who", "%s", "a\x7f\x1b[2Jb\n\tc");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "who: a??[2Jb??c\n");
}

} // namespace

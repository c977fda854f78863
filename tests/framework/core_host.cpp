// Tests of the framework's threads, log and yields.
#include "ktn_support.h"
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
    int iDetached = 0;
    std::atomic<bool> bDone{false};
};

void *lookAround(void *pGiven) {
    auto *pSeen = static_cast<Seen *>(pGiven);
    pthread_sigmask(SIG_SETMASK, nullptr, &pSeen->mask);
    pthread_getname_np(pthread_self(), pSeen->szName, sizeof pSeen->szName);
    pthread_attr_t attributes;
    pthread_getattr_np(pthread_self(), &attributes);
    pthread_attr_getdetachstate(&attributes, &pSeen->iDetached);
    pthread_attr_destroy(&attributes);
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
    for (const int iFault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS}) {
        EXPECT_EQ(sigismember(&seen.mask, iFault), 0) << iFault;
    }
    EXPECT_EQ(seen.iDetached, PTHREAD_CREATE_DETACHED);
    sigset_t own;
    pthread_sigmask(SIG_SETMASK, nullptr, &own);
    EXPECT_EQ(sigismember(&own, SIGTERM), 0) << "the starter's mask is its own";

    testing::internal::CaptureStderr();
    EXPECT_EQ(qxapi_detached_thread_tag(nullptr, nullptr, "tag", 12), 0);
    failOnce("new", 0);
    EXPECT_EQ(qxapi_detached_thread_tag(lookAround, nullptr, nullptr, 13), 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "qxapi_detached_thread_tag: tag:12: no thread body is given\n"
              "qxapi_detached_thread_tag: qxapi:13: thread not started: Cannot allocate memory\n");
}

TEST(Console, LinesAndRecordsAreWrittenWhole) {
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    EXPECT_EQ(qxapi_printf("%d lines\n", 2), 8);
    EXPECT_EQ(qxapi_log_printf("t", "%s", ""), 5);
    for (const char *pszFault : {"none", "write", "half of a write"}) {
        failOnce(pszFault, EINTR);
        EXPECT_EQ(qxapi_log_printf("t", "x\n"), 6) << pszFault;
    }
    setenv("QX_LOG_FILE", "", 1);
    EXPECT_EQ(qxapi_log_printf(nullptr, "x"), 9);
    unsetenv("QX_LOG_FILE");
    EXPECT_EQ(qxapi_log_printf("t", "%ls", L"\x7FFFFFFF"),
              -1); // no character: the record cannot be formatted
    qxapi_assert_gateway(0, "file.c", "call", 7, nullptr);
    qxapi_assert_gateway(1, "file.c", "call", 8, "holds");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "2 lines\n[t] \n[t] x\n[t] x\n[t] x\n[NULL] x\n");
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "qxapi_log_printf: a record of [t] is lost: no memory for it\n"
              "file.c:7: call(): assertion does not hold: NULL\n");
    EXPECT_STREQ(qxapi_check_string("x"), "x");

    const char *const aText[] = {"x"};
    const ts_qxapi_plugin_argument arguments[] = {
        {1, aText}, {0, nullptr}, {0, aText}, {-1, aText}, {1, nullptr}};
    std::vector<int> counts = {qxapi_get_plugin_argument(nullptr)};
    for (const ts_qxapi_plugin_argument &argument : arguments) {
        counts.push_back(qxapi_get_plugin_argument(&argument));
    }
    EXPECT_EQ(counts, (std::vector<int>{0, 1, 0, 0, -1, -1}));

    const int iFull = open("/dev/full", O_WRONLY | O_CLOEXEC), iOut = dup(STDOUT_FILENO);
    dup2(iFull, STDOUT_FILENO);
    EXPECT_EQ(qxapi_printf("lost\n"), -1);
    dup2(iOut, STDOUT_FILENO);
    close(iFull);
    close(iOut);
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
                int iPasses = 0, iAtMultiple = 0;
                for (; Clock::now() - started < 2s; iPasses++) {
                    pause();
                    timespec now{};
                    clock_gettime(CLOCK_REALTIME, &now);
                    iAtMultiple += now.tv_nsec % 20'000'000 < 8'000'000;
                }
                // Even on a busy machine, most pauses end soon after a multiple of 20 ms.
                EXPECT_TRUE(pause != vexa_load_balance || iAtMultiple > iPasses / 2) << iAtMultiple;
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

    unsigned long ulSeconds = 0, ulMicroseconds = 0;
    const auto before = std::chrono::system_clock::now().time_since_epoch();
    EXPECT_EQ(qxapi_time_ex2(&ulSeconds, &ulMicroseconds), 1);
    const auto read = std::chrono::seconds(ulSeconds) + std::chrono::microseconds(ulMicroseconds);
    EXPECT_GE(read + 1us, before);
    EXPECT_LE(read, std::chrono::system_clock::now().time_since_epoch());
    EXPECT_EQ(vexa_time(nullptr) - ulReturned, ulSeconds - ulReturned);
    EXPECT_EQ(vexa_get_global_break(), 0);
    vexa_set_global_break(7);
    EXPECT_NE(vexa_get_global_break(), 0);
    vexa_set_global_break(0);
    EXPECT_EQ(vexa_get_global_break(), 0);
    EXPECT_EQ(qxapi_time_ex2(nullptr, nullptr), 1);

    tm local{}, expected{};
    const auto now = static_cast<time_t>(ulReturned);
    EXPECT_EQ(qxapi_local_time(ulReturned, &local), 1);
    localtime_r(&now, &expected);
    EXPECT_EQ(std::string(std::asctime(&local)), std::asctime(&expected));
    EXPECT_EQ(qxapi_local_time(~0ul, &local), 0);
    EXPECT_EQ(local.tm_mday, 0) << "cleared";
    EXPECT_EQ(qxapi_local_time(1ul << 62, &local), 0) << "no calendar has the year";
    EXPECT_EQ(qxapi_local_time(0, &local), 1);
    EXPECT_EQ(qxapi_local_time(0, nullptr), 0);
}

TEST(Report, ControlCharactersDoNotReachTheTerminal) {
    testing::internal::CaptureStderr();
    frameworkReport("who", "%s", "a\x7f\x1b[2Jb\n\tc");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "who: a??[2Jb??c\n");
}

TEST(Report, LineIsCutToItsRoomAndRepeatedAfterTenSecondsOnly) {
    testing::internal::CaptureStderr();
    errno = EXDEV;
    for (const long lStep : {0L, 9L, 2L, 0L}) {
        faults().lAhead += lStep;
        frameworkReport("who", "again");
    }
    EXPECT_EQ(errno, EXDEV);
    frameworkReport("who", "%s", std::string(600, 'x').c_str());
    frameworkReport(std::string(600, 'w').c_str(), "y");
    std::string expected =
        "who: again\nwho: again\nwho: " + std::string(505, 'x') + "\n" + std::string(510, 'w') + "\n";
    for (int i = 0; i < 65; i++) { // 64 lines are remembered
        frameworkReport("who", "%d", i);
        frameworkReport("who", "%d", std::max(0, i - 63));
        expected += "who: " + std::to_string(i) + "\n";
    }
    frameworkReport("who", "0");
    expected += "who: 0\n";
    EXPECT_EQ(testing::internal::GetCapturedStderr(), expected);
}

} // namespace

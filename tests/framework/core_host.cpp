// Threads, console, log, time, texts and yields of the stand-in framework.
#include <qxapi.h>
#include <vexa_pgl.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <pthread.h>
#include <string>
#include <sys/resource.h>
#include <thread>
#include <vector>

namespace {

using namespace std::chrono_literals;
using CLOCK = std::chrono::steady_clock;

// What a started thread found, handed over by bDone.
struct SEEN {
    sigset_t Mask;
    char szName[16];
    std::atomic<bool> bDone{false};
};

void *lookAround(void *pGiven) {
    auto *pSeen = static_cast<SEEN *>(pGiven);
    pthread_sigmask(SIG_SETMASK, nullptr, &pSeen->Mask);
    pthread_getname_np(pthread_self(), pSeen->szName, sizeof pSeen->szName);
    pSeen->bDone = true;
    return nullptr;
}

TEST(Thread, ProcessSignalsStayAwayAndFaultsAreSeen) {
    SEEN Seen;
    ASSERT_EQ(qxapi_detached_thread_tag(lookAround, &Seen, "ATagThatIsTooLong", 12), 1);
    for (int i = 0; i < 1000 && !Seen.bDone; i++)
        std::this_thread::sleep_for(5ms);
    ASSERT_TRUE(Seen.bDone);
    EXPECT_STREQ(Seen.szName, "ATagThatIsTooLo");
    for (const int iSignal : {SIGINT, SIGTERM, SIGHUP, SIGUSR1, SIGALRM, SIGCHLD, SIGPIPE})
        EXPECT_EQ(sigismember(&Seen.Mask, iSignal), 1) << iSignal;
    EXPECT_EQ(sigismember(&Seen.Mask, SIGSEGV), 0);
    sigset_t Own;
    pthread_sigmask(SIG_SETMASK, nullptr, &Own);
    EXPECT_EQ(sigismember(&Own, SIGTERM), 0) << "the starter's mask is its own";
}

TEST(Thread, FailedStartIsReportedAndReturns0) {
    pthread_attr_t Usual, Huge;
    pthread_getattr_default_np(&Usual);
    pthread_attr_init(&Huge);
    pthread_attr_setstacksize(&Huge, size_t{1} << 50);
    ASSERT_EQ(pthread_setattr_default_np(&Huge), 0);
    SEEN Seen;
    testing::internal::CaptureStderr();
    EXPECT_EQ(qxapi_detached_thread_tag(lookAround, &Seen, "tag", 34), 0);
    EXPECT_EQ(qxapi_detached_thread_tag(nullptr, &Seen, nullptr, 35), 0);
    const std::string Printed = testing::internal::GetCapturedStderr();
    pthread_setattr_default_np(&Usual);
    EXPECT_NE(Printed.find("tag:34: thread not started"), std::string::npos) << Printed;
    EXPECT_NE(Printed.find(":35: no thread body"), std::string::npos) << Printed;
    EXPECT_FALSE(Seen.bDone);
}

TEST(Console, AssertionsAndLostRecordsAreNamed) {
    testing::internal::CaptureStderr();
    qxapi_assert_gateway(1, "file.c", "function", 7, "quiet");
    qxapi_assert_gateway(0, "file.c", "function", 8, "p != NULL");
    qxapi_assert_gateway(0, nullptr, nullptr, 9, nullptr);
    setenv("QX_LOG_FILE", "/nosuchfolder/log", 1);
    EXPECT_EQ(qxapi_log_printf("play", "lost"), -1);
    unsetenv("QX_LOG_FILE");
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "file.c:8: function(): assertion does not hold: p != NULL\n"
              "NULL:9: NULL(): assertion does not hold: NULL\n"
              "qxapi_log_printf: a record of [play] is lost: /nosuchfolder/log: No such file or directory\n");
}

TEST(Console, LogRecordKeepsItsPlaceBetweenPrintedLines) {
    testing::internal::CaptureStdout();
    EXPECT_EQ(qxapi_printf("a%d\n", 1), 3);
    printf("b\n");
    EXPECT_EQ(qxapi_log_printf("play", "%s %d", "x", 5), 11);
    EXPECT_EQ(qxapi_log_printf(nullptr, "line\n"), 12);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "a1\nb\n[play] x 5\n[NULL] line\n");
}

TEST(Console, LogRecordsOfThreadsNeverMix) {
    const std::string Path = testing::TempDir() + "host_test.log";
    std::ofstream(Path) << "before\n";
    setenv("QX_LOG_FILE", Path.c_str(), 1);
    std::map<std::string, int> Expected{{"before", 1}}, Lines;
    std::vector<std::thread> Threads;
    for (const std::string &Text : {std::string(40, 'a'), std::string(5000, 'b'), std::string(5000, 'c')}) {
        Expected["[t] " + Text] = 100;
        Threads.emplace_back([Text] {
            for (int iTime = 0; iTime < 100; iTime++)
                qxapi_log_printf("t", "%s", Text.c_str());
        });
    }
    for (std::thread &Thread : Threads)
        Thread.join();
    unsetenv("QX_LOG_FILE");
    std::ifstream File(Path);
    for (std::string Line; std::getline(File, Line);)
        Lines[Line]++;
    EXPECT_EQ(Lines, Expected);
    std::remove(Path.c_str());
}

TEST(Arguments, RecordsThatLieAreRefused) {
    const char *const Texts[] = {"a", "b"};
    const ts_qxapi_plugin_argument Two{2, Texts}, None{0, nullptr}, Negative{-2, Texts}, NoTexts{2, nullptr};
    EXPECT_EQ(qxapi_get_plugin_argument(&Two), 2);
    EXPECT_EQ(qxapi_get_plugin_argument(&None), 0);
    EXPECT_EQ(qxapi_get_plugin_argument(nullptr), 0);
    EXPECT_EQ(qxapi_get_plugin_argument(&Negative), -1);
    EXPECT_EQ(qxapi_get_plugin_argument(&NoTexts), -1);
}

TEST(Time, ClocksAgreeAndImpossibleDatesFail) {
    unsigned long ulStored = 0, ulSeconds = 0, ulMicroseconds = 1'000'000;
    const unsigned long ulFirst = vexa_time(&ulStored);
    ASSERT_EQ(qxapi_time_ex2(&ulSeconds, &ulMicroseconds), 1);
    EXPECT_EQ(qxapi_time_ex2(nullptr, nullptr), 1);
    EXPECT_EQ(ulFirst, ulStored);
    EXPECT_LE(ulFirst, ulSeconds);
    EXPECT_LE(ulSeconds, ulFirst + 2);
    EXPECT_LT(ulMicroseconds, 1'000'000ul);

    setenv("TZ", "KST-9", 1);
    tzset();
    tm Local{};
    EXPECT_EQ(qxapi_local_time(951'782'400, &Local), 1); // 2000-02-29 00:00:00 UTC
    EXPECT_EQ(Local.tm_mday, 29);
    EXPECT_EQ(Local.tm_hour, 9);
    EXPECT_EQ(qxapi_local_time(~0ul >> 1, &Local), 0);
    EXPECT_EQ(Local.tm_mday, 0) << "nothing of the date before is left";
    EXPECT_EQ(qxapi_local_time(0, nullptr), 0);
    unsetenv("TZ");
    tzset();
}

TEST(Yield, PausesAreShortAndIdleLoopsCostLittle) {
    const auto Spent = [] {
        rusage Usage;
        getrusage(RUSAGE_SELF, &Usage);
        return std::chrono::seconds(Usage.ru_utime.tv_sec + Usage.ru_stime.tv_sec) +
               std::chrono::microseconds(Usage.ru_utime.tv_usec + Usage.ru_stime.tv_usec);
    };
    for (const auto Pause : {vexa_load_balance, qxapi_load_balance}) {
        const auto Before = Spent();
        std::vector<std::thread> Threads;
        for (int i = 0; i < 5; i++)
            Threads.emplace_back([Pause, Started = CLOCK::now()] {
                int iPasses = 0;
                for (; CLOCK::now() - Started < 2s; iPasses++)
                    Pause();
                EXPECT_LE(iPasses, 250); // no pause below 8 ms
                EXPECT_GE(iPasses, 50);  // on average none above 40 ms, on a machine that is busy
            });
        for (std::thread &Thread : Threads)
            Thread.join();
        EXPECT_LT(Spent() - Before, 100ms) << "five idle loops, 5 % of one core";
    }
}

TEST(Break, StaysUntilItIsCleared) {
    vexa_set_global_break(1);
    EXPECT_NE(vexa_get_global_break(), 0);
    EXPECT_NE(vexa_get_global_break(), 0);
    vexa_set_global_break(0);
    EXPECT_EQ(vexa_get_global_break(), 0);
}

} // namespace

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

} // namespace

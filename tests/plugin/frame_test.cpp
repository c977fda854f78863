// What a host sees of the plug-in: open and close, the tables, the waits, the service switch, the debug log,
// the diagnostic driver.
#include "plugintest.h"

#include "ktpacket.h"

#include <pccast/pccast.h>

#include "pccastmain/debuglog.h"
#include "pccastmain/diag.h"
#include "pccastmain/pccastmain.h"
#include "pccastmain/serviceswitch.h"

#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <sys/resource.h>

namespace {

const std::string kStar = " \033[1;32m*\033[0m ";

class FrameTest : public PluginTest {
protected:
    // The debug file of that name, so many days from today.
    static std::string path(const std::string &name, int iDays) {
        const time_t then = std::time(nullptr) + iDays * 86400L;
        char szDay[32];
        std::strftime(szDay, sizeof szDay, "@%Y-%m-%d.txt", std::gmtime(&then));
        return "/tmp/" + name + szDay;
    }
    static std::string contents(const std::string &file) {
        std::ostringstream text;
        text << std::ifstream(file).rdbuf();
        return text.str();
    }
};

TEST_F(FrameTest, OpenAndCloseSayWhatTheyDo) {
    const char *const texts[] = {"a"};
    const ts_qxapi_plugin_argument arguments{1, texts};
    const std::string open = kStar + "Starting PCCast service...\n" + kStar + "Waiting PCCast service...\n" +
                             kStar + "Activated PCCast service.\n",
                      closed = kStar + "Stopping PCCast service...\n" + kStar + "Close PCCast plugin\n";
    EXPECT_EQ(p_qxapi_open_pccast(), 1);
    ASSERT_NE(gpPCCASTPluginInfo, nullptr);
    EXPECT_EQ(gpPCCASTPluginInfo->eState, ENGINE_RUNNING);
    EXPECT_EQ(script::seen().console, open);
    EXPECT_EQ(p_qxapi_close_pccast(&arguments), 1);
    EXPECT_EQ(gpPCCASTPluginInfo, nullptr);
    EXPECT_EQ(QX_PlugIn_Close(), 1); // nothing is open
    EXPECT_EQ(p_qxapi_close_pccast(nullptr), 1);
    const std::string line =
        "[pccastmain:#] \033[2;31m gpPCCASTPluginInfo is NULL \033[1;41m[ERROR]\033[0m\n";
    EXPECT_EQ(out(), line + line);
    EXPECT_EQ(script::seen().console, open + closed);
    EXPECT_THAT(script::seen().reports, IsEmpty());
    const std::string calls = joined(script::seen().calls);
    EXPECT_THAT(calls, HasSubstr("plug-in arguments a\n"));
    EXPECT_THAT(calls, testing::StartsWith("thread __qxapi_open_pccast__\n"));
    EXPECT_EQ(count(calls, "thread PCCASTPluginMain\n"), 6u);
    EXPECT_EQ(count(calls, "thread "), 7u);
    EXPECT_EQ(p_qxapi_control_pccast(nullptr, 0), 0x03060502);
    EXPECT_EQ(p_qxapi_control_pccast(nullptr, 1), 1);
    EXPECT_EQ(joined({QX_PlugIn_Map, QX_PlugIn_Map + 11}),
              "QX_PCCASTSTREAMCommander\nQX_PCCASTMBCCommander\n\n\n\n\n\n\n\n\n\n");
    EXPECT_EQ(QX_PlugIn_Map[11], nullptr);
}

TEST_F(FrameTest, OpenThatFailsCanBeClosed) {
    script::fail(Step::Thread, "__qxapi_open_pccast__", 0);
    EXPECT_EQ(QX_PlugIn_Open(), 1);
    KTPLUGIN_INFO_TAG *const pFirst = gpPCCASTPluginInfo;
    ASSERT_NE(pFirst, nullptr);
    EXPECT_EQ(pFirst->eState, ENGINE_STOPPED);
    EXPECT_EQ(out(), "[pccastmain:#] PCCAST Plugin Open Fail !\n");
    EXPECT_EQ(script::seen().console, kStar + "Starting PCCast service...\n");
    EXPECT_EQ(QX_PlugIn_Open(), 1); // opened twice: that is reported, and a new block replaces the first one
    EXPECT_THAT(script::seen().reports,
                ElementsAre("__qxapi_open_pccast__: gpPCCASTPluginInfo == ((KTPLUGIN_INFO_TAG *)0)"));
    EXPECT_NE(gpPCCASTPluginInfo, pFirst);
    QX_PlugIn_Close();
    std::free(pFirst);
    script::fail(Step::Thread, "__qxapi_open_pccast__", 0);
    QX_PlugIn_Open();
    const std::string before = script::seen().console;
    QX_PlugIn_Close();
    EXPECT_EQ(script::seen().console, before + kStar + "Close PCCast plugin\n"); // without the stopping line
    EXPECT_EQ(withoutAllocation(1, QX_PlugIn_Open), 1);
    EXPECT_THAT(
        out(),
        HasSubstr(
            "[pccastmain:#] \033[2;31m malloc( sizeof(KTPLUGIN_INFO_TAG) ) fail \033[1;41m[ERROR]\033[0m\n"));
    EXPECT_EQ(gpPCCASTPluginInfo, nullptr);
}

TEST_F(FrameTest, EngineThatCannotBeStartedEndsTheService) {
    const char *const names[] = {"RxPCMBCInfoEngine", "PCMBCEngine",        "RxCASTInfoEngine",
                                 "PCCASTBCIEngine",   "PCCASTBYPASSEngine", "PCCASTRECASTEngine"};
    std::string expected;
    for (int i = 0; i < 6; ++i) {
        script::forget();
        script::fail(Step::Thread, "PCCASTPluginMain", 0, 1, i);
        EXPECT_EQ(QX_PlugIn_Open(), 1);
        EXPECT_TRUE(script::threadsEnd()); // before anybody closes
        EXPECT_EQ(gpPCCASTPluginInfo->eState, ENGINE_STOPPED);
        // All others were started.
        EXPECT_EQ(count(joined(script::seen().calls), "thread PCCASTPluginMain\n"), 6u);
        QX_PlugIn_Close();
        EXPECT_EQ(out(), expected += std::string("[pccastmain:#] ") + names[i] + " Create Fail !\n");
    }
}

TEST_F(FrameTest, WaitForAnEngineIsBounded) {
    const std::string line = "ktWaitForAEngine: [FATAL-ERROR] \033[1;31mTimeout wait thread !\033[0m\n";
    KTPLUGIN_INFO_TAG block{};
    EXPECT_EQ(ktWaitForAEngine(&block, 50), 50);
    EXPECT_EQ(out(), "");
    EXPECT_EQ(ktWaitForAEngine(&block, 0), 0);
    EXPECT_EQ(out(), line);
    EXPECT_EQ(ktWaitForAEngine(nullptr, 50), -1);
    block.iThreadCount = 1;
    EXPECT_EQ(ktWaitForAEngine(&block, 0), -1);
    EXPECT_EQ(ktWaitForAEngine(&block, 1), -1);
    EXPECT_EQ(out(), line + line + line + line);
    std::atomic<bool> bWaiting{false};
    script::startThread([&] {
        for (int i = 0; i < 2000; i += bWaiting ? 1 : 0) { // far more than a hundred passes
            vexa_load_balance();
        }
        block.iThreadCount = 0;
    });
    bWaiting = true;
    const int iLeft = ktWaitForAEngine(&block, 1000);
    EXPECT_GT(iLeft, 500);
    EXPECT_LT(iLeft, 1000);
}

TEST_F(FrameTest, RegistrySwitchesAServiceOff) {
    struct Case {
        const char *pszValue;
        int iLength, iResult;
    };
    std::string expected;
    EXPECT_EQ(verifyINBTService("/A/B"), 1); // no registry
    for (const Case &row : {Case{"DISABLE", 7, 0}, Case{"Disable", 8, 0}, Case{"dis", 3, 0}, Case{"d", 1, 0},
                            Case{"dis", 4, 1}, Case{"ENABLE", 6, 1}, Case{"DISABLED", 8, 1}, Case{"", 0, 1},
                            Case{"DISABLE", 0, 1}, Case{"DISABLE", -1, 1}}) {
        script::registryValue("/A/B", row.pszValue, row.iLength);
        EXPECT_EQ(verifyINBTService("/A/B"), row.iResult) << row.pszValue << row.iLength;
        if (row.iResult == 0) {
            expected +=
                "[pccastmain:#] \033[1;31m /A/B service is DISABLED by REGISTRY \033[1;41m[ALARM]\033[0m\n";
        }
    }
    EXPECT_EQ(verifyINBTService("/A/C"), 1);
    EXPECT_EQ(verifyINBTService(nullptr), 1);
    EXPECT_EQ(out(), expected);
}

TEST_F(FrameTest, DebugLogGoesWhereTheEnvironmentSays) {
    struct Case {
        const char *pszName, *pszStdOut, *pszLevel;
        int iLevel; // of the message
        bool bWritten;
    };
    for (const Case &row : {Case{"t1", "", "9", 0, false}, Case{"t2", "1", "", 0, true},
                            Case{"t3", "1", "3", 4, false}, Case{"t4", " +2x", "4z", 4, true},
                            Case{"t5", "x", "4", 0, false}, Case{nullptr, "1", "0", 0, true}}) {
        const std::string name = row.pszName == nullptr ? "DEFAULT" : row.pszName;
        setenv(("KTDEBUG_STDOUT_" + name).c_str(), row.pszStdOut, 1);
        setenv(("KTDEBUG_LEVEL_" + name).c_str(), row.pszLevel, 1);
        const size_t ulBefore = out().size();
        initDebug(row.pszName, nullptr);
        PCCAST_DEBUG(row.iLevel, "number %d\n", 5);
        static const std::regex line(
            R"((\[\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\] \[DEBUG_LEVEL_\d\] number 5\n)?)");
        const std::string text = out().substr(ulBefore);
        EXPECT_TRUE(std::regex_match(text, line)) << text;
        EXPECT_EQ(!text.empty(), row.bWritten) << name;
    }
    const size_t ulBefore = out().size();
    gUserLevel = 7;
    INFO_DEBUG("%s", std::string(3000, 'x').c_str());
    EXPECT_EQ(out().size() - ulBefore, std::strlen("[2026-11-16 19:45:40] [DEBUG_LEVEL_7] ") + 2048);
    gPrintStdOut = 0;
}

TEST_F(FrameTest, DebugFileFollowsTheDayAndKeepsWhatIsThere) {
    setenv("KTDEBUG_FILELOG_f", "1", 1);
    const std::string today = path("f", 0), tomorrow = path("f", 1);
    std::ofstream(today) << "earlier\n";
    const auto openFiles = [] {
        int iCount = 0;
        for (int i = 0; i < 100; ++i) {
            iCount += fcntl(i, F_GETFD) >= 0 ? 1 : 0;
        }
        return iCount;
    };
    initDebug("f", nullptr);
    const int iOpen = openFiles();
    initDebug("f", nullptr); // closes the file of the first call
    EXPECT_EQ(openFiles(), iOpen);
    DEBUG_LEVEL_COMMON(3, "one\n");
    EXPECT_EQ(contents(today).substr(0, 8), "earlier\n");
    EXPECT_EQ(count(contents(today), "[DEBUG_LEVEL_3] one\n"), 1u);
    script::moveWallClock(86400);
    DEBUG_LEVEL_COMMON(0, "two\n");
    EXPECT_EQ(openFiles(), iOpen);
    EXPECT_EQ(count(contents(today), "two"), 0u);
    EXPECT_EQ(count(contents(tomorrow), "[DEBUG_LEVEL_0] two\n"), 1u);
    script::moveWallClock(86400);
    initFile(); // the file of the day is there before its first line
    EXPECT_EQ(std::filesystem::file_size(path("f", 0)), 0u);
    script::moveWallClock(-86400);
    std::filesystem::resize_file(tomorrow, 1 << 20);
    rlimit before{};
    getrlimit(RLIMIT_FSIZE, &before);
    const rlimit full{1 << 20, before.rlim_max};
    std::signal(SIGXFSZ, SIG_IGN);
    setrlimit(RLIMIT_FSIZE, &full);
    DEBUG_LEVEL_COMMON(0, "lost\n");
    DEBUG_LEVEL_COMMON(0, "lost\n");
    setrlimit(RLIMIT_FSIZE, &before);
    EXPECT_EQ(err(), "the debug log " + tomorrow + " loses lines: File too large\n");
    setenv("KTDEBUG_PATH_f", "/tmp/nowhere", 1);
    initDebug("f", nullptr); // cannot be opened: no file
    DEBUG_LEVEL_COMMON(0, "three\n");
    EXPECT_EQ(openFiles(), iOpen - 1);
    initDebug("f", "/tmp"); // the argument wins over the variable
    DEBUG_LEVEL_COMMON(0, "four\n");
    EXPECT_EQ(count(contents(tomorrow), "four"), 1u);
    const std::string longText(5000, 'p'); // fits no path
    setenv("KTDEBUG_PATH_f", longText.c_str(), 1);
    initDebug("f", nullptr);
    DEBUG_LEVEL_COMMON(0, "five\n");
    initDebug(longText.c_str(), longText.c_str());
    initDebug("none", nullptr); // off again
    EXPECT_EQ(out(), "");
    EXPECT_EQ(openFiles(), iOpen - 1);
}

TEST_F(FrameTest, DebugLogKeepsThreadsApart) {
    setenv("KTDEBUG_FILELOG_m", "1", 1);
    initDebug("m", "/tmp");
    for (int iThread = 0; iThread < 4; ++iThread) {
        script::startThread([iThread] {
            for (int i = 0; i < 200; ++i) {
                gUserLevel = iThread;
                INFO_DEBUG("from %d\n", iThread);
                if (i == 100 && iThread == 0) {
                    script::moveWallClock(86400); // changes the file while others write
                }
            }
        });
    }
    EXPECT_TRUE(script::threadsEnd());
    const std::string all = contents(path("m", 0)) + contents(path("m", -1));
    initDebug("none", nullptr);
    EXPECT_EQ(count(all, "\n"), 800u);
    for (int iThread = 0; iThread < 4; ++iThread) {
        char szLine[40];
        std::snprintf(szLine, sizeof szLine, "[DEBUG_LEVEL_%d] from %d\n", iThread, iThread);
        EXPECT_EQ(count(all, szLine), 200u);
    }
}

// What the diagnostic driver asks for in its 330 seconds. The engines that do it have tests of their own.
TEST_F(FrameTest, DiagnosticDriverPlaysItsSequence) {
    setenv("PCCAST_SAMPLES", "/samples", 1);
    setenv("KTDEBUG_STDOUT_PCCAST", "1", 1);
    setenv("KTDEBUG_LEVEL_PCCAST", "1", 1);
    EXPECT_EQ(diagPCCASTMain(), 1);
    unsetenv("KTDEBUG_STDOUT_PCCAST");
    unsetenv("KTDEBUG_LEVEL_PCCAST");
    EXPECT_THAT(out(), testing::ContainsRegex(
                           "\\[DEBUG_LEVEL_1\\] diagPCCASTMain\\[[0-9#]+\\] : FileName = aaaaaaaaaa\n"));
    // "TIME COMMAND EPGID PRIORITY START+LIFE*REPEAT TEXT" of each request for a message.
    std::string requests;
    for (const script::Frame &frame : script::frames("client /tmp/PCMBC.uds")) {
        const auto number = [&](size_t ulAt) {
            return ktpacketGetDWORD(frame.payload.data() + ulAt) - static_cast<unsigned int>(script::kStart);
        };
        char szOne[80];
        std::snprintf(szOne, sizeof szOne, "%lu %x %u %d %u+%u*%u ", frame.ulTime - script::kStart,
                      frame.header.uiCommand, frame.header.uiParam, frame.payload.at(12), number(20),
                      number(28) - number(20), ktpacketGetWORD(frame.payload.data() + 52));
        requests += szOne + std::string(frame.payload.begin() + 58, frame.payload.end()) + "\n";
    }
    EXPECT_EQ(requests, "215 40020 1 1 215+10*200 H-------I--------G---------H----------A\n"
                        "220 40020 1 1 220+10*2 H-------I--------G---------H----------B\n"
                        "230 40023 1 1 220+10*2 H-------I--------G---------H----------B\n"
                        "230 40020 1 0 230+100*200 1234567890123456789012345678901234567890\n"
                        "250 40020 0 0 250+300*5 aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa\n"
                        "260 40020 1 1 260+20*3 H-------I--------G---------H----------A\n");
    ASSERT_EQ(script::frames("client /tmp/PCSTREAM.uds").size(), 1u); // the second sample is not sent
    EXPECT_EQ(script::frames("client /tmp/PCSTREAM.uds").front().payload,
              bytes("01 00 04 00 01 00 00 00 02 00 04 00 00 00 00 00 03 00 04 00 64 00 00 00"
                    "05 00 04 00 00 CA 9A 3B 06 00 04 00 C8 CA 9A 3B 04 00 04 00 01 00 00 00"
                    "0C 00 04 00 00 00 00 00 0D 00 04 00 B6 87 00 00 0B 00 15 00 '/samples/CASTFILE.asf'"
                    "0A 00 0C 00 '224.13.13.13' 09 00 02 00 4D 33"));
    EXPECT_EQ(script::now(), script::kStart + 330);
    std::raise(SIGTERM);
    EXPECT_THAT(out(), testing::EndsWith("\n[pccastmain:#] \033[2;31m 15 signal occured  "
                                         "\033[1;41m[SIGNAL]\033[0m\n"));
    std::signal(SIGTERM, SIG_IGN); // a host that ignores it goes on doing so
    script::reset();
    EXPECT_EQ(diagPCCASTMain(), 1);
    EXPECT_EQ(std::signal(SIGTERM, SIG_DFL), SIG_IGN);
}

} // namespace

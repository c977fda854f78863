// The whole plug-in under the scripted clock: which cast is on air when, what is announced of it, and how it
// answers a stop in the middle.
#include "plugintest.h"

#include <pccast/pccast.h>

namespace {

using script::kStart;

class SchedulerTest : public PluginTest {
protected:
    SchedulerTest() { QX_PlugIn_Open(); }
    ~SchedulerTest() override { EXPECT_EQ(QX_PlugIn_Close(), 1); }
    static void send(const CastFields &fields) {
        CASTInfo *pInfo = cast(fields);
        EXPECT_EQ(QX_PCCASTSTREAMCommander(fields.ulCMD, pInfo), 1);
        ELIMINATECASTInfo(&pInfo);
    }
    // Sends a request whose times count from kStart, and waits until the plug-in has acted upon it. Returns
    // what has happened so far.
    static std::string submit(CastFields fields) {
        fields.ulST += kStart;
        fields.ulET += kStart;
        send(fields);
        EXPECT_TRUE(script::eventually([] { return script::requestsWaiting() == 0; }));
        EXPECT_TRUE(script::settle(15));
        return history();
    }
    // A relay. Its source port tells it from the others, and is its EPG id too.
    static CastFields relay(unsigned short usPort, unsigned long ulCT, unsigned long ulST,
                            unsigned long ulET) {
        return {.ulEPGID = usPort, .ulCT = ulCT, .ulST = ulST, .ulET = ulET, .usSourcePort = usPort};
    }
    static CastFields file(unsigned long ulEPGID, unsigned long ulCT, unsigned long ulST, unsigned long ulET,
                           unsigned long ulFormat = CAST_FORMAT_TS) {
        CastFields fields{.ulType = 1, .ulEPGID = ulEPGID, .ulCT = ulCT, .ulST = ulST, .ulET = ulET};
        fields.ulFormat = ulFormat;
        fields.pszFile = "/f";
        return fields;
    }
    static CastFields stop(CastFields fields, unsigned long ulCT) {
        fields.ulCMD = CAST_CMD_STOP;
        fields.ulCT = ulCT;
        return fields;
    }
    // Runs until then. Returns which relays and playouts began and ended: "+9100 -9100 +file -file".
    static std::string history(unsigned long ulSeconds = 0) {
        runTo(ulSeconds);
        std::string text;
        for (const std::string &call : script::seen().calls) {
            const std::string begun = "create rx 224.1.1.1:", ended = "delete rx 224.1.1.1:";
            if (call.rfind(begun, 0) == 0) {
                text += "+" + call.substr(begun.size()) + " ";
            } else if (call.rfind(ended, 0) == 0) {
                text += "-" + call.substr(ended.size()) + " ";
            } else if (call == "start stream" || call == "close stream") {
                text += call[0] == 's' ? "+file " : "-file ";
            }
        }
        return text;
    }
    static void storeFile(unsigned long ulEnd) {
        script::storedFile("/f", {{kStart, {1}}, {kStart + ulEnd, {2}}});
    }
};

TEST_F(SchedulerTest, CastGoesOnAirInItsSecondAndEndsInIts) {
    submit(relay(1, 100, 3, 20));
    EXPECT_EQ(history(2), "");
    EXPECT_THAT(announced(), IsEmpty());
    EXPECT_EQ(history(3), "+1 ");
    EXPECT_EQ(history(19), "+1 ");
    EXPECT_EQ(history(20), "+1 -1 ");
    EXPECT_THAT(announced(40), ElementsAre("3 on air 1", "14 on air 1"));
    submit(relay(2, 200, 10, 40)); // over already
    runTo(60);
    QX_PlugIn_Close();
    EXPECT_EQ(history(), "+1 -1 ");
    EXPECT_THAT(announced(), ElementsAre("3 on air 1", "14 on air 1", "60 end 1"));
}

TEST_F(SchedulerTest, NewerCastPreemptsAndTheOlderOneReturns) {
    submit(relay(1, 100, 0, 60));
    submit(relay(3, 99, 0, 70)); // older than the one on air: waits until that has ended
    runTo(5);
    EXPECT_EQ(submit(relay(2, 101, 5, 30)), "+1 -1 +2 ");
    EXPECT_EQ(history(29), "+1 -1 +2 ");
    EXPECT_EQ(history(32), "+1 -1 +2 -2 +1 ");
    EXPECT_EQ(history(65), "+1 -1 +2 -2 +1 -1 +3 ");
    EXPECT_EQ(history(80), "+1 -1 +2 -2 +1 -1 +3 -3 ");
    EXPECT_THAT(announced(), ElementsAre("0 on air 1", "11 on air 2", "22 on air 2", "33 on air 1",
                                         "44 on air 1", "55 on air 1", "66 on air 3"));
}

TEST_F(SchedulerTest, StopRequestsEndWhatTheyAreMeantTo) {
    submit(relay(1, 100, 50, 90));
    submit(relay(2, 100, 0, 90));
    submit(stop(relay(9, 99, 0, 12), 99)); // older than what is on air: waits and expires
    EXPECT_EQ(history(12), "+2 ");
    // equal to what is on air, and as old
    EXPECT_EQ(submit(stop(relay(2, 100, 0, 90), 100)), "+2 -2 ");
    runTo(47);
    submit(stop(relay(1, 100, 50, 90), 101)); // equal to one that waits: both go
    EXPECT_EQ(history(60), "+2 -2 ");
    EXPECT_THAT(announced(), ElementsAre("0 on air 2", "11 on air 2", "22 end 2"));
    submit(relay(3, 200, 60, 90));
    // equal to nothing: ends what is on air all the same
    EXPECT_EQ(submit(stop(relay(4, 300, 60, 90), 300)), "+2 -2 +3 -3 ");
    EXPECT_EQ(history(100), "+2 -2 +3 -3 ");
    EXPECT_THAT(announced(), ElementsAre("0 on air 2", "11 on air 2", "22 end 2", "60 on air 3", "71 end 4"));
}

TEST_F(SchedulerTest, FileWaitsForTheRelayAndTheRelayEndsTheFile) {
    storeFile(1000);
    submit(relay(1, 100, 0, 20));
    submit(file(7, 200, 0, 90));
    EXPECT_EQ(history(19), "+1 ");
    EXPECT_EQ(history(21), "+1 -1 +file ");
    runTo(30);
    script::hold("stream");
    // the age decides within a list only
    EXPECT_EQ(submit(relay(2, 50, 30, 60)), "+1 -1 +file ");
    script::hold("");
    EXPECT_TRUE(script::settle(15));
    EXPECT_EQ(history(), "+1 -1 +file -file +2 ");
    EXPECT_EQ(history(62), "+1 -1 +file -file +2 -2 "); // the file's entry had been started
    EXPECT_THAT(announced(), ElementsAre("0 on air 1", "11 on air 1", "22 on air 7", "33 on air 2",
                                         "44 on air 2", "55 on air 2"));
    submit(file(8, 300, 62, 90));
    submit(file(9, 301, 62, 80)); // a newer file takes over, and the older one returns
    runTo(82);
    EXPECT_EQ(count(history(), "+file"), 4u);
    EXPECT_EQ(announced().back(), "77 on air 9");
    EXPECT_EQ(announced(88).back(), "88 on air 8");
}

TEST_F(SchedulerTest, FailedCastIsAnnouncedAsEndedAndDropped) {
    script::fail(Step::Create, "rx 224.1.1.1:1", -1);
    EXPECT_EQ(submit(relay(1, 100, 0, 900)), "+1 -1 ");
    submit(file(5, 100, 0, 900));     // no such file
    EXPECT_EQ(history(40), "+1 -1 "); // neither is tried again
    // The failure may come before the first announcement of the cast, or just after it.
    EXPECT_THAT(announced(), ElementsAre(testing::AnyOf("0 on air 1", "0 end 1"), "11 end 5"));
    runTo(50);
    script::fail(Step::Create, "rx 224.1.1.1:2", -1);
    submit(relay(2, 200, 50, 900));
    runTo(55);
    // the end announcement of the failed one delays nothing
    EXPECT_EQ(submit(relay(3, 201, 55, 80)), "+1 -1 +2 -2 +3 ");
    EXPECT_EQ(script::now(), kStart + 55);
    EXPECT_EQ(announced(61).back(), "61 on air 3");
    EXPECT_EQ(announced(95).back(), "72 on air 3"); // and no failed one comes back
}

TEST_F(SchedulerTest, RequestsOfTheSameSecondLeaveTheRightOneAnnounced) {
    storeFile(10000);
    for (unsigned short us = 1; us <= 15; ++us) { // each time the next one is newer and due at once
        const unsigned long ulNow = script::now() - kStart;
        const unsigned short usLast = static_cast<unsigned short>(2 * us + 1);
        for (CastFields fields : {relay(static_cast<unsigned short>(2 * us), 1000u + us, 0, 0),
                                  file(250, 1000u + us, 0, 0), relay(usLast, 2000u + us, 0, 0)}) {
            fields.ulST = script::now();
            fields.ulET = script::now() + 12;
            send(fields);
        }
        EXPECT_TRUE(script::eventually([] { return script::requestsWaiting() == 0; }));
        EXPECT_TRUE(script::settle(30));
        EXPECT_THAT(history(), testing::EndsWith("+" + std::to_string(usLast) + " "));
        runTo(ulNow + 11);
        EXPECT_THAT(announced().back(), testing::EndsWith(" on air " + std::to_string(usLast)));
        runTo(ulNow + 13);
    }
}

TEST_F(SchedulerTest, CastShorterThanAPassIsNotMissed) {
    script::storedFile("/f", {}); // over as soon as it begins
    for (unsigned int ui = 0; ui < 20; ++ui) {
        submit(file(10 + ui, 100 + ui, 0, 1000, ui % 2 == 0 ? CAST_FORMAT_TS : 0x2000));
    }
    EXPECT_EQ(count(history(), "+file -file"), 10u);
    submit(relay(1, 50, 0, 1000));
    EXPECT_EQ(count(history(), "+1 "), 1u);
    EXPECT_EQ(announced(11).back(), "11 on air 1");
}

// A file fails while a newer one is pending: its entry has gone back to the list, and must not return from
// there.
TEST_F(SchedulerTest, FileThatFailsBehindAPendingOneDoesNotReturn) {
    script::storedFile("/f", {{kStart, {1}}, {kStart + 11, {2}}, {kStart + 500, {3}}});
    submit(file(1, 100, 0, 900));
    runTo(10);
    submit(file(2, 101, 12, 30));
    script::fail(Step::CasterSend, "02", -7);
    runTo(11);
    EXPECT_EQ(count(out(), "cast of EPG id 1 failed, dropped"), 1u);
    runTo(60);
    EXPECT_EQ(count(history(), "+file"), 2u);
    // The failure may come before the announcement of that second, or after it. Then the next cast takes the
    // place of the end.
    EXPECT_THAT(announced(),
                ElementsAre("0 on air 1", testing::AnyOf("11 end 1", "11 on air 1"), "22 on air 2"));
}

// The message receiver is the first to be stopped. While it hangs, the casts go on.
TEST_F(SchedulerTest, EnginesAreStoppedOneAfterTheOther) {
    submit(relay(1, 100, 0, 900));
    script::hold("server " + std::string(PCCAST_MESSAGE_SOCKET));
    script::startThread([] { QX_PlugIn_Close(); });
    EXPECT_TRUE(script::settle(20));
    EXPECT_EQ(script::liveThreads(), 8);
    EXPECT_EQ(history(), "+1 ");
    script::hold("");
    EXPECT_TRUE(script::threadsEnd());
    EXPECT_EQ(history(), "+1 -1 ");
    QX_PlugIn_Open();
}

// An engine is held where the supervisor waits for it. The close names it and returns, and what it uses
// stays.
TEST_F(SchedulerTest, CloseDoesNotWaitForAnEngineThatHangs) {
    storeFile(1000);
    for (unsigned int ui = 0; ui < 3; ++ui) {
        const char *const pszHeld = ui == 2 ? "stream" : "rx 224";
        if (ui == 0) { // the engine has not answered the hand-over
            script::hold(pszHeld);
        }
        submit(ui == 2 ? file(1, 100, 0, 900) : relay(1, 100, 0, 900));
        if (ui > 0) { // the engine does not come back from its cast
            script::hold(pszHeld);
            submit(ui == 2 ? file(2, 101, 0, 900) : relay(2, 101, 0, 900));
        }
        QX_PlugIn_Close();
        EXPECT_EQ(count(script::seen().console, "Close PCCast"), ui + 1);
        EXPECT_EQ(count(out(), std::string("[pccastmain:#] \033[2;31m ") +
                                   (ui == 2 ? "PCCASTRECASTEngine" : "PCCASTBYPASSEngine") +
                                   " does not end: the service is closed without it, and what it uses is "
                                   "kept \033[1;41m[ERROR]\033[0m\n"),
                  ui == 1 ? 2u : 1u);
        // Left are the supervisor, the engine, and those that are to be stopped after it.
        EXPECT_EQ(script::liveThreads(), ui == 2 ? 2 : 3);
        script::hold("");
        EXPECT_TRUE(script::threadsEnd());
        QX_PlugIn_Open();
    }
}

// Refuses each of the supervisor's own allocations once. The service may lack a list or lose a cast then, but
// it opens, goes on and closes.
TEST_F(SchedulerTest, SupervisorWithoutMemoryLosesACastAtMost) {
    for (int i = 1; i <= 24; ++i) {
        QX_PlugIn_Close();
        script::fail(Step::ThreadMemory, "__qxapi_open_pccast__", i);
        QX_PlugIn_Open();
        script::settle(3);
        send(relay(1, 100, kStart, kStart + 1000));
        EXPECT_TRUE(script::settle(15));
    }
}

} // namespace

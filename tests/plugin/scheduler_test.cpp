// The whole plug-in under the scripted clock: which cast is on air when, what is announced of it, and how
// a stop is answered in the middle.
#include "plugintest.h"

#include <pccast/pccast.h>

namespace {

using script::START;

const char *const AIR = "tx 224.9.9.9:7890";

class SchedulerTest : public PluginTest {
protected:
    SchedulerTest() { open(); }
    ~SchedulerTest() override {
        if (m_bOpen) {
            EXPECT_EQ(QX_PlugIn_Close(), 1);
        }
    }
    void open() {
        EXPECT_EQ(QX_PlugIn_Open(), 1);
        m_bOpen = true;
    }
    void close() {
        QX_PlugIn_Close();
        m_bOpen = false;
    }
    // Submits a request whose times count from START, and waits until it has been acted upon.
    static void submit(CastFields fields) {
        fields.ulST += START;
        fields.ulET += START;
        CASTInfo *pInfo = cast(fields);
        EXPECT_EQ(QX_PCCASTSTREAMCommander(fields.ulCMD, pInfo), 1);
        ELIMINATECASTInfo(&pInfo);
        EXPECT_TRUE(script::eventually([] { return script::requestsWaiting() == 0; }));
        EXPECT_TRUE(script::settle(15));
    }
    // A relay of the source port usPort, which tells it from others; its EPG id is the same number.
    static CastFields relay(unsigned short usPort, unsigned long ulCT, unsigned long ulST,
                            unsigned long ulET) {
        return {.ulEPGID = usPort, .ulCT = ulCT, .ulST = ulST, .ulET = ulET, .usSourcePort = usPort};
    }
    static CastFields file(unsigned long ulEPGID, unsigned long ulCT, unsigned long ulST, unsigned long ulET,
                           unsigned long ulFormat = CAST_FORMAT_TS) {
        return {.ulType = 1,
                .ulEPGID = ulEPGID,
                .ulCT = ulCT,
                .ulST = ulST,
                .ulET = ulET,
                .ulFormat = ulFormat,
                .pszFile = "/f"};
    }
    static CastFields stop(CastFields fields, unsigned long ulCT) {
        fields.ulCMD = CAST_CMD_STOP;
        fields.ulCT = ulCT;
        return fields;
    }
    static void runTo(unsigned long ulSeconds) {
        while (script::now() < START + ulSeconds) {
            script::advance(1);
            EXPECT_TRUE(script::settle(10));
        }
    }
    // The relays and playouts as they began and ended: "+9100 -9100 +file -file".
    static std::string history() {
        std::string text;
        for (const std::string &call : script::calls()) {
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
    static std::vector<std::string> aired() {
        std::vector<std::string> texts;
        for (const script::Frame &frame : script::frames(AIR)) {
            texts.push_back(std::to_string(frame.ulTime - START) +
                            (frame.header.uiCommand == 0x40030 ? " on air " : " end ") +
                            std::to_string(frame.payload.at(12)));
        }
        return texts;
    }
    static void storeFile(unsigned long ulEnd) {
        script::storedFile("/f", {{START, {1}}, {START + ulEnd, {2}}});
    }

private:
    bool m_bOpen = false;
};

TEST_F(SchedulerTest, CastGoesOnAirInItsSecondAndEndsInIts) {
    submit(relay(1, 100, 3, 20));
    runTo(2);
    EXPECT_EQ(history(), "");
    EXPECT_THAT(aired(), IsEmpty());
    runTo(3);
    EXPECT_EQ(history(), "+1 ");
    runTo(19);
    EXPECT_EQ(history(), "+1 ");
    runTo(20);
    EXPECT_EQ(history(), "+1 -1 ");
    runTo(40);
    EXPECT_THAT(aired(), ElementsAre("3 on air 1", "14 on air 1"));
    submit(relay(2, 200, 10, 40)); // over already
    runTo(60);
    close();
    EXPECT_EQ(history(), "+1 -1 ");
    EXPECT_THAT(aired(), ElementsAre("3 on air 1", "14 on air 1", "60 end 1"));
}

TEST_F(SchedulerTest, NewerCastPreemptsAndTheOlderOneReturns) {
    submit(relay(1, 100, 0, 60));
    submit(relay(3, 99, 0, 70)); // older than the one on air: waits until that has ended
    runTo(5);
    submit(relay(2, 101, 5, 30));
    EXPECT_EQ(history(), "+1 -1 +2 ");
    runTo(29);
    EXPECT_EQ(history(), "+1 -1 +2 ");
    runTo(32);
    EXPECT_EQ(history(), "+1 -1 +2 -2 +1 ");
    runTo(65);
    EXPECT_EQ(history(), "+1 -1 +2 -2 +1 -1 +3 ");
    runTo(80);
    EXPECT_EQ(history(), "+1 -1 +2 -2 +1 -1 +3 -3 ");
    EXPECT_THAT(aired(), ElementsAre("0 on air 1", "11 on air 2", "22 on air 2", "33 on air 1", "44 on air 1",
                                     "55 on air 1", "66 on air 3"));
}

TEST_F(SchedulerTest, StopRequestsEndWhatTheyAreMeantTo) {
    submit(relay(1, 100, 50, 90));
    submit(relay(2, 100, 0, 90));
    submit(stop(relay(9, 99, 0, 12), 99)); // older than what is on air: it waits, and expires
    runTo(12);
    EXPECT_EQ(history(), "+2 ");
    submit(stop(relay(2, 100, 0, 90), 100)); // equal to what is on air, and as old
    EXPECT_EQ(history(), "+2 -2 ");
    runTo(47);
    submit(stop(relay(1, 100, 50, 90), 101)); // equal to one that waits: both are gone
    runTo(60);
    EXPECT_EQ(history(), "+2 -2 ");
    EXPECT_THAT(aired(), ElementsAre("0 on air 2", "11 on air 2", "22 end 2"));
    submit(relay(3, 200, 60, 90));
    submit(stop(relay(4, 300, 60, 90), 300)); // names nothing: ends what is on air all the same
    EXPECT_EQ(history(), "+2 -2 +3 -3 ");
    runTo(100);
    EXPECT_EQ(history(), "+2 -2 +3 -3 ");
    EXPECT_THAT(aired(), ElementsAre("0 on air 2", "11 on air 2", "22 end 2", "60 on air 3", "71 end 4"));
}

TEST_F(SchedulerTest, FileWaitsForTheRelayAndTheRelayEndsTheFile) {
    storeFile(1000);
    submit(relay(1, 100, 0, 20));
    submit(file(7, 200, 0, 90));
    runTo(19);
    EXPECT_EQ(history(), "+1 ");
    runTo(21);
    EXPECT_EQ(history(), "+1 -1 +file ");
    runTo(30);
    script::hold("stream");
    submit(relay(2, 50, 30, 60)); // the age counts within a list only
    EXPECT_EQ(history(), "+1 -1 +file ");
    script::hold("");
    EXPECT_TRUE(script::settle(15));
    EXPECT_EQ(history(), "+1 -1 +file -file +2 ");
    runTo(62);
    EXPECT_EQ(history(), "+1 -1 +file -file +2 -2 "); // the file's entry had been started
    EXPECT_THAT(aired(), ElementsAre("0 on air 1", "11 on air 1", "22 on air 7", "33 on air 2", "44 on air 2",
                                     "55 on air 2"));
    submit(file(8, 300, 62, 90));
    submit(file(9, 301, 62, 80)); // a newer file takes over, and the older one returns
    runTo(82);
    EXPECT_EQ(count(history(), "+file"), 4u);
    EXPECT_EQ(aired().back(), "77 on air 9");
    runTo(88);
    EXPECT_EQ(aired().back(), "88 on air 8");
}

TEST_F(SchedulerTest, FailedCastIsAnnouncedAsEndedAndDropped) {
    script::fail(Step::CREATE, "rx 224.1.1.1:1", -1);
    submit(relay(1, 100, 0, 900));
    EXPECT_EQ(history(), "+1 -1 ");
    submit(file(5, 100, 0, 900)); // no such file
    runTo(40);
    EXPECT_EQ(history(), "+1 -1 "); // neither is tried again
    // The failure may come before the first announcement of the cast, or just after it.
    EXPECT_THAT(aired(), ElementsAre(testing::AnyOf("0 on air 1", "0 end 1"), "11 end 5"));
    runTo(50);
    script::fail(Step::CREATE, "rx 224.1.1.1:2", -1);
    submit(relay(2, 200, 50, 900));
    runTo(55);
    submit(relay(3, 201, 55, 80)); // the end announcement of the failed one holds nothing up
    EXPECT_EQ(history(), "+1 -1 +2 -2 +3 ");
    EXPECT_EQ(script::now(), START + 55);
    runTo(61);
    EXPECT_EQ(aired().back(), "61 on air 3");
    runTo(95);
    EXPECT_EQ(aired().back(), "72 on air 3"); // nor does a failed one come back
}

TEST_F(SchedulerTest, RequestsOfTheSameSecondLeaveTheRightOneAnnounced) {
    storeFile(10000);
    for (unsigned short us = 1; us <= 15; ++us) { // each time the next one is newer and due at once
        const unsigned long ulNow = script::now() - START;
        CASTInfo *pInfos[3] = {cast(relay(static_cast<unsigned short>(2 * us), 1000u + us, 0, 0)),
                               cast(file(250, 1000u + us, 0, 0)),
                               cast(relay(static_cast<unsigned short>(2 * us + 1), 2000u + us, 0, 0))};
        for (CASTInfo *&pInfo : pInfos) {
            pInfo->ulST = START + ulNow;
            pInfo->ulET = START + ulNow + 12;
            QX_PCCASTSTREAMCommander(CAST_CMD_START, pInfo);
            ELIMINATECASTInfo(&pInfo);
        }
        EXPECT_TRUE(script::eventually([] { return script::requestsWaiting() == 0; }));
        EXPECT_TRUE(script::settle(30));
        const std::string last = "+" + std::to_string(2 * us + 1) + " ", all = history();
        ASSERT_GE(all.size(), last.size());
        EXPECT_EQ(all.substr(all.size() - last.size()), last);
        runTo(ulNow + 11);
        EXPECT_THAT(aired().back(), testing::EndsWith(" on air " + std::to_string(2 * us + 1)));
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
    runTo(11);
    EXPECT_EQ(aired().back(), "11 on air 1");
}

// The engine is held where the supervisor waits for it; the stop must reach the other engines all the same.
TEST_F(SchedulerTest, StopDuringAWaitOfTheSupervisorIsAnswered) {
    for (const bool bHandOver : {true, false}) {
        if (bHandOver) { // the engine has not answered the hand-over
            script::hold("rx 224");
            submit(relay(1, 100, 0, 900));
        } else { // the engine does not come back from its cast
            submit(relay(1, 100, 0, 900));
            EXPECT_EQ(history().back(), ' ');
            script::hold("rx 224");
            submit(relay(2, 101, 0, 900));
        }
        script::startThread([] { QX_PlugIn_Close(); });
        EXPECT_TRUE(
            script::eventually([] { return script::liveThreads() == 3; })); // closer, supervisor, relay
        // The closer's bounded wait runs out, but it does not go before the supervisor has gone.
        EXPECT_TRUE(
            script::eventually([=, this] { return count(out(), "Timeout wait") == (bHandOver ? 1u : 2u); }));
        EXPECT_TRUE(script::settle());
        EXPECT_EQ(count(script::console(), "Close PCCast"), bHandOver ? 0u : 1u);
        script::hold("");
        EXPECT_TRUE(script::threadsEnd());
        open();
    }
}

TEST_F(SchedulerTest, HundredOpensAndClosesLeaveNothing) {
    storeFile(1000000);
    char szText[] = "message";
    close();
    script::settle(1);
    const long lBlocks = script::liveBlocks();
    for (unsigned int ui = 0; ui < 100; ++ui) {
        QX_PlugIn_Open();
        CASTInfo *pInfos[3] = {cast(relay(1, 100, START, START + 1000)),
                               cast(file(2, 100, START, START + 1000)),
                               cast(stop(relay(3, 1, START, START + 1000), 1))};
        for (CASTInfo *&pInfo : pInfos) {
            QX_PCCASTSTREAMCommander(pInfo->ulCMD, pInfo);
            ELIMINATECASTInfo(&pInfo);
        }
        MSGInfo message{0, 1, ui % 2, 1, START, START + 1000, 5, 0, 0, szText};
        QX_PCCASTMBCCommander(PCMBC_CMD_MSG, &message);
        script::settle(ui % 8); // the requests are caught at different points of their road
        QX_PlugIn_Close();
        EXPECT_TRUE(script::threadsEnd());
        ASSERT_EQ(script::liveBlocks(), lBlocks) << ui;
        ASSERT_EQ(script::liveEndpoints(), 0) << ui;
    }
    EXPECT_EQ(count(out(), "Timeout"), 0u);
}

// Every allocation of the supervisor's own is refused once: the service then lacks a list or loses a cast,
// but it opens, goes on, and closes whole.
TEST_F(SchedulerTest, SupervisorWithoutMemoryLosesACastAtMost) {
    for (int i = 1; i <= 24; ++i) {
        close();
        script::fail(Step::THREAD_MEMORY, "__qxapi_open_pccast__", i);
        open();
        script::settle(3);
        CASTInfo *pInfo = cast(relay(1, 100, START, START + 1000));
        QX_PCCASTSTREAMCommander(CAST_CMD_START, pInfo);
        ELIMINATECASTInfo(&pInfo);
        EXPECT_TRUE(script::settle(15));
    }
}

} // namespace

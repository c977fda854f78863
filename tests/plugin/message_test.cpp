// The message broadcast engine: what it sends, when, and in which order.
#include "plugintest.h"

namespace {

using script::kStart;

const std::string kAir = "tx 224.9.9.9:9367";
const char *const kFailedLine = "pcmbc msg xmit fail\n";

struct MessageFields {
    const char *pszText = "aaaa";                                            // a pause of 7 s
    unsigned long ulCT = 100, ulPri = 0, ulRep = 200, ulET = 1000, ulST = 0; // times from kStart
    unsigned long ulCMD = PCMBC_CMD_MSG, ulEPGID = 1;
};

class MessageTest : public PluginTest {
protected:
    void file(MSGList *pList, const MessageFields &of) {
        MSGInfo *pInfo = nullptr;
        ASSERT_EQ(MAKEMSGInfo(&pInfo, of.pszText), 1);
        char *const pText = pInfo->pMSGSTR;
        const unsigned long ulST = kStart + of.ulST, ulET = kStart + of.ulET;
        *pInfo = {of.ulCMD, of.ulEPGID, of.ulPri, of.ulCT, ulST, ulET, of.ulRep, 33333, 32, pText};
        ASSERT_EQ(INSERTMSGInfo(pList, pInfo), 1);
        EXPECT_TRUE(script::settle(4));
    }
    // Runs until then. Returns "TIME TEXT" of each broadcast.
    static std::vector<std::string> aired(unsigned long ulSeconds = 0) {
        runTo(ulSeconds);
        std::vector<std::string> texts;
        for (const script::Frame &frame : script::frames(kAir)) {
            texts.push_back(std::to_string(frame.ulTime - kStart) + " " +
                            std::string(frame.payload.begin() + 50, frame.payload.end()));
        }
        return texts;
    }
    TwoMessageLists both;
    MSGList **const lists = both.work, &priority = both.lists[0], &normal = both.lists[1];
};

TEST_F(MessageTest, PacketIsAsTheReceiversReadIt) {
    Engine engine(PCMBCEngine, lists);
    EXPECT_TRUE(script::settle(4));
    EXPECT_EQ(script::pausedMicroseconds(), 0u); // empty lists are not locked
    file(&normal, {.pszText = "hello", .ulPri = 2, .ulRep = 1, .ulET = 100, .ulCMD = 77});
    ASSERT_EQ(script::frames(kAir).size(), 1u);
    const script::Frame frame = script::frames(kAir).front();
    EXPECT_TRUE(isHeader(frame, 14, 204, 0x40020, 1000000000));
    EXPECT_EQ(
        frame.payload,
        bytes("4B 00 04 00 00 CA 9A 3B 0B 00 04 00 00 CA 9A 3B 0C 00 04 00 64 CA 9A 3B 0A 50 02 00 01 00"
              "03 50 04 00 35 82 00 00 01 50 04 00 20 00 00 00 0B 50 05 00 'hello'"));
    EXPECT_THAT(script::seen().calls, ElementsAre("init 1 2", "create " + kAir, "hops 0 5 1 " + kAir));
    // Of all endpoints, only this one's error word is left alone.
    EXPECT_THAT(script::seen().endpoints,
                ElementsAre("mode 1 version 2 kind 10400 peer 224.9.9.9 local  port 9367 "
                            "listen 0 aux - timeout - error -"));
    engine.stop();
    EXPECT_EQ(engine.block.eState, ENGINE_STOPPED);
    EXPECT_EQ(engine.block.iThreadCount, 0);
}

TEST_F(MessageTest, PauseGrowsWithTheTextAndRepeatsRunOut) {
    struct Case {
        size_t ulBytes;
        unsigned long ulPause;
    };
    for (const Case &row : {Case{0, 7}, Case{4, 7}, Case{5, 8}, Case{39, 14}, Case{40, 15}}) {
        script::reset();
        const std::string text(row.ulBytes, 'x');
        Engine engine(PCMBCEngine, lists);
        file(&priority, {.pszText = text.c_str(), .ulPri = 1, .ulRep = 2});
        runTo(3 * row.ulPause);
        EXPECT_THAT(aired(), ElementsAre("0 " + text, std::to_string(row.ulPause) + " " + text));
    }
}

TEST_F(MessageTest, LongestTextIsSentAndWaitsItsWholePause) {
    const std::string text(PCMBC_TEXT_MAX, 'x');
    Engine engine(PCMBCEngine, lists);
    file(&normal, {.pszText = text.c_str(), .ulRep = 2, .ulET = 20000});
    script::advance(7 + 13085 - 1);
    EXPECT_TRUE(script::settle(10));
    EXPECT_EQ(script::frames(kAir).size(), 1u);
    EXPECT_EQ(aired(13092).size(), 2u);
    EXPECT_EQ(out(), "");
}

TEST_F(MessageTest, PauseAndSendTimeCountFromTheSending) {
    script::hold(kAir); // the set-up takes three seconds
    Engine engine(PCMBCEngine, lists);
    MSGInfo *pInfo = nullptr;
    ASSERT_EQ(MAKEMSGInfo(&pInfo, "m"), 1);
    pInfo->ulET = kStart + 100;
    ASSERT_EQ(INSERTMSGInfo(&normal, pInfo), 1);
    EXPECT_TRUE(script::eventually([] { return script::seen().calls.size() == 1; }));
    script::advance(3);
    script::hold("");
    EXPECT_THAT(aired(10), ElementsAre("3 m", "10 m"));
    EXPECT_TRUE(isHeader(script::frames(kAir).front(), 14, 204, 0x40020, kStart + 3));
    EXPECT_EQ(script::frames(kAir).front().payload.at(4), 3);
}

TEST_F(MessageTest, TextThatFitsNoDatagramIsCountedAndHasItsPause) {
    // The longest text that fits makes a datagram of the largest size.
    static_assert(PCMBC_TEXT_MAX == KTNET_UDP_FRAME_MAX - 28 - 50);
    const std::string text(PCMBC_TEXT_MAX + 1, 'x');
    Engine engine(PCMBCEngine, lists);
    script::fail(Step::Tx, "", -90);
    file(&priority, {.pszText = text.c_str(), .ulPri = 1, .ulRep = 2, .ulET = 20});
    file(&normal, {.pszText = "low", .ulCT = 99});
    EXPECT_THAT(aired(20), ElementsAre("20 low")); // its end lets the next one go out at once
    EXPECT_EQ(count(err(), kFailedLine), 1u);
    EXPECT_EQ(count(out(), "[pcmbcengine:#] \033[2;31m message of EPG id 1: 65430 bytes of text do not fit a "
                           "datagram, not sent \033[1;41m[ERROR]\033[0m\n"),
              1u);
}

TEST_F(MessageTest, ClockSetBackStretchesNoPause) {
    Engine engine(PCMBCEngine, lists);
    runTo(1000);
    file(&normal, {.ulET = 2000});
    script::advance(-500ul); // back to 500: the pause of 7 s ends at 507, not at 1007
    EXPECT_THAT(aired(508), ElementsAre("1000 aaaa", "507 aaaa"));
}

TEST_F(MessageTest, NewerAndPrioritisedMessagesTakeTheAir) {
    Engine engine(PCMBCEngine, lists);
    file(&priority, {.pszText = "far", .ulCT = 900, .ulPri = 1, .ulST = 900}); // not due: nobody waits for it
    file(&normal, {.pszText = "old", .ulCT = 100, .ulRep = 3});
    file(&normal, {.pszText = "low", .ulCT = 99}); // older than the one on air: waits
    file(&normal, {.pszText = "new", .ulCT = 101, .ulRep = 1});
    runTo(7); // the new one waits for the pause of the last broadcast; the old one has two showings left
    file(&priority, {.pszText = "pri", .ulCT = 50, .ulPri = 1, .ulRep = 2});
    file(&priority, {.pszText = "p90", .ulCT = 40, .ulPri = 1, .ulRep = 1}); // waits for the first one
    EXPECT_THAT(aired(56), ElementsAre("0 old", "7 new", "14 pri", "21 pri", "28 p90", "35 old", "42 old",
                                       "49 low", "56 low"));
}

TEST_F(MessageTest, PriorityTwoOfTheNormalListHoldsTheAirAndMovesToThePriorityList) {
    Engine engine(PCMBCEngine, lists);
    file(&normal, {.pszText = "two", .ulCT = 100, .ulPri = 2});
    file(&normal, {.pszText = "new", .ulCT = 200});              // the normal list cannot replace it
    file(&priority, {.pszText = "low", .ulCT = 99, .ulPri = 1}); // nor an older one of the priority list
    runTo(7);
    file(&priority, {.pszText = "pri", .ulCT = 101, .ulPri = 1, .ulRep = 1}); // a newer one does
    EXPECT_THAT(aired(28), ElementsAre("0 two", "7 two", "14 pri", "21 two", "28 two"));
    engine.stop();
    EXPECT_EQ(priority.pList->iCount, 1);
    EXPECT_EQ(normal.pList->iCount, 1);
}

TEST_F(MessageTest, CancelStopsItsOwnMessageOfItsOwnList) {
    Engine engine(PCMBCEngine, lists);
    file(&normal, {.pszText = "nor"});
    file(&priority, {.ulCMD = PCMBC_CMD_CANCEL});             // the other list
    file(&normal, {.ulCMD = PCMBC_CMD_CANCEL, .ulEPGID = 2}); // another message
    file(&normal, {.ulET = 999, .ulCMD = PCMBC_CMD_CANCEL});  // the same but for its end
    file(&normal, {.ulCT = 99, .ulCMD = PCMBC_CMD_CANCEL});   // older than the one on air: stays in the list
    EXPECT_THAT(aired(7), ElementsAre("0 nor", "7 nor"));
    file(&normal, {.pszText = "old", .ulCT = 98, .ulRep = 1, .ulEPGID = 9});
    file(&normal, {.pszText = "any", .ulCMD = PCMBC_CMD_CANCEL});
    runTo(30);
    file(&priority, {.pszText = "pri", .ulPri = 1, .ulEPGID = 3});
    file(&priority, {.pszText = "sec", .ulCT = 98, .ulPri = 1, .ulRep = 1, .ulEPGID = 4});
    for (const unsigned long ulET : {999ul, 1000ul}) { // the same but for its end: no effect
        EXPECT_THAT(aired(), ElementsAre("0 nor", "7 nor", "14 old", "30 pri"));
        EXPECT_EQ(priority.pList->iCount, 1);
        file(&priority, {.ulET = ulET, .ulCMD = PCMBC_CMD_CANCEL, .ulEPGID = 3});
    }
    // The next one waits for the pause of the cancelled one.
    EXPECT_THAT(aired(50), ElementsAre("0 nor", "7 nor", "14 old", "30 pri", "37 sec"));
    EXPECT_EQ(priority.pList->iCount + normal.pList->iCount, 0);
}

TEST_F(MessageTest, EquallyOldMessagesTakeTurns) {
    Engine engine(PCMBCEngine, lists);
    file(&normal, {.pszText = "a", .ulEPGID = 1});
    file(&normal, {.pszText = "b", .ulEPGID = 2});
    bool bSeen[2] = {false, false};
    EXPECT_TRUE(script::eventually([&] {
        MSGInfo *pWaiting = nullptr;
        GETCOPYaMSGInfo(&normal, &pWaiting);
        if (pWaiting != nullptr) {
            bSeen[pWaiting->uliEPGID - 1] = true;
        }
        ELIMINATEMSGInfo(&pWaiting);
        return bSeen[0] && bSeen[1];
    }));
}

TEST_F(MessageTest, MessageThatCannotBeFiledBackIsLostAlone) {
    Engine engine(PCMBCEngine, lists);
    file(&normal, {.pszText = "on"});
    {
        script::Taken taken(normal.pMutex);
        file(&priority, {.pszText = "pri", .ulPri = 1, .ulRep = 1});
        EXPECT_TRUE(script::eventually([this] { return count(out(), "can NOT LOCK") == 1; }));
    }
    EXPECT_THAT(aired(20), ElementsAre("0 on", "7 pri"));
}

TEST_F(MessageTest, TimesOfStartAndEnd) {
    for (MSGList *pList : both.work) {
        script::reset();
        Engine engine(PCMBCEngine, lists);
        file(pList, {.pszText = "late", .ulRep = 1, .ulST = 3});
        EXPECT_THAT(aired(), IsEmpty());
        EXPECT_THAT(aired(1), ElementsAre("1 late")); // taken two seconds ahead, and sent at once
    }
    script::reset();
    Engine engine(PCMBCEngine, lists);
    file(&normal, {.pszText = "late", .ulST = 3});
    runTo(1);
    file(&priority,
         {.pszText = "ends", .ulCT = 300, .ulPri = 1, .ulRep = 0, .ulET = 20}); // repeat 0: until the end
    file(&priority, {.pszText = "over", .ulCT = 400, .ulPri = 1, .ulET = 1});
    file(&normal, {.pszText = "next", .ulCT = 500});
    runTo(27);
    // When one ends, the next one does not wait for the pause.
    EXPECT_THAT(aired(), ElementsAre("1 late", "8 ends", "15 ends", "20 next", "27 next"));
}

TEST_F(MessageTest, FailingSenderUsesUpRepeats) {
    struct Case {
        Step step;
        int iResult;
        std::vector<std::string> aired;
        size_t ulLines, ulSetUps;
    };
    const Case cases[] = {
        {Step::Tx, -1, {"7 m"}, 1, 2}, // set up again for the second
        {Step::Create, -1, {"7 m"}, 0, 2}, {Step::Init, -1, {"7 m"}, 0, 1},
        {Step::Tx, 0, {"0 m"}, 1, 1}, // the script records it as sent; nothing goes out any more
        {Step::Create, 0, {}, 0, 1},       {Step::Init, 0, {}, 0, 0}};
    size_t ulLines = 0;
    for (const Case &row : cases) {
        script::reset();
        Engine engine(PCMBCEngine, lists);
        script::fail(row.step, "", row.iResult);
        file(&normal, {.pszText = "m", .ulRep = 2});
        runTo(30);
        EXPECT_EQ(aired(), row.aired);
        EXPECT_EQ(count(err(), kFailedLine) - ulLines, row.ulLines);
        EXPECT_EQ(script::seen().endpoints.size(), row.ulSetUps);
        ulLines = count(err(), kFailedLine);
        file(&normal, {.pszText = "n", .ulRep = 1, .ulET = 31}); // taken and counted all the same
        EXPECT_EQ(normal.pList->iCount, 0);
    }
}

TEST_F(MessageTest, MemoryThatRunsOutCostsOneBroadcastAtMost) {
    for (long lNth = 1; lNth <= 20; ++lNth) {
        script::reset();
        file(&normal, {.pszText = "m", .ulRep = 3});
        Engine engine(PCMBCEngine, lists, lNth);
        runTo(21);
        EXPECT_GE(aired().size(), 2u) << lNth;
        for (const script::Frame &frame : script::frames(kAir)) {
            EXPECT_EQ(frame.payload.size(), 51u);
        }
    }
}

} // namespace

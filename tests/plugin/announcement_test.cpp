// The announcement engine: its packets, byte for byte, and their times.
#include "plugintest.h"

#include <cstddef>
#include <fstream>
#include <sys/stat.h>

namespace {

using script::START;

const std::string AIR = ANNOUNCEMENTS;
const char *const STATION = "/fixdata/bypass.nsc";

class AnnouncementTest : public PluginTest {
protected:
    ~AnnouncementTest() override { unlink(STATION); }

    static void station(const char *pszText) { std::ofstream(STATION) << pszText; }
    // Waits for what must be the next announcement.
    static script::Frame next(size_t ulIndex) {
        EXPECT_TRUE(script::eventually([=] { return script::frames(AIR).size() > ulIndex; }));
        EXPECT_TRUE(script::settle(2));
        return script::frames(AIR).at(ulIndex);
    }
    Engine engine{PCCASTBCIEngine};
};

TEST_F(AnnouncementTest, PacketsAreAsTheReceiversReadThem) {
    struct Case {
        CastFields fields;
        const char *pszPayload;
    };
    const Case cases[] = {
        {{.ulType = 2, .ulEPGID = 0x1122334455},
         "4C 04 04 00 AC 09 32 D2 01 07 04 00 55 44 33 22 1D 70 04 00 01 00 00 00 1C 70 04 00 02 00 00 00"
         "11 70 04 00 00 CA 9A 3B 12 70 04 00 64 CA 9A 3B 14 70 09 00 '224.2.2.2' 17 70 02 00 88 13"},
        {{.ulType = 3, .ulFormat = 0x2000},
         "4C 04 04 00 D7 10 95 5F 01 07 04 00 01 00 00 00 1D 70 04 00 01 00 00 00 1C 70 04 00 00 20 00 00"
         "11 70 04 00 00 CA 9A 3B 12 70 04 00 64 CA 9A 3B"},
        {{.ulType = 1, .ulFormat = 0x2010},
         "4C 04 04 00 C4 07 52 CC 01 07 04 00 01 00 00 00 1D 70 04 00 10 00 00 00 1C 70 04 00 03 00 00 00"
         "11 70 04 00 00 CA 9A 3B 12 70 04 00 64 CA 9A 3B 4D 04 04 00 CD 19 67 C1 4F 04 0B 00 '[Address]' 0D "
         "0A"},
        {{.ulCMD = 2, .ulType = 2},
         "4C 04 04 00 22 84 47 F0 01 07 04 00 01 00 00 00 1D 70 04 00 01 00 00 00 1C 70 04 00 02 00 00 00"},
        {{.ulCMD = 3, .ulType = 1, .ulEPGID = 7, .ulFormat = 0x2016}, // no station file with an end
         "4C 04 04 00 01 DF 65 5B 01 07 04 00 07 00 00 00 1D 70 04 00 10 00 00 00 1C 70 04 00 03 00 00 00"}};
    station("[Address]\r\n");
    size_t ulIndex = 0;
    for (const Case &row : cases) {
        engine.handOver(cast(row.fields));
        const script::Frame frame = next(ulIndex++);
        EXPECT_EQ(frame.payload, bytes(row.pszPayload));
        EXPECT_TRUE(isHeader(frame, 1234, 204, row.fields.ulCMD == 1 ? 0x40030 : 0x40033, script::now()));
        engine.finish();
        script::advance(11);
    }
    EXPECT_EQ(out(),
              "PCCASTtoBCIInfo():#, ALARM, unknown content format[0x2000(8192)] to re-cast: let it go\n");
    EXPECT_THAT(script::seen().endpoints,
                ElementsAre("mode 0 version 2 kind 10400 peer 224.9.9.9 local  port 7890 "
                            "listen 0 aux - timeout - error 0"));
    EXPECT_THAT(script::seen().calls, ElementsAre("init 0 2", "create " + AIR, "hops 0 5 1 " + AIR));
    engine.stop(); // an end was the last
    EXPECT_EQ(script::frames(AIR).size(), std::size(cases));
}

TEST_F(AnnouncementTest, NextCastKeepsTheDistanceToTheLastPacket) {
    engine.handOver(cast({}));
    next(0);
    runTo(3);
    engineMove(&engine.block, ENGINE_RUNNING, ENGINE_FINISH);
    engine.handOver(cast({.ulEPGID = 2}));
    EXPECT_THAT(announced(12), ElementsAre("0 on air 1", "11 on air 2"));
    engineMove(&engine.block, ENGINE_RUNNING, ENGINE_FINISH);
    engine.handOver(cast({.ulCMD = 2, .ulEPGID = 3})); // at 12, until 32
    EXPECT_THAT(announced(60), ElementsAre("0 on air 1", "11 on air 2", "22 end 3"));
    EXPECT_EQ(engine.block.eState, ENGINE_IDLE);
    engine.handOver(cast({.ulCMD = 3, .ulEPGID = 4})); // long after the last: at once and once more
    next(3);
    runTo(100);
    engine.stop();
    EXPECT_THAT(announced(), ElementsAre("0 on air 1", "11 on air 2", "22 end 3", "60 end 4", "71 end 4"));
}

TEST_F(AnnouncementTest, WhatCannotBeAnnouncedIsTakenAndDropped) {
    engine.handOver(cast({.ulET = START}));      // over already
    engine.handOver(cast({.ulCMD = 9}));         // no command that means anything to the receivers
    engine.handOver(cast({.ulFormat = 0x2010})); // no station file
    ASSERT_TRUE(engine.becomes(ENGINE_IDLE));
    EXPECT_TRUE(script::settle());
    EXPECT_THAT(announced(), IsEmpty());
    EXPECT_THAT(out(), HasSubstr("Can NOT open CRC32 Source File[/fixdata/bypass.nsc]\n"));
    station("");
    engine.handOver(cast({.ulType = 1, .ulFormat = 0x2010})); // an empty file is a file; its CRC is its own
    EXPECT_EQ(
        next(0).payload,
        bytes("4C 04 04 00 C4 07 52 CC 01 07 04 00 01 00 00 00 1D 70 04 00 10 00 00 00 1C 70 04 00 03 00 00 "
              "00 11 70 04 00 00 CA 9A 3B 12 70 04 00 64 CA 9A 3B 4D 04 04 00 00 00 00 00 4F 04 00 00"));
    engine.finish();
    CASTInfo *pInfo = cast({});
    free(pInfo->pDSTIP);
    pInfo->pDSTIP = nullptr;
    script::advance(11);
    engine.handOver(pInfo);
    EXPECT_EQ(
        next(1).payload,
        bytes(
            "4C 04 04 00 4F 10 DF B3 01 07 04 00 01 00 00 00 1D 70 04 00 01 00 00 00 1C 70 04 00 02 00 00 00"
            "11 70 04 00 00 CA 9A 3B 12 70 04 00 64 CA 9A 3B"));
    EXPECT_THAT(out(),
                HasSubstr("[bciengine:#] \033[2;31m h.264 casting info invalid\033[1;41m[ERROR]\033[0m\n"));
}

// The supervisor has taken the cast on air off for the request, whatever that one means.
TEST_F(AnnouncementTest, RequestThatMeansNothingEndsTheCastBeforeIt) {
    engine.handOver(cast({.ulEPGID = 7}));
    next(0);
    engineMove(&engine.block, ENGINE_RUNNING, ENGINE_FINISH);
    engine.handOver(cast({.ulCMD = 9, .ulEPGID = 8}));
    EXPECT_THAT(announced(20), ElementsAre("0 on air 7", "11 end 7"));
    EXPECT_EQ(engine.block.eState, ENGINE_IDLE);
    EXPECT_EQ(out(), "[bciengine:#] \033[2;31m cast request with command 9, type 2 is not announced "
                     "\033[1;41m[ERROR]\033[0m\n");
}

TEST_F(AnnouncementTest, FailedSendEndsTheCastAndReopensForTheNext) {
    for (const int iResult : {-5, 0}) {
        script::forget();
        script::fail(Step::TX, AIR, iResult, 1, 1); // the second one
        engine.handOver(cast({.ulET = START + 1000}));
        EXPECT_TRUE(engine.becomes(ENGINE_RUNNING));
        EXPECT_TRUE(script::settle());
        script::advance(11);
        ASSERT_TRUE(engine.becomes(ENGINE_IDLE));
        EXPECT_EQ(out(), "PCCASTBCIEngine():# KTNetTxData Error[0x000000E1(225), 0x0000005A(90)]\n");
        EXPECT_EQ(count(joined(script::seen().calls), "dump\n"), iResult < 0 ? 1u : 0u);
        script::advance(11);
        engine.handOver(cast({.ulCMD = 2, .ulET = START + 1000}));
        EXPECT_TRUE(script::eventually([] { return script::seen().calls.size() >= 5; }));
        engine.finish();
        EXPECT_THAT(joined(script::seen().calls),
                    testing::EndsWith("close " + AIR + "\ndelete " + AIR + "\ninit 0 2\ncreate " + AIR +
                                      "\nhops 0 5 1 " + AIR + "\n"));
        script::advance(11);
    }
}

TEST_F(AnnouncementTest, EndpointThatCannotBeOpenedIsTriedAgain) {
    script::fail(Step::INIT, "mode 0", 0);
    engine.handOver(cast({}));
    EXPECT_TRUE(script::settle());
    script::fail(Step::CREATE, AIR, -3);
    engine.handOver(cast({}));
    EXPECT_TRUE(script::settle());
    EXPECT_EQ(engine.block.eState, ENGINE_IDLE);
    EXPECT_THAT(announced(), IsEmpty());
    EXPECT_EQ(script::liveEndpoints(), 0);
    engine.handOver(cast({.ulEPGID = 2}));
    EXPECT_EQ(next(0).ulTime, START);
}

// Stopped in the middle of a cast, with another one in the slot: that one is released unannounced, and the
// one on air gets the one end announcement.
TEST_F(AnnouncementTest, StopAnnouncesTheEndOnceAndReleasesTheNext) {
    station("x");
    engine.handOver(cast({.ulType = 1, .ulEPGID = 7, .ulFormat = 0x2010}));
    next(0);
    engine.block.pWork = cast({.ulEPGID = 8});
    script::advance(1);
    engine.stop();
    EXPECT_EQ(engine.block.eState, ENGINE_STOPPED);
    EXPECT_EQ(engine.block.iThreadCount, 0);
    EXPECT_EQ(engine.block.pWork, nullptr);
    EXPECT_THAT(announced(), ElementsAre("0 on air 7", "1 end 7"));
    EXPECT_TRUE(isHeader(script::frames(AIR).at(1), 1234, 204, 0x40033, START + 1));
    EXPECT_EQ(script::frames(AIR).at(1).payload, bytes("4C 04 04 00 01 DF 65 5B 01 07 04 00 07 00 00 00 1D "
                                                       "70 04 00 10 00 00 00 1C 70 04 00 03 00 00 00"));
}

TEST_F(AnnouncementTest, MemoryThatRunsOutAnywhereEndsNothingButTheCast) {
    engine.stop();
    station("[Address]\r\n");
    for (long lNth = 1; lNth <= 40; ++lNth) {
        Engine poor(PCCASTBCIEngine, nullptr, lNth);
        poor.handOver(cast({.ulType = 1, .ulFormat = 0x2010}));
        EXPECT_TRUE(script::settle(4));
        poor.finish();
        poor.handOver(cast({.ulCMD = 2}));
        EXPECT_TRUE(script::settle(4));
    }
    // An incomplete announcement is none: whatever went out is whole.
    for (const script::Frame &frame : script::frames(AIR)) {
        EXPECT_EQ(frame.payload.size(), frame.header.uiCommand == 0x40030 ? 71u : 32u);
    }
}

} // namespace

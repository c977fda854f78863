// The announcement engine: its packets, byte for byte, and their times.
#include "plugintest.h"

#include <cstddef>
#include <fstream>
#include <sys/stat.h>

namespace {

using script::START;

const char *const AIR = "tx 224.9.9.9:7890";
const char *const STATION = "/fixdata/bypass.nsc";

class AnnouncementTest : public PluginTest {
protected:
    ~AnnouncementTest() override { unlink(STATION); }

    static void runTo(unsigned long ulSeconds) {
        while (script::now() < START + ulSeconds) {
            script::advance(1);
            EXPECT_TRUE(script::settle(4));
        }
    }
    // "TIME COMMAND EPGID" of each announcement, times from START.
    static std::vector<std::string> aired() {
        std::vector<std::string> texts;
        for (const script::Frame &frame : script::frames(AIR)) {
            EXPECT_EQ(frame.header.uiParam, static_cast<unsigned int>(frame.ulTime));
            EXPECT_EQ(frame.header.ulReserved, 0u); // the library's marks of the time before are wiped
            EXPECT_EQ(frame.header.uiStatus, 0u);
            texts.push_back(std::to_string(frame.ulTime - START) +
                            (frame.header.uiCommand == 0x40030   ? " on air "
                             : frame.header.uiCommand == 0x40033 ? " end "
                                                                 : " ? ") +
                            std::to_string(frame.payload.at(12)));
        }
        return texts;
    }
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
        engineMove(&engine.block, ENGINE_RUNNING, ENGINE_FINISH);
        ASSERT_TRUE(engine.becomes(ENGINE_IDLE));
        script::advance(11);
    }
    EXPECT_EQ(out(),
              "PCCASTtoBCIInfo():#, ALARM, unknown content format[0x2000(8192)] to re-cast: let it go\n");
    EXPECT_THAT(script::endpoints(),
                ElementsAre("mode 0 version 2 kind 10400 peer 224.9.9.9 local  port 7890 "
                            "listen 0 aux - timeout - error 0"));
    EXPECT_THAT(script::calls(),
                ElementsAre("init 0 2", std::string("create ") + AIR, std::string("hops 0 5 1 ") + AIR));
    engine.stop(); // an end was the last
    EXPECT_EQ(script::frames(AIR).size(), std::size(cases));
}

TEST_F(AnnouncementTest, OnAirRepeatsEveryElevenSecondsUntilTheEnd) {
    engine.handOver(cast({.ulET = START + 34}));
    next(0);
    runTo(33);
    EXPECT_EQ(engine.block.eState, ENGINE_RUNNING);
    runTo(60);
    EXPECT_THAT(aired(), ElementsAre("0 on air 1", "11 on air 1", "22 on air 1", "33 on air 1"));
    EXPECT_EQ(engine.block.eState, ENGINE_IDLE);
    engine.stop(); // on air was the last one said
    EXPECT_EQ(aired().back(), "60 end 1");
    EXPECT_EQ(aired().size(), 5u);
}

TEST_F(AnnouncementTest, NextCastKeepsTheDistanceToTheLastPacket) {
    engine.handOver(cast({}));
    next(0);
    runTo(3);
    engineMove(&engine.block, ENGINE_RUNNING, ENGINE_FINISH);
    engine.handOver(cast({.ulEPGID = 2}));
    runTo(12);
    EXPECT_THAT(aired(), ElementsAre("0 on air 1", "11 on air 2"));
    engineMove(&engine.block, ENGINE_RUNNING, ENGINE_FINISH);
    engine.handOver(cast({.ulCMD = 2, .ulEPGID = 3})); // at 12, until 32
    runTo(60);
    EXPECT_THAT(aired(), ElementsAre("0 on air 1", "11 on air 2", "22 end 3"));
    EXPECT_EQ(engine.block.eState, ENGINE_IDLE);
    engine.handOver(cast({.ulCMD = 3, .ulEPGID = 4})); // long after the last: at once and once more
    next(3);
    runTo(100);
    engine.stop();
    EXPECT_THAT(aired(), ElementsAre("0 on air 1", "11 on air 2", "22 end 3", "60 end 4", "71 end 4"));
}

TEST_F(AnnouncementTest, WhatCannotBeAnnouncedIsTakenAndDropped) {
    engine.handOver(cast({.ulET = START}));      // over already
    engine.handOver(cast({.ulCMD = 9}));         // no command that means anything to the receivers
    engine.handOver(cast({.ulFormat = 0x2010})); // no station file
    ASSERT_TRUE(engine.becomes(ENGINE_IDLE));
    EXPECT_TRUE(script::settle());
    EXPECT_THAT(aired(), IsEmpty());
    EXPECT_THAT(out(), HasSubstr("Can NOT open CRC32 Source File[/fixdata/bypass.nsc]\n"));
    station("");
    engine.handOver(cast({.ulEPGID = 1, .ulFormat = 0x2010})); // an empty file is a file
    const Bytes payload = next(0).payload;
    EXPECT_EQ(Bytes(payload.end() - 12, payload.end()), bytes("4D 04 04 00 00 00 00 00 4F 04 00 00"));
    engineMove(&engine.block, ENGINE_RUNNING, ENGINE_FINISH);
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
    runTo(20);
    EXPECT_THAT(aired(), ElementsAre("0 on air 7", "11 end 7"));
    EXPECT_EQ(engine.block.eState, ENGINE_IDLE);
    EXPECT_EQ(out(), "[bciengine:#] \033[2;31m cast request with command 9, type 2 is not announced "
                     "\033[1;41m[ERROR]\033[0m\n");
}

TEST_F(AnnouncementTest, StationFileChangesItsOwnCRCAlone) {
    Bytes heads[2], crcs[2];
    const char *const contents[] = {"[Address]\r\n", "[Address]\n"};
    for (size_t ul = 0; ul < 2; ++ul) {
        station(contents[ul]);
        engine.handOver(cast({.ulFormat = 0x2016}));
        const Bytes payload = next(ul).payload;
        heads[ul].assign(payload.begin(), payload.begin() + 48);
        crcs[ul].assign(payload.begin() + 48, payload.begin() + 56);
        engineMove(&engine.block, ENGINE_RUNNING, ENGINE_FINISH);
        ASSERT_TRUE(engine.becomes(ENGINE_IDLE));
        script::advance(11);
    }
    EXPECT_EQ(heads[0], heads[1]);
    EXPECT_EQ(crcs[0], bytes("4D 04 04 00 CD 19 67 C1"));
    EXPECT_EQ(crcs[1], bytes("4D 04 04 00 B1 83 0A 97"));
}

TEST_F(AnnouncementTest, FailedSendEndsTheCastAndReopensForTheNext) {
    const std::string create = std::string("create ") + AIR, hops = std::string("hops 0 5 1 ") + AIR,
                      close = std::string("close ") + AIR, remove = std::string("delete ") + AIR;
    for (const int iResult : {-5, 0}) {
        script::forgetCalls();
        script::fail(Step::TX, AIR, iResult, 1, 1); // the second one
        engine.handOver(cast({.ulEPGID = 1, .ulET = START + 1000}));
        EXPECT_TRUE(script::eventually([&] { return engine.block.eState == ENGINE_RUNNING; }));
        EXPECT_TRUE(script::settle());
        script::advance(11);
        ASSERT_TRUE(engine.becomes(ENGINE_IDLE));
        EXPECT_EQ(out(), "PCCASTBCIEngine():# KTNetTxData Error[0x000000E1(225), 0x0000005A(90)]\n");
        EXPECT_EQ(script::dumps(), 1);
        script::advance(11);
        engine.handOver(cast({.ulCMD = 2, .ulEPGID = 2, .ulET = START + 1000}));
        EXPECT_TRUE(script::eventually([] { return script::calls().size() >= 5; }));
        engineMove(&engine.block, ENGINE_RUNNING, ENGINE_FINISH);
        ASSERT_TRUE(engine.becomes(ENGINE_IDLE));
        const std::vector<std::string> calls = script::calls();
        EXPECT_EQ(std::vector<std::string>(calls.end() - 5, calls.end()),
                  (std::vector<std::string>{close, remove, "init 0 2", create, hops}));
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
    EXPECT_EQ(script::frameAttempts(), 0u);
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
    EXPECT_THAT(aired(), ElementsAre("0 on air 7", "1 end 7"));
    EXPECT_EQ(script::frames(AIR).at(1).payload, bytes("4C 04 04 00 01 DF 65 5B 01 07 04 00 07 00 00 00 1D "
                                                       "70 04 00 10 00 00 00 1C 70 04 00 03 00 00 00"));
    EXPECT_EQ(script::frames(AIR).at(1).header.uiIdent, 1234u);
    EXPECT_EQ(script::frames(AIR).at(1).header.uiService, 204u);
    EXPECT_EQ(script::frames(AIR).at(1).header.ulReserved, 0u);
}

TEST_F(AnnouncementTest, MemoryThatRunsOutAnywhereEndsNothingButTheCast) {
    engine.stop();
    station("[Address]\r\n");
    for (long lNth = 1; lNth <= 40; ++lNth) {
        Engine poor(PCCASTBCIEngine, nullptr, lNth);
        poor.handOver(cast({.ulType = 1, .ulFormat = 0x2010}));
        EXPECT_TRUE(script::settle(4));
        engineMove(&poor.block, ENGINE_RUNNING, ENGINE_FINISH);
        EXPECT_TRUE(poor.becomes(ENGINE_IDLE));
        poor.handOver(cast({.ulCMD = 2}));
        EXPECT_TRUE(script::settle(4));
    }
    // An incomplete announcement is none: whatever went out is whole.
    for (const script::Frame &frame : script::frames(AIR)) {
        EXPECT_EQ(frame.payload.size(), frame.header.uiCommand == 0x40030 ? 71u : 32u);
    }
}

} // namespace

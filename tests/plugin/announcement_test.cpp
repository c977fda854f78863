// The announcement engine: its packets byte by byte, and when it sends them.
#include "plugintest.h"

#include "bciengine.h"

#include <fstream>
#include <sys/stat.h>

namespace {

using script::kStart;

const std::string kAir = kAnnouncements;
const char *const kStation = "/fixdata/bypass.nsc";

class AnnouncementTest : public PluginTest {
protected:
    ~AnnouncementTest() override { unlink(kStation); }

    static void station(const std::string &text) { std::ofstream(kStation) << text; }
    // Waits for the announcement of this number.
    static script::Frame next(size_t ulIndex) {
        EXPECT_TRUE(script::eventually([=] { return script::frames(kAir).size() > ulIndex; }));
        EXPECT_TRUE(script::settle(2));
        return script::frames(kAir).at(ulIndex);
    }
    Engine engine{PCCASTBCIEngine};
};

TEST_F(AnnouncementTest, PacketsAreAsTheReceiversReadThem) {
    struct Case {
        CastFields fields;
        const char *pszStation, *pszPayload;
    };
    const Case cases[] = {
        {{.ulType = 2, .ulEPGID = 0x1122334455, .ulFormat = 0x2025},
         nullptr,
         "4C 04 04 00 AC 09 32 D2 01 07 04 00 55 44 33 22 1D 70 04 00 01 00 00 00 1C 70 04 00 02 00 00 00"
         "11 70 04 00 00 CA 9A 3B 12 70 04 00 64 CA 9A 3B 14 70 09 00 '224.2.2.2' 17 70 02 00 88 13"},
        {{.pszTarget = nullptr},
         nullptr,
         "4C 04 04 00 4F 10 DF B3 01 07 04 00 01 00 00 00 1D 70 04 00 01 00 00 00 1C 70 04 00 02 00 00 00"
         "11 70 04 00 00 CA 9A 3B 12 70 04 00 64 CA 9A 3B"},
        {{.ulType = 3, .ulFormat = 0x2000},
         nullptr,
         "4C 04 04 00 D7 10 95 5F 01 07 04 00 01 00 00 00 1D 70 04 00 01 00 00 00 1C 70 04 00 00 20 00 00"
         "11 70 04 00 00 CA 9A 3B 12 70 04 00 64 CA 9A 3B"},
        {{.ulType = 1, .ulFormat = 0x2010}, // an empty file is a file
         "",
         "4C 04 04 00 C4 07 52 CC 01 07 04 00 01 00 00 00 1D 70 04 00 10 00 00 00 1C 70 04 00 03 00 00 00"
         "11 70 04 00 00 CA 9A 3B 12 70 04 00 64 CA 9A 3B 4D 04 04 00 00 00 00 00 4F 04 00 00"},
        {{.ulType = 1, .ulFormat = 0x2016},
         "[Address]\r\n",
         "4C 04 04 00 C4 07 52 CC 01 07 04 00 01 00 00 00 1D 70 04 00 10 00 00 00 1C 70 04 00 03 00 00 00"
         "11 70 04 00 00 CA 9A 3B 12 70 04 00 64 CA 9A 3B 4D 04 04 00 CD 19 67 C1 4F 04 0B 00 '[Address]' 0D "
         "0A"},
        {{.ulCMD = 2, .ulType = 2, .ulFormat = 0x2005},
         nullptr,
         "4C 04 04 00 22 84 47 F0 01 07 04 00 01 00 00 00 1D 70 04 00 01 00 00 00 1C 70 04 00 02 00 00 00"},
        {{.ulCMD = 3, .ulType = 1, .ulEPGID = 7, .ulFormat = 0x2010}, // no station file with an end
         "x",
         "4C 04 04 00 01 DF 65 5B 01 07 04 00 07 00 00 00 1D 70 04 00 10 00 00 00 1C 70 04 00 03 00 00 00"}};
    size_t ulIndex = 0;
    for (const Case &row : cases) {
        if (row.pszStation != nullptr) {
            station(row.pszStation);
        }
        engine.handOver(cast(row.fields));
        const script::Frame frame = next(ulIndex++);
        EXPECT_EQ(frame.payload, bytes(row.pszPayload));
        EXPECT_TRUE(isHeader(frame, 1234, 204, row.fields.ulCMD == 1 ? 0x40030 : 0x40033, script::now()));
        engine.finish();
        script::advance(11);
    }
    EXPECT_EQ(out(),
              "[bciengine:#] \033[2;31m h.264 casting info invalid\033[1;41m[ERROR]\033[0m\n"
              "PCCASTtoBCIInfo():#, ALARM, unknown content format[0x2000(8192)] to re-cast: let it go\n");
    EXPECT_THAT(script::seen().endpoints,
                ElementsAre("mode 0 version 2 kind 10400 peer 224.9.9.9 local  port 7890 "
                            "listen 0 aux - timeout - error 0"));
    EXPECT_THAT(script::seen().calls, ElementsAre("init 0 2", "create " + kAir, "hops 0 5 1 " + kAir));
    engine.stop(); // an end was the last
    EXPECT_EQ(script::frames(kAir).size(), std::size(cases));
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
    engine.handOver(cast({.ulET = kStart})); // over already
    engine.handOver(cast({.ulCMD = 9}));     // no command that means anything to the receivers
    const CastFields asf{.ulType = 1, .ulFormat = 0x2010};
    const auto isDropped = [&] { // only when the engine is idle again has it looked for the file
        engine.handOver(cast(asf));
        EXPECT_TRUE(engine.becomes(ENGINE_IDLE));
    };
    isDropped(); // no station file
    mkdir(kStation, 0700);
    isDropped();
    rmdir(kStation);
    station(std::string(65420, 'x'));
    isDropped();
    EXPECT_THAT(announced(), IsEmpty());
    const std::string refused = "[bciengine:#] \033[2;31m station file /fixdata/bypass.nsc ";
    EXPECT_THAT(out(),
                testing::EndsWith(
                    "Can NOT open CRC32 Source File[/fixdata/bypass.nsc]\n" + refused +
                    "is no regular file: the cast is not announced \033[1;41m[ERROR]\033[0m\n" + refused +
                    "is too large for a datagram: the cast is not announced \033[1;41m[ERROR]\033[0m\n"));
    station(std::string(65419, 'x')); // with the frame's header 65507 bytes
    engine.handOver(cast(asf));
    EXPECT_EQ(next(0).payload.size(), 65479u);
}

// Whatever the request means, the supervisor has ended the cast on air for it.
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

// A send that failed counts: the next announcement keeps its distance to it.
TEST_F(AnnouncementTest, FailedSendEndsTheCastAndReopensForTheNext) {
    const std::string reopened =
        "close @\ndelete @\ninit 0 2\ncreate @\nhops 0 5 1 @\n"; // @: the endpoint's key
    for (const int iResult : {-5, 0}) {
        script::forget();
        script::fail(Step::Tx, kAir, iResult, 1, 1); // the second one
        const unsigned long ulBegun = script::now() - kStart;
        engine.handOver(cast({.ulET = kStart + 1000}));
        next(0);
        script::advance(11);
        ASSERT_TRUE(engine.becomes(ENGINE_IDLE));
        EXPECT_EQ(out(), "PCCASTBCIEngine():# KTNetTxData Error[0x000000E1(225), 0x0000005A(90)]\n");
        EXPECT_EQ(count(joined(script::seen().calls), "dump\n"), iResult < 0 ? 1u : 0u);
        engine.handOver(cast({.ulCMD = 2, .ulET = kStart + 1000}));
        EXPECT_EQ(announced(ulBegun + 22).back(), std::to_string(ulBegun + 22) + " end 1");
        EXPECT_EQ(script::frames(kAir).size(),
                  iResult < 0 ? 2u : 3u); // the script records a send that gave 0
        engine.finish();
        EXPECT_THAT(std::regex_replace(joined(script::seen().calls), std::regex(kAir), "@"),
                    testing::EndsWith(reopened));
        script::advance(11);
    }
}

TEST_F(AnnouncementTest, EndpointThatCannotBeOpenedIsTriedAgain) {
    script::fail(Step::Init, "mode 0", 0);
    engine.handOver(cast({.ulCMD = 9})); // without an endpoint nobody looks at the request
    EXPECT_TRUE(script::settle());
    script::fail(Step::Create, kAir, -3);
    engine.handOver(cast({}));
    EXPECT_TRUE(script::settle());
    EXPECT_EQ(engine.block.eState, ENGINE_IDLE);
    EXPECT_THAT(announced(), IsEmpty());
    EXPECT_EQ(script::liveEndpoints(), 0);
    EXPECT_EQ(out(), "");
    engine.handOver(cast({.ulEPGID = 2}));
    EXPECT_EQ(next(0).ulTime, kStart);
}

TEST_F(AnnouncementTest, StopAfterAFailedSendEndsWhatTheReceiversKnow) {
    script::fail(Step::Tx, kAir, -5);
    engine.handOver(cast({})); // never on air
    ASSERT_TRUE(engine.becomes(ENGINE_IDLE));
    engine.stop();
    EXPECT_THAT(announced(), IsEmpty());
    Engine second(PCCASTBCIEngine);
    script::fail(Step::Tx, kAir, -5, 1, 1);
    second.handOver(cast({.ulEPGID = 7}));
    next(0);
    script::advance(11);
    ASSERT_TRUE(second.becomes(ENGINE_IDLE));
    second.stop(); // opens the endpoint again for it
    EXPECT_THAT(announced(), ElementsAre("0 on air 7", "11 end 7"));
}

TEST_F(AnnouncementTest, MappingKeepsAnAddressAndNullIsRefused) {
    char szHeld[] = "held";
    BCIInfo record{};
    record.pDSTIP = szHeld;
    CASTInfo *pInfo = cast({});
    EXPECT_EQ(PCCASTtoBCIInfo(pInfo, &record), 1);
    EXPECT_EQ(record.pDSTIP, szHeld);
    EXPECT_EQ(PCCASTtoBCIInfo(nullptr, &record), -1);
    EXPECT_EQ(PCCASTtoBCIInfo(pInfo, nullptr), -1);
    EXPECT_EQ(PCCASTBCIEngine(nullptr), 0);
    BCIInfo own{};
    EXPECT_EQ(PCCASTtoBCIInfo(pInfo, &own), 1);
    for (BCIInfo *pGone : {&own, &own, static_cast<BCIInfo *>(nullptr)}) {
        ELIMINATEBCIInfo(pGone);
    }
    ELIMINATECASTInfo(&pInfo);
}

// The stop comes in the middle of a cast, with another one in the slot. The cast on air is announced as
// ended, once. The one in the slot is released unannounced.
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
    EXPECT_TRUE(isHeader(script::frames(kAir).at(1), 1234, 204, 0x40033, kStart + 1));
    EXPECT_EQ(script::frames(kAir).at(1).payload, bytes("4C 04 04 00 01 DF 65 5B 01 07 04 00 07 00 00 00 1D "
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
    // No incomplete announcement went out.
    for (const script::Frame &frame : script::frames(kAir)) {
        EXPECT_EQ(frame.payload.size(), frame.header.uiCommand == 0x40030 ? 71u : 32u);
    }
}

} // namespace

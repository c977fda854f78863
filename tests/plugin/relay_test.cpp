// The bypass relay engine: what it sends for what it receives, and how its casts end.
#include "plugintest.h"

#include "bciengine.h"
#include "bypassengine.h"
#include "ktnet.h"
#include "pccastmain/debuglog.h"

namespace {

using script::kStart;

const char *const kIn = "224.1.1.1:9100", *const kOut = "tx 224.2.2.2:5000";
const char *const kWaiting = "PCCASTBYPASSEngine() waiting for bypass stream source\n";

class RelayTest : public PluginTest {
protected:
    void onAir(const CastFields &fields) {
        engine.handOver(cast(fields));
        EXPECT_TRUE(engine.becomes(ENGINE_RUNNING));
    }
    Engine engine{PCCASTBYPASSEngine};
};

TEST_F(RelayTest, DatagramsAreDecryptedThenCut) {
    struct Case {
        int iEncryption;
        const char *pszKey;
        int iSplit;
        const char *pszReceived;
        std::vector<const char *> sent;
    };
    const char *const longKey = "0F 0E 0D 0C 0B 0A 09 08 07 06 05 04 03 02 01 00 FF FF",
                      *const eighteen = "00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00";
    const Case cases[] = {
        {0, "", 0, "01 02 03", {"01 02 03"}},
        {7, "01", 0, "01 02 03", {"01 02 03"}},
        {0, "", 1, "03 00 41 42 43 00 00 02 00 44 45", {"41 42 43", "44 45"}},
        {0, "", 1, "02 00 41 42 05 00 43", {"41 42"}}, // a chunk that runs past the end
        {0, "", 1, "02 00 41 42 01", {"41 42"}},       // half a length
        {0, "", 1, "FF FF 41", {}},
        {0, "", 1, "00 00", {}},
        {0, "", 9, "01 02 03", {}},
        // The marked bytes: each with its byte of the key, which zeros fill up to 16, and with 10 or 20.
        {2, "01 02", 0, eighteen, {"11 12 10 10 10 10 10 10 10 10 10 10 10 10 10 10 11 12"}},
        {5, longKey, 0, eighteen, {"2F 2E 2D 2C 2B 2A 29 28 27 26 25 24 23 22 21 20 2F 2E"}},
        {2, "01", 1, "13 10 51 52", {"41 42"}}};
    for (const Case &row : cases) {
        onAir({.iEncryption = row.iEncryption, .iSplit = row.iSplit, .key = bytes(row.pszKey)});
        std::vector<Bytes> expected;
        for (const char *pszPacket : row.sent) {
            expected.push_back(bytes(pszPacket));
        }
        script::forget();
        ASSERT_TRUE(script::datagram(kIn, bytes(row.pszReceived)));
        EXPECT_TRUE(script::eventually([&] { return script::seen().datagrams.size() >= expected.size(); }));
        EXPECT_TRUE(script::settle(3));
        EXPECT_EQ(script::seen().datagrams, expected) << row.pszReceived;
        EXPECT_EQ(engine.block.eState, ENGINE_RUNNING);
        engine.finish();
        EXPECT_EQ(script::liveEndpoints(), 0);
    }
    onAir({});
    Bytes largest(65507, 0x5A);
    largest.back() = 1;
    ASSERT_TRUE(script::datagram(kIn, largest));
    EXPECT_TRUE(script::eventually([&] { return script::seen().datagrams.back() == largest; }));
    EXPECT_EQ(count(err(), "PCCASTBYPASSEngine() iASFSplit unknown iASFSplit type[9] \n"), 1u);
    EXPECT_EQ(count(err(), "\033[2;42m\t\t\t\t[PC BYPASS OnAir]\033[0m\n"), std::size(cases) + 1);
    EXPECT_EQ(out(), "");
}

TEST_F(RelayTest, EndpointsAreSetUpForSourceAndDestination) {
    onAir({});
    engine.finish();
    const std::string rx = std::string("rx ") + kIn, tx = kOut;
    EXPECT_THAT(script::seen().calls,
                ElementsAre("init 0 2", "create " + rx, "init 0 2", "create " + tx, "hops 0 5 1 " + tx,
                            "close " + tx, "delete " + tx, "close " + rx, "delete " + rx));
    EXPECT_THAT(script::seen().endpoints,
                ElementsAre("mode 0 version 2 kind 10400 peer 224.1.1.1 local 127.0.0.1 port 9100 "
                            "listen 1 aux - timeout 1000 error 0",
                            "mode 0 version 2 kind 10400 peer 224.2.2.2 local  port 5000 "
                            "listen 0 aux 0 timeout 1000 error 0"));
}

TEST_F(RelayTest, OpeningAnewClosesWhatWasOpen) {
    KTNET_ENDPOINT *pDesc = nullptr;
    gPrintStdOut = 1;
    gDebugLevel = 4;
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(initMSTREAMRxNetEx(&pDesc, "224.1.1.1", 9100, "127.0.0.1"), 1);
        EXPECT_EQ(script::liveEndpoints(), 1);
        EXPECT_EQ(initSTREAMTxNet(&pDesc, "224.2.2.2", nullptr, 5000), 1);
        EXPECT_EQ(script::liveEndpoints(), 1);
        EXPECT_EQ(initBCITxNet(&pDesc), 1);
        EXPECT_EQ(script::liveEndpoints(), 1);
    }
    script::fail(Step::Init, "", -1);
    EXPECT_EQ(initMSTREAMRxNetEx(&pDesc, "224.1.1.1", 9100, "127.0.0.1"), -1);
    script::fail(Step::Create, "", -9);
    EXPECT_EQ(initSTREAMTxNet(&pDesc, nullptr, nullptr, 5000), -9);
    gPrintStdOut = gDebugLevel = 0;
    const std::string opened = "[DEBUG_LEVEL_4] initMSTREAMRxNetEx():# rx. network reinitializing\n"
                               "[DEBUG_LEVEL_0] -------------initSTREAMTxNet():#, MESSAGE, "
                               "KTNetCreate(p(224.2.2.2), l(NULL), p(5000)) ok\n";
    EXPECT_EQ(std::regex_replace(out(), std::regex(R"(\[\d{4}-\d\d-\d\d [\d:]+\] )"), ""),
              opened + opened +
                  "[DEBUG_LEVEL_0] initMSTREAMRxNetEx():#, ERROR, KTNetInit() return 0xffffffff(-1)\n"
                  "[DEBUG_LEVEL_0] initSTREAMTxNet():#, ERROR, KTNetCreate() return 0xfffffff7(-9)\n");
    ktn_xapi_ktnet_delete(&pDesc);
    EXPECT_EQ(KTNETOpenServer(&pDesc, KTNET_STREAM_SENDER, nullptr), -1); // no such endpoint
}

TEST_F(RelayTest, NothingIsAllocatedPerDatagram) {
    onAir({.iEncryption = 2, .iSplit = 1, .key = {1}});
    const Bytes datagram = bytes("10 10 51 11 10 52");
    const auto relay = [&](size_t ulTotal) {
        for (size_t ul = script::seen().datagrams.size() / 2; ul < ulTotal; ++ul) {
            ASSERT_TRUE(script::eventually([&] { return script::datagram(kIn, datagram); }));
        }
        ASSERT_TRUE(script::eventually([=] { return script::seen().datagrams.size() == 2 * ulTotal; }));
    };
    relay(1);
    const long lAllocations = script::threadAllocations();
    relay(300);
    EXPECT_EQ(script::threadAllocations(), lAllocations);
}

TEST_F(RelayTest, SilentSourceIsReportedEachSecondUntilTheEnd) {
    onAir({.ulET = kStart + 5});
    script::hold("rx ");
    const size_t ulBefore = count(err(), kWaiting);
    ASSERT_TRUE(script::datagram(kIn, {1}));
    script::pollsTakeTime();
    script::hold("");
    ASSERT_TRUE(engine.becomes(ENGINE_IDLE));
    EXPECT_EQ(script::now(), kStart + 5);
    EXPECT_EQ(count(err(), kWaiting) - ulBefore,
              6u);                               // the first by the receive call, which takes no time here
    engine.handOver(cast({.ulET = kStart + 5})); // over already: goes on air and ends at once
    ASSERT_TRUE(engine.becomes(ENGINE_IDLE));
    EXPECT_EQ(count(err(), "OnAir"), 2u);
    EXPECT_EQ(count(err(), kWaiting) - ulBefore, 6u);
    EXPECT_EQ(script::seen().endpoints.size(), 4u);
}

TEST_F(RelayTest, CastThatCannotStartStaysFailedUntilAcknowledged) {
    const std::string print = "PCCASTBYPASSEngine():# \033[1;41m[Initialize FAILURE]\033[0m\n"
                              "PRINTCASTInfo: Caller[PCCASTBYPASSEngine]\n";
    const CastFields keyless{.iEncryption = 2},
        circular{.pszSource = "10.0.0.1", .pszTarget = "10.0.0.1", .usSourcePort = 5000}; // would feed itself
    struct Case {
        Step step;
        const char *pszKey;
        int iResult, iSkip;
        const CastFields fields;
        bool bPrinted;
    };
    for (const Case &row :
         {Case{Step::Init, "mode 0", -1, 0, {}, false}, Case{Step::Init, "mode 0", 0, 0, {}, false},
          Case{Step::Create, "rx ", 0, 0, {}, false}, Case{Step::Create, "rx ", -9, 0, {}, false},
          Case{Step::Init, "mode 0", -1, 1, {}, true}, Case{Step::Create, "tx ", 0, 0, {}, true},
          Case{Step::Create, "none", 0, 0, keyless, false},
          Case{Step::Create, "none", 0, 0, circular, false}}) {
        const size_t ulPrinted = count(out(), print);
        script::fail(row.step, row.pszKey, row.iResult, 1, row.iSkip);
        engine.handOver(cast(row.fields));
        ASSERT_TRUE(engine.becomes(ENGINE_FAILED)) << row.pszKey;
        EXPECT_EQ(script::liveEndpoints(), 0);
        EXPECT_EQ(count(out(), print) - ulPrinted, row.bPrinted ? 1u : 0u);
        engine.block.pWork = cast({});
        EXPECT_TRUE(script::settle(5));
        EXPECT_NE(engine.block.pWork, nullptr);
        EXPECT_EQ(engine.block.eState, ENGINE_FAILED);
        engineMove(&engine.block, ENGINE_FAILED, ENGINE_IDLE);
        ASSERT_TRUE(engine.becomes(ENGINE_RUNNING));
        EXPECT_TRUE(script::eventually([&] { return engine.block.pWork == nullptr; }));
        engine.finish();
    }
    EXPECT_EQ(count(err(), "OnAir"), 8u);
}

TEST_F(RelayTest, CastEndsWithItsSourceOrAFailedChunkOnly) {
    script::fail(Step::TxDatagram, kOut, -1);
    onAir({.iSplit = 0});
    ASSERT_TRUE(script::datagram(kIn, {1}));
    ASSERT_TRUE(script::datagram(kIn, {2}));
    // Nobody notices that the first one was not sent.
    ASSERT_TRUE(script::eventually([] { return script::seen().datagrams.size() == 1; }));
    EXPECT_EQ(engine.block.eState, ENGINE_RUNNING);
    ASSERT_TRUE(script::datagram(kIn, {})); // the source says goodbye
    ASSERT_TRUE(engine.becomes(ENGINE_IDLE));
    for (const int iResult : {0, -1}) {
        onAir({.iSplit = 1});
        script::fail(Step::TxDatagram, kOut, iResult); // the first of two: the last one counts
        ASSERT_TRUE(script::datagram(kIn, bytes("01 00 41 01 00 42")));
        EXPECT_TRUE(script::settle(3));
        EXPECT_EQ(engine.block.eState, ENGINE_RUNNING);
        script::fail(Step::TxDatagram, kOut, iResult, 1, 1);
        ASSERT_TRUE(script::datagram(kIn, bytes("01 00 41 01 00 42")));
        ASSERT_TRUE(engine.becomes(ENGINE_IDLE));
    }
    onAir({});
    script::fail(Step::Poll, "rx ", -5, 3); // like a silent source, and each lasts as long as a time-out
    EXPECT_TRUE(script::eventually([] { return script::pausedMicroseconds() == 3'000'000; }));
    EXPECT_EQ(engine.block.eState, ENGINE_RUNNING);
}

} // namespace

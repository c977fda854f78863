// The two requests on their way: commanders and senders, and the receiver threads that file what arrives.
#include "plugintest.h"

#include <pccast/commander.h>

namespace {

using script::START;

const char *const CAST_PATH = "/tmp/PCSTREAM.uds", *const MESSAGE_PATH = "/tmp/PCMBC.uds";

class SenderTest : public PluginTest {
protected:
    ~SenderTest() override { ELIMINATECASTInfo(&m_pCast); }
    // Both senders, by turns.
    int send(bool bCast) {
        return bCast ? TxCASTInfoToPlugIn(1, m_pCast) : TxPCMBCInfoToPlugIn(PCMBC_CMD_MSG, &m_message);
    }
    static std::string key(bool bCast) { return std::string("client ") + (bCast ? CAST_PATH : MESSAGE_PATH); }

    char m_text[5] = "text";
    CASTInfo *m_pCast = cast({.ulType = 1});
    MSGInfo m_message{PCMBC_CMD_CANCEL, 0x1122334455, 1, 100, START, START + 100, 1, 33333, 32, m_text};
};

TEST_F(SenderTest, RequestsAreAsTheReceiversReadThem) {
    struct Case {
        CastFields fields;
        const char *pszPayload;
    };
    const Case cases[] = {
        {{.ulType = 1},
         "01 00 04 00 01 00 00 00 02 00 04 00 01 00 00 00 03 00 04 00 64 00 00 00 05 00 04 00 00 CA 9A 3B"
         "06 00 04 00 64 CA 9A 3B 04 00 04 00 01 00 00 00 0C 00 04 00 21 20 00 00 0D 00 04 00 B6 87 00 00"
         "0B 00 05 00 '/a.ts' 0A 00 09 00 '224.2.2.2' 09 00 02 00 88 13"},
        {{.ulCMD = 2,
          .ulType = 2,
          .ulEPGID = 0x1122334455,
          .ulST = 0x100000001,
          .iEncryption = 5,
          .iSplit = 1,
          .key = {7, 0, 9}},
         "01 00 04 00 02 00 00 00 02 00 04 00 55 44 33 22 03 00 04 00 64 00 00 00 05 00 04 00 01 00 00 00"
         "06 00 04 00 64 CA 9A 3B 04 00 04 00 02 00 00 00 0C 00 04 00 21 20 00 00 0D 00 04 00 B6 87 00 00"
         "08 00 09 00 '224.1.1.1' 07 00 02 00 8C 23 0F 00 04 00 05 00 00 00 10 00 03 00 07 00 09 11 00 04 00 "
         "01 00 00 00"
         "0A 00 09 00 '224.2.2.2' 09 00 02 00 88 13"},
        {{.ulCMD = 3, .ulType = 3, .iEncryption = -1},
         "01 00 04 00 03 00 00 00 02 00 04 00 01 00 00 00 03 00 04 00 64 00 00 00 05 00 04 00 00 CA 9A 3B"
         "06 00 04 00 64 CA 9A 3B 04 00 04 00 03 00 00 00 0C 00 04 00 21 20 00 00 0D 00 04 00 B6 87 00 00"
         "08 00 09 00 '224.1.1.1' 07 00 02 00 8C 23 0F 00 04 00 FF FF FF FF 11 00 04 00 00 00 00 00"
         "0A 00 09 00 '224.2.2.2' 09 00 02 00 88 13"}};
    for (const Case &row : cases) {
        CASTInfo *pInfo = cast(row.fields);
        pInfo->ulMSID = 34742;
        pInfo->ulCMD = 77; // the argument counts
        EXPECT_EQ(QX_PCCASTSTREAMCommander(row.fields.ulCMD, pInfo), 1);
        EXPECT_EQ(pInfo->ulCMD, row.fields.ulCMD);
        EXPECT_TRUE(
            isHeader(script::frames(key(true)).back(), 200, 200, row.fields.ulCMD, row.fields.ulType));
        EXPECT_EQ(script::frames(key(true)).back().payload, bytes(row.pszPayload));
        ELIMINATECASTInfo(&pInfo);
    }
    const std::tuple<unsigned long, unsigned long, const char *> requests[] = {
        {PCMBC_CMD_MSG, 65536, "00 00"}, {PCMBC_CMD_CANCEL, 65537, "01 00"}};
    for (const auto &[ulCMD, ulRepeat, pszRepeat] : requests) {
        m_message.ulRepeat = ulRepeat;
        EXPECT_EQ(QX_PCCASTMBCCommander(ulCMD, &m_message), 1);
        EXPECT_TRUE(isHeader(script::frames(key(false)).back(), 200, 205, ulCMD, 0x22334455));
        EXPECT_EQ(script::frames(key(false)).back().payload,
                  bytes("03 00 04 00 64 00 00 00 0E 00 04 00 01 00 00 00 0B 00 04 00 00 CA 9A 3B"
                        "0C 00 04 00 64 CA 9A 3B 01 50 04 00 20 00 00 00 03 50 04 00 35 82 00 00"
                        "0A 50 02 00 " +
                        std::string(pszRepeat) + "0B 50 04 00 'text'"));
    }
    EXPECT_EQ(TxPCMBCInfoToPlugIn(0x40021, &m_message), 1); // the result of the creation: nothing was sent
    EXPECT_EQ(script::frames(key(false)).size(), 2u);
    EXPECT_EQ(m_message.ulCMD, PCMBC_CMD_CANCEL); // the argument counts
    m_text[0] = '\0';                             // an empty text is a text
    EXPECT_EQ(QX_PCCASTMBCCommander(PCMBC_CMD_MSG, &m_message), 1);
    const Bytes payload = script::frames(key(false)).back().payload;
    EXPECT_EQ(Bytes(payload.end() - 4, payload.end()), bytes("0B 50 00 00"));
}

TEST_F(SenderTest, CommandersRefuseWhatIsIncomplete) {
    EXPECT_EQ(QX_PCCASTSTREAMCommander(1, nullptr), 0);
    EXPECT_EQ(TxCASTInfoToPlugIn(1, nullptr), -1);
    for (const unsigned long ulCMD : {0ul, 4ul}) {
        EXPECT_EQ(QX_PCCASTSTREAMCommander(ulCMD, m_pCast), 0);
        EXPECT_EQ(m_pCast->ulCMD, ulCMD);
    }
    EXPECT_EQ(QX_PCCASTMBCCommander(PCMBC_CMD_MSG, nullptr), 0);
    EXPECT_EQ(QX_PCCASTMBCCommander(0x100040020, &m_message), 0);
    m_message.pMSGSTR = nullptr;
    EXPECT_EQ(QX_PCCASTMBCCommander(PCMBC_CMD_CANCEL, &m_message), 0);
    EXPECT_EQ(out(), "");
    m_pCast->usDSTPort = 0;
    EXPECT_EQ(QX_PCCASTSTREAMCommander(1, m_pCast), 0);
    EXPECT_EQ(out(), "QX_PCCASTSTREAMCommander(): INVALID CASTInfo\n");
    EXPECT_THAT(script::seen().calls, IsEmpty());
}

TEST_F(SenderTest, SwitchedOffServiceSendsNothing) {
    script::registryValue("/ORVEN/SERVICE/PCSTREAM", "disable", 7);
    EXPECT_EQ(QX_PCCASTSTREAMCommander(1, m_pCast), 1);
    EXPECT_EQ(send(true), -1);
    EXPECT_THAT(script::seen().calls, IsEmpty());
    EXPECT_EQ(send(false), 1); // the other service is on
    script::registryValue("/ORVEN/SERVICE/PCMBC", "DISABLE", 8);
    EXPECT_EQ(send(false), -1);
    EXPECT_EQ(count(out(), "/ORVEN/SERVICE/PCSTREAM service is DISABLED by REGISTRY"), 2u);
    EXPECT_EQ(count(out(), "/ORVEN/SERVICE/PCMBC service is DISABLED by REGISTRY"), 1u);
}

TEST_F(SenderTest, EachStepsFailureIsReturnedAndEverythingReleased) {
    struct Case {
        Step step;
        int iStep, iCastResult, iMessageResult;
        const char *pszCalls; // of the cast sender; the endpoint's key is left out
    };
    for (const Case &row : {Case{Step::INIT, -7, -7, -7, "init "}, Case{Step::INIT, 5, 5, 5, "init "},
                            Case{Step::CREATE, 0, 0, 0, "init create delete "},
                            Case{Step::CREATE, -3, -3, -3, "init create delete "},
                            Case{Step::CONNECT, -4, -4, -4, "init create connect close delete "},
                            Case{Step::CONNECT, 0, 1, 0,
                                 "init create connect close delete "}, // the message sender wants more than 0
                            Case{Step::TX, 0, 0, 0, "init create connect close delete "},
                            Case{Step::TX, -9, -9, -9, "init create connect close delete "}}) {
        for (const bool bCast : {true, false}) {
            script::forget();
            script::fail(row.step, row.step == Step::INIT ? "mode 0" : key(bCast), row.iStep);
            const int iResult = bCast ? row.iCastResult : row.iMessageResult;
            EXPECT_EQ(send(bCast), iResult) << row.iStep;
            std::string calls;
            for (const std::string &call : script::seen().calls) {
                calls += call.substr(0, call.find(' ')) + " ";
            }
            EXPECT_EQ(calls, row.pszCalls);
            for (const std::string &endpoint : script::seen().endpoints) {
                EXPECT_EQ(endpoint, std::string("mode 0 version 2 kind 80100 peer ") +
                                        (bCast ? CAST_PATH : MESSAGE_PATH) +
                                        " local  port 0 listen 0 aux 0 timeout 1000 error 0");
            }
            EXPECT_EQ(script::liveEndpoints(), 0);
            const bool bSent =
                row.step == Step::TX ? row.iStep == 0 : row.step == Step::CONNECT && iResult == 1;
            EXPECT_EQ(script::seen().frames.size(), bSent ? 1u : 0u);
        }
    }
    const std::string line =
        "[pccastmain:#] \033[2;31m KTNetTxData() return:4294967287(0xFFFFFFF7) \033[1;41m[ERROR]\033[0m\n";
    EXPECT_EQ(out(), line + line);
}

TEST_F(SenderTest, RequestWithoutMemoryIsNotSentInPart) {
    for (const bool bCast : {true, false}) {
        const long lBlocks = script::liveBlocks();
        int iResult = withoutAllocation(1, [&] { return send(bCast); }), iRefused = 0;
        while (script::allocationFailed()) {
            ++iRefused;
            EXPECT_EQ(iResult, 1); // the result of the creation: no payload could be built
            EXPECT_EQ(script::frames(key(bCast)).size(), 0u) << iRefused;
            EXPECT_EQ(script::liveBlocks(), lBlocks);
            iResult = withoutAllocation(iRefused + 1, [&] { return send(bCast); });
        }
        EXPECT_EQ(iRefused, bCast ? 23 : 17); // two blocks per item and the payload
        EXPECT_EQ(script::frames(key(bCast)).size(), 1u);
    }
}

// ---- receivers

class ReceiverTest : public PluginTest {
protected:
    ReceiverTest() {
        for (int i = 0; i < 2; ++i) {
            CREATECASTList(&casts[i]);
            CREATEMSGList(&messages[i]);
        }
    }
    ~ReceiverTest() override {
        for (int i = 0; i < 2; ++i) {
            DESTROYCASTList(&casts[i]);
            DESTROYMSGList(&messages[i]);
        }
    }
    // Has the request handled, then tells what was filed, and takes it: "LIST: COMMAND EPGID SOURCE TARGET
    // FILE KEY SPLIT" for a cast, "LIST: COMMAND EPGID PRIORITY CT ST ET REPEAT ATTR3 ATTR1 TEXT" for a
    // message.
    std::string filed(bool bCast, unsigned int uiCommand, const std::string &items,
                      unsigned int uiParam = 0x80000009) {
        script::request(bCast ? CAST_PATH : MESSAGE_PATH, uiCommand, uiParam, bytes(items));
        EXPECT_TRUE(script::eventually([] { return script::requestsWaiting() == 0; }));
        EXPECT_TRUE(script::settle(3));
        std::string text;
        char szOne[256];
        for (int i = 0; i < 2; ++i) {
            const auto orDash = [](const char *pszText) { return pszText == nullptr ? "-" : pszText; };
            CASTInfo *pCast = nullptr;
            while (PATCHaCASTInfo(&casts[i], &pCast) == 1) {
                snprintf(szOne, sizeof szOne, "%s: %lu %lu %s:%d %s:%d %s %d/%d%s %d",
                         i == 0 ? "bypass" : "recast", pCast->ulCMD, pCast->uliEPGID, orDash(pCast->pSRCIP),
                         pCast->usSRCPort, orDash(pCast->pDSTIP), pCast->usDSTPort, orDash(pCast->pCASTFile),
                         pCast->iEncryptionType, pCast->iEncryptionKeyLen,
                         pCast->pEncryptionKey == nullptr ? "" : "k", pCast->iASFSplit);
                text += szOne;
                ELIMINATECASTInfo(&pCast);
            }
            MSGInfo *pInfo = nullptr;
            while (PATCHaMSGInfo(&messages[i], &pInfo) == 1) {
                snprintf(szOne, sizeof szOne, "%s: %lu %lu %lu %lu %lu %lu %lu %lu %lu %s",
                         i == 0 ? "priority" : "normal", pInfo->ulCMD, pInfo->uliEPGID, pInfo->ulPriority,
                         pInfo->ulCT, pInfo->ulST, pInfo->ulET, pInfo->ulRepeat, pInfo->ulAttr3,
                         pInfo->ulAttr1, pInfo->pMSGSTR);
                text += szOne;
                ELIMINATEMSGInfo(&pInfo);
            }
        }
        return text;
    }
    CASTList casts[2]{}, *castLists[2] = {&casts[0], &casts[1]};
    MSGList messages[2]{}, *messageLists[2] = {&messages[0], &messages[1]};
};

const char *const STREAM =
    "01 00 04 00 01 00 00 00 02 00 04 00 07 00 00 00 04 00 04 00 02 00 00 00 08 00 02 00 's1' 07 00 02 00 01 "
    "02"
    "0F 00 04 00 02 00 00 00 10 00 03 00 00 01 02 11 00 04 00 01 00 00 00 0A 00 02 00 'd1' 09 00 02 00 03 00";

const char *const CAST_FILED = "bypass: 1 7 s1:513 d1:3 - 2/3k 1";
const char *const MESSAGE = "0B 50 01 00 'a'", *const MESSAGE_FILED =
                                                   "normal: 262176 2147483657 0 0 0 0 0 0 0 a";

TEST_F(ReceiverTest, CastItemsMissingEmptyDoubledOrUnknown) {
    Engine engine(RxCASTInfoEngine, castLists);
    struct Case {
        unsigned int uiCommand;
        std::string items, filed;
    };
    const std::string first = " 7 s1:513 d1:3 - 2/3k 1";
    const Case cases[] = {
        {1, "04 00 04 00 02 00 00 00", ""},                  // nothing but its type: no source
        {2, STREAM, "bypass: 2" + first},                    // the header's command counts
        {1, "04 00 04 00 03 00 00 00", "bypass: 1" + first}, // what is missing stays as it was
        {1, "04 00 04 00 01 00 00 00", ""},                  // no file yet
        {1, "04 00 04 00 05 00 00 00 0B 00 01 00 'f'", ""},  // no list for this type, but its file is kept
        {1, "04 00 04 00 01 00 00 00", "recast: 1 7 -:513 d1:3 f 2/3k 1"}, // no source in a copy of this type
        {3, "04 00 04 00 02 00 00 00 10 00 00 00", "bypass: 3 7 s1:513 d1:3 - 2/0 1"},
        {1, "0F 00 00 00 11 00 00 00 07 00 00 00 02 00 00 00", "bypass: 1 0 s1:0 d1:3 - 0/0 0"},
        {1, "0A 00 02 00 'd2' 0A 00 02 00 'd3' 02 00 04 00 01 00 00 00 02 00 04 00 02 00 00 80",
         "bypass: 1 2147483650 s1:0 d3:3 - 0/0 0"}, // the later one wins
        {1, "0E 00 04 00 09 00 00 00 12 00 01 00 'x' 00 00 00 00 00 01 02 00 09 09",
         "bypass: 1 2147483650 s1:0 d3:3 - 0/0 0"},
        {1, "0A 00 00 00", ""}, // no destination
        {1, "", ""},
        {1, "0A 00 02 00 'd4' 04 00 00 00", ""}, // type 0
        {1, STREAM, "bypass: 1" + first}};
    for (const Case &row : cases) {
        EXPECT_EQ(filed(true, row.uiCommand, row.items), row.filed) << row.items;
    }
    EXPECT_EQ(out(), "");
    EXPECT_EQ(count(joined(script::seen().calls), "receive 200"), std::size(cases));
}

TEST_F(ReceiverTest, MessageItemsMissingEmptyDoubledOrUnknown) {
    Engine engine(RxPCMBCInfoEngine, messageLists);
    struct Case {
        unsigned int uiCommand;
        std::string items, filed;
    };
    const std::string head = "262176 2147483657 ",
                      line = "RxPCMBCInfoEngine(iEPGID[2147483657](0x080000009)): NULL PCMessage Received\n";
    const Case cases[] = {
        {0x40020, "0B 50 01 00 'a'", "normal: " + head + "0 0 0 0 0 0 0 a"}, // nothing before: all 0
        {0x40020,
         "03 00 04 00 01 00 00 00 0E 00 04 00 01 00 00 00 0B 00 04 00 02 00 00 00 0C 00 04 00 03 00 00 80"
         "01 50 04 00 04 00 00 00 03 50 04 00 05 00 00 00 0A 50 02 00 06 01 0B 50 02 00 'ab'",
         "priority: " + head + "1 1 2 2147483651 262 5 4 ab"},
        {0x40023, "0B 50 01 00 'c'",
         "normal: 262179 2147483657 0 1 2 2147483651 262 5 4 c"}, // the priority is not kept
        {0x40020, "0E 00 04 00 02 00 00 00 0A 50 00 00 03 00 00 00 0B 50 01 00 'd'",
         "normal: " + head + "2 0 2 2147483651 1 5 4 d"},
        {0x40020, "0E 00 00 00 0E 00 04 00 01 00 00 00 0B 50 01 00 'e' 0B 50 02 00 'ef' 01 00 01 00 09",
         "priority: " + head + "1 0 2 2147483651 1 5 4 ef"},
        {0x40020, "0B 50 00 00", ""},
        {0x40023, "0E 00 04 00 01 00 00 00", ""},
        {77, "0B 50 01 00 'g'", "normal: 77 2147483657 0 0 2 2147483651 1 5 4 g"},
        // Longer than their fields: the bytes beyond are not read.
        {0x40020, "0A 50 04 00 07 00 01 00 0E 00 06 00 01 00 00 00 09 09 0B 50 01 00 'j'",
         "priority: " + head + "1 0 2 2147483651 7 5 4 j"},
        {0x40020, "0C 00 00 00 03 00 04 00 05 00 00 00 03 00 04 00 06 00 00 00 0B 50 02 00 00 'k'",
         "normal: " + head + "0 6 2 0 7 5 4 "}, // a text is one up to its first NUL, and be it the first byte
        {0x40020, "0E 00 04 00 01 00 00 00 0E 00 00 00 0B 00 00 00 01 50 00 00 03 50 00 00 0B 50 01 00 'l'",
         "normal: " + head + "0 6 0 0 7 0 0 l"},
        {0x40020, "0B 50 01 00 'a' 0B 50 00 00", ""}};
    for (const Case &row : cases) {
        EXPECT_EQ(filed(false, row.uiCommand, row.items), row.filed) << row.items;
    }
    EXPECT_EQ(filed(false, 0x40020, "", 31), "");
    EXPECT_EQ(out(),
              line + line + line + "RxPCMBCInfoEngine(iEPGID[31](0x0      1F)): NULL PCMessage Received\n");
    EXPECT_EQ(count(joined(script::seen().calls), "receive 205"), std::size(cases) + 1);
}

// A request with a lie is refused whole: nothing of it is filed, or left for a later one that lacks an item.
TEST_F(ReceiverTest, LyingItemsHarmNothing) {
    Engine castEngine(RxCASTInfoEngine, castLists), messageEngine(RxPCMBCInfoEngine, messageLists);
    filed(true, 1, STREAM);
    for (const char *pszLie :
         {"01", "0A 00 03 00 'd1'", "10 00 FF FF FF FF FF FF", "10 00 FF FF 01 00 00", "08 00 FF FF"}) {
        const std::string lie = pszLie;
        EXPECT_EQ(filed(true, 1, "02 00 04 00 09 00 00 00 0A 00 01 00 'x'" + lie), "") << lie;
        EXPECT_EQ(filed(true, 1, "04 00 04 00 02 00 00 00"), CAST_FILED) << lie;
        EXPECT_EQ(filed(false, 0x40020, "03 00 01 00 09 0B 50 01 00 'i'" + lie), "") << lie;
        EXPECT_EQ(filed(false, 0x40020, MESSAGE), MESSAGE_FILED) << lie;
    }
    // A value of another length than its field's is read within its own bytes.
    EXPECT_EQ(filed(true, 1, std::string(STREAM) + "02 00 02 00 05 01 09 00 01 00 04"),
              "bypass: 1 261 s1:513 d1:4 - 2/3k 1");
    engineRequestStop(&castEngine.block);
}

TEST_F(ReceiverTest, FailingStepsLoseOneRequestAtMost) {
    struct Case {
        bool bCast;
        int (*pBody)(KTPLUGIN_INFO_TAG *);
        void *pLists;
        pthread_mutex_t *pMutex;
        unsigned int uiCommand;
        const char *pszRequest, *pszFiled, *pszPath, *pszTimeout;
        int iLastState; // the cast receiver writes no state on its way out
    };
    for (const Case &row : {Case{true, RxCASTInfoEngine, castLists, casts[0].pMutex, 1, STREAM, CAST_FILED,
                                 CAST_PATH, "2000", ENGINE_STOP},
                            Case{false, RxPCMBCInfoEngine, messageLists, messages[1].pMutex, 0x40020, MESSAGE,
                                 MESSAGE_FILED, MESSAGE_PATH, "500", ENGINE_STOPPED}}) {
        const auto served = [&] { return filed(row.bCast, row.uiCommand, row.pszRequest); };
        const std::string server = std::string("server ") + row.pszPath;
        script::fail(Step::INIT, "mode 0", -1);
        script::fail(Step::INIT, "mode 0", 0);
        script::fail(Step::CREATE, "server", -2);
        {
            Engine engine(row.pBody, row.pLists);
            EXPECT_EQ(served(), row.pszFiled);
            for (const int iResult : {0, -1}) {
                script::fail(Step::ACCEPT, "server", iResult);
                EXPECT_EQ(served(), "");
                script::fail(Step::RX, "connection", iResult);
                EXPECT_EQ(served(), "");
                EXPECT_EQ(served(), row.pszFiled);
            }
            script::forget();
            script::fail(Step::POLL, "server", -1);
            EXPECT_TRUE(script::eventually([] { return script::seen().calls.size() >= 4; }));
            EXPECT_THAT(script::seen().calls,
                        ElementsAre("close " + server, "delete " + server, "init 0 2", "create " + server));
            { // the list cannot be had: the request is lost, and nothing leaks
                script::Taken taken(row.pMutex);
                const unsigned long ulPaused = script::pausedMicroseconds();
                script::request(row.pszPath, row.uiCommand, 0, bytes(row.pszRequest));
                EXPECT_TRUE(script::eventually(
                    [=] { return script::pausedMicroseconds() >= ulPaused + 10'010'000; }));
            }
            EXPECT_EQ(served(), row.pszFiled);
            EXPECT_EQ(script::seen().endpoints.back(),
                      std::string("mode 0 version 2 kind 80100 peer  local ") + row.pszPath +
                          " port - listen 1 aux 0 timeout " + row.pszTimeout + " error 0");
            EXPECT_EQ(engine.block.eState, ENGINE_RUNNING);
            engine.stop();
            EXPECT_EQ(engine.block.iThreadCount, 0);
            EXPECT_EQ(engine.block.eState, row.iLastState);
        }
        for (long lNth = 1; lNth <= (row.bCast ? 12 : 6); ++lNth) {
            Engine poor(row.pBody, row.pLists, lNth);
            served(); // memory runs out in this one
            served(); // or in this one
            EXPECT_EQ(served(), row.pszFiled);
        }
    }
}

TEST_F(ReceiverTest, BlocksWithoutTheirListsAreRefused) {
    KTPLUGIN_INFO_TAG block{};
    MSGList *half[2] = {&messages[0], nullptr};
    block.pWork = half;
    EXPECT_EQ(RxPCMBCInfoEngine(&block), 0);
    EXPECT_EQ(block.eState, ENGINE_STOPPED);
    EXPECT_EQ(PCMBCEngine(&block), 0);
    block.pWork = nullptr;
    EXPECT_EQ(RxCASTInfoEngine(&block), 0);
    EXPECT_EQ(block.eState, ENGINE_STOP);
    EXPECT_EQ(out(), "[PCCAST Plugin()RxPCMBCInfoEngine] (): INVALID Parameter Set\n"
                     "PCMBCEngine(): Invalid Parameter Set\nRxCASTInfoEngine(): Invalid Parameter Set\n");
}

} // namespace

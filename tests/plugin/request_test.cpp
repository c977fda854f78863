// The two requests on their way: the commanders and senders, then the receiver threads that file what
// arrives.
#include "plugintest.h"

#include <pccast/commander.h>

namespace {

using script::kStart;

const char *const kCastPath = "/tmp/PCSTREAM.uds", *const kMessagePath = "/tmp/PCMBC.uds";

class SenderTest : public PluginTest {
protected:
    ~SenderTest() override { ELIMINATECASTInfo(&pCast); }
    // Sends with one of the two senders.
    int send(bool bCast) {
        return bCast ? TxCASTInfoToPlugIn(1, pCast) : TxPCMBCInfoToPlugIn(PCMBC_CMD_MSG, &message);
    }
    static std::string key(bool bCast) { return std::string("client ") + (bCast ? kCastPath : kMessagePath); }

    char text[5] = "text";
    CASTInfo *pCast = cast({.ulType = 1});
    MSGInfo message{PCMBC_CMD_CANCEL, 0x1122334455, 1, 100, kStart, kStart + 100, 1, 33333, 32, text};
};

TEST_F(SenderTest, RequestsAreAsTheReceiversReadThem) {
    struct Case {
        CastFields fields;
        const char *pszPayload;
    };
    const Case cases[] = {
        {{.ulType = 1, .ulEPGID = 0x1122334455},
         "01 00 04 00 01 00 00 00 02 00 04 00 55 44 33 22 03 00 04 00 64 00 00 00 05 00 04 00 00 CA 9A 3B"
         "06 00 04 00 64 CA 9A 3B 04 00 04 00 01 00 00 00 0C 00 04 00 21 20 00 00 0D 00 04 00 B6 87 00 00"
         "0B 00 05 00 '/a.ts' 0A 00 09 00 '224.2.2.2' 09 00 02 00 88 13"},
        {{.ulCMD = 2, .ulType = 2, .ulST = 0x100000001, .iEncryption = 5, .iSplit = 1, .key = {7, 0, 9}},
         "01 00 04 00 02 00 00 00 02 00 04 00 01 00 00 00 03 00 04 00 64 00 00 00 05 00 04 00 01 00 00 00"
         "06 00 04 00 64 CA 9A 3B 04 00 04 00 02 00 00 00 0C 00 04 00 21 20 00 00 0D 00 04 00 B6 87 00 00"
         "08 00 09 00 '224.1.1.1' 07 00 02 00 8C 23 0F 00 04 00 05 00 00 00 10 00 03 00 07 00 09 "
         "11 00 04 00 01 00 00 00 0A 00 09 00 '224.2.2.2' 09 00 02 00 88 13"},
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
        message.ulRepeat = ulRepeat;
        EXPECT_EQ(QX_PCCASTMBCCommander(ulCMD, &message), 1);
        EXPECT_TRUE(isHeader(script::frames(key(false)).back(), 200, 205, ulCMD, 0x22334455));
        EXPECT_EQ(script::frames(key(false)).back().payload,
                  bytes("03 00 04 00 64 00 00 00 0E 00 04 00 01 00 00 00 0B 00 04 00 00 CA 9A 3B"
                        "0C 00 04 00 64 CA 9A 3B 01 50 04 00 20 00 00 00 03 50 04 00 35 82 00 00"
                        "0A 50 02 00 " +
                        std::string(pszRepeat) + "0B 50 04 00 'text'"));
    }
    EXPECT_EQ(TxPCMBCInfoToPlugIn(0x40021, &message), 1); // what the creation returned; nothing was sent
    EXPECT_EQ(script::frames(key(false)).size(), 2u);
    EXPECT_EQ(message.ulCMD, PCMBC_CMD_CANCEL); // the argument counts
    text[0] = '\0';                             // an empty text is a text
    EXPECT_EQ(QX_PCCASTMBCCommander(PCMBC_CMD_MSG, &message), 1);
    const Bytes payload = script::frames(key(false)).back().payload;
    EXPECT_EQ(Bytes(payload.end() - 4, payload.end()), bytes("0B 50 00 00"));
}

TEST_F(SenderTest, CommandersRefuseWhatIsIncomplete) {
    EXPECT_EQ(QX_PCCASTSTREAMCommander(1, nullptr), 0);
    EXPECT_EQ(TxCASTInfoToPlugIn(1, nullptr), -1);
    for (const unsigned long ulCMD : {0ul, 4ul}) {
        EXPECT_EQ(QX_PCCASTSTREAMCommander(ulCMD, pCast), 0);
        EXPECT_EQ(pCast->ulCMD, ulCMD);
    }
    EXPECT_EQ(QX_PCCASTMBCCommander(PCMBC_CMD_MSG, nullptr), 0);
    EXPECT_EQ(QX_PCCASTMBCCommander(0x100040020, &message), 0);
    message.pMSGSTR = nullptr;
    EXPECT_EQ(QX_PCCASTMBCCommander(PCMBC_CMD_CANCEL, &message), 0);
    EXPECT_EQ(out(), "");
    pCast->usDSTPort = 0;
    for (const unsigned long ulCMD : {0ul, 1ul, 2ul}) { // the record is looked at before the command
        EXPECT_EQ(QX_PCCASTSTREAMCommander(ulCMD, pCast), 0);
    }
    const std::string line = "QX_PCCASTSTREAMCommander(): INVALID CASTInfo\n";
    EXPECT_EQ(out(), line + line + line);
    EXPECT_THAT(script::seen().calls, IsEmpty());
}

TEST_F(SenderTest, SwitchedOffServiceSendsNothing) {
    script::registryValue("/ORVEN/SERVICE/PCSTREAM", "disable", 7);
    EXPECT_EQ(QX_PCCASTSTREAMCommander(1, pCast), 1);
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
    const char *const pszUnconnected = "init create delete ", *const pszWhole =
                                                                  "init create connect close delete ";
    for (const Case &row :
         {Case{Step::Init, -7, -7, -7, "init "}, Case{Step::Init, 5, 5, 5, "init "},
          Case{Step::Create, 0, 0, 0, pszUnconnected}, Case{Step::Create, -3, -3, -3, pszUnconnected},
          Case{Step::Connect, -4, -4, -4, pszWhole},
          Case{Step::Connect, 0, 1, 0, pszWhole}, // cast: 0 will do
          Case{Step::Tx, 0, 0, 0, pszWhole}, Case{Step::Tx, -9, -9, -9, pszWhole}}) {
        for (const bool bCast : {true, false}) {
            script::forget();
            script::fail(row.step, row.step == Step::Init ? "mode 0" : key(bCast), row.iStep);
            const int iResult = bCast ? row.iCastResult : row.iMessageResult;
            EXPECT_EQ(send(bCast), iResult) << row.iStep;
            std::string calls;
            for (const std::string &call : script::seen().calls) {
                calls += call.substr(0, call.find(' ')) + " ";
            }
            EXPECT_EQ(calls, row.pszCalls);
            for (const std::string &endpoint : script::seen().endpoints) {
                EXPECT_EQ(endpoint, std::string("mode 0 version 2 kind 80100 peer ") +
                                        (bCast ? kCastPath : kMessagePath) +
                                        " local  port 0 listen 0 aux 0 timeout 1000 error 0");
            }
            EXPECT_EQ(script::liveEndpoints(), 0);
            const bool bSent =
                row.step == Step::Tx ? row.iStep == 0 : row.step == Step::Connect && iResult == 1;
            EXPECT_EQ(script::seen().frames.size(), bSent ? 1u : 0u);
        }
    }
    const std::string line =
        "[pccastmain:#] \033[2;31m KTNetTxData() return:4294967287(0xFFFFFFF7) \033[1;41m[ERROR]\033[0m\n";
    EXPECT_EQ(out(), line + line);
}

TEST_F(SenderTest, RequestWithoutMemoryIsNotSentInPart) {
    for (const bool bCast : {true, false}) {
        const long lBefore = script::liveBlocks();
        int iResult = withoutAllocation(1, [&] { return send(bCast); }), iRefused = 0;
        while (script::allocationFailed()) {
            ++iRefused;
            EXPECT_EQ(iResult, 1); // what the creation returned; there was no payload
            EXPECT_EQ(script::frames(key(bCast)).size(), 0u) << iRefused;
            EXPECT_EQ(script::liveBlocks(), lBefore);
            iResult = withoutAllocation(iRefused + 1, [&] { return send(bCast); });
        }
        EXPECT_EQ(iRefused, bCast ? 23 : 17); // two blocks per item and the payload
        EXPECT_EQ(script::frames(key(bCast)).size(), 1u);
    }
}

// ---- receivers

class ReceiverTest : public PluginTest {
protected:
    // Has the request handled and takes what was filed. Returns "LIST: " and the cast as shown() has it, or
    // the message as "COMMAND EPGID PRIORITY CT ST ET REPEAT ATTR3 ATTR1 TEXT".
    std::string filed(bool bCast, unsigned int uiCommand, const std::string &items,
                      unsigned int uiParam = 0x80000009) {
        script::request(bCast ? kCastPath : kMessagePath, uiCommand, uiParam, bytes(items));
        EXPECT_TRUE(script::eventually([] { return script::requestsWaiting() == 0; }));
        EXPECT_TRUE(script::settle(3));
        std::string text;
        char szOne[256];
        for (int i = 0; i < 2; ++i) {
            CASTInfo *pCast = nullptr;
            while (PATCHaCASTInfo(castLists[i], &pCast) == 1) {
                text += (i == 0 ? "bypass: " : "recast: ") + shown(*pCast);
                ELIMINATECASTInfo(&pCast);
            }
            MSGInfo *pInfo = nullptr;
            while (PATCHaMSGInfo(messageLists[i], &pInfo) == 1) {
                std::snprintf(szOne, sizeof szOne, "%s: %lu %lu %lu %lu %lu %lu %lu %lu %lu %s",
                              i == 0 ? "priority" : "normal", pInfo->ulCMD, pInfo->uliEPGID,
                              pInfo->ulPriority, pInfo->ulCT, pInfo->ulST, pInfo->ulET, pInfo->ulRepeat,
                              pInfo->ulAttr3, pInfo->ulAttr1, pInfo->pMSGSTR);
                text += szOne;
                ELIMINATEMSGInfo(&pInfo);
            }
        }
        return text;
    }
    TwoCastLists casts;
    TwoMessageLists messages;
    CASTList **const castLists = casts.work;
    MSGList **const messageLists = messages.work;
};

const char *const kStream =
    "01 00 04 00 01 00 00 00 02 00 04 00 07 00 00 00 03 00 04 00 0B 00 00 00 05 00 04 00 0C 00 00 00"
    "06 00 04 00 0D 00 00 00 04 00 04 00 02 00 00 00 0C 00 04 00 10 20 00 00 0D 00 04 00 0E 00 00 00"
    "08 00 02 00 's1' 07 00 02 00 01 02 0F 00 04 00 02 00 00 00 10 00 03 00 00 01 02 11 00 04 00 01 00 00 00"
    "0A 00 02 00 'd1' 09 00 02 00 03 00";
const char *const kCastFiled = "bypass: 1 2 7 11 12 13 s1:513 d1:3 - 2010 14 2/3 0 1 2 split 1";
const char *const kMessage = "0B 50 01 00 'a'";
const char *const kMessageFiled = "normal: 262176 2147483657 0 0 0 0 0 0 0 a";

TEST_F(ReceiverTest, CastItemsMissingEmptyDoubledOrUnknown) {
    Engine engine(RxCASTInfoEngine, castLists);
    struct Case {
        unsigned int uiCommand;
        std::string items, filed;
    };
    const std::string times = " 11 12 13 ", first = " 7" + times + "s1:513 d1:3 - 2010 14 2/3 0 1 2 split 1",
                      second = times + "s1:0 d3:3 - 2010 14 0/0";
    const Case cases[] = {
        {1, "04 00 04 00 02 00 00 00", ""},                    // nothing but its type: no source
        {2, kStream, "bypass: 2 2" + first},                   // the header's command counts
        {1, "04 00 04 00 03 00 00 00", "bypass: 1 3" + first}, // what is missing stays as it was
        {1, "04 00 04 00 01 00 00 00", ""},                    // no file yet
        {1, "04 00 04 00 05 00 00 00 0B 00 01 00 'f'", ""},    // this type has no list, but its file is kept
        {1, "04 00 04 00 01 00 00 00",
         "recast: 1 1 7" + times +
             "-:513 d1:3 f 2010 14 2/3 0 1 2 split 1"}, // a copy of this type has no source
        {3, "04 00 04 00 02 00 00 00 10 00 00 00",
         "bypass: 3 2 7" + times + "s1:513 d1:3 - 2010 14 2/0 split 1"},
        {1, "0F 00 00 00 11 00 00 00 07 00 00 00 02 00 00 00",
         "bypass: 1 2 0" + times + "s1:0 d1:3 - 2010 14 0/0"},
        {1, "0A 00 02 00 'd2' 0A 00 02 00 'd3' 02 00 04 00 01 00 00 00 02 00 04 00 02 00 00 80",
         "bypass: 1 2 2147483650" + second}, // the later one wins
        {1, "0E 00 04 00 09 00 00 00 12 00 01 00 'x' 00 00 00 00 00 01 02 00 09 09",
         "bypass: 1 2 2147483650" + second},
        {1, "0A 00 00 00", ""}, // no destination
        {1, "", ""},
        {1, "0A 00 02 00 'd4' 04 00 00 00", ""}, // type 0
        {1, kStream, kCastFiled}};
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
         "normal: " + head + "0 6 2 0 7 5 4 "}, // a text ends at its first NUL, here at once
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

// The walk over the items ends at the first that is not whole. What stands before it counts.
TEST_F(ReceiverTest, ItemThatIsNotWholeEndsTheWalk) {
    Engine castEngine(RxCASTInfoEngine, castLists), messageEngine(RxPCMBCInfoEngine, messageLists);
    const char *const lies[] = {"01", "0A 00 03 00 'd1'", "10 00 FF FF FF FF FF FF", "10 00 FF FF 01 00 00",
                                "08 00 FF FF"};
    for (const std::string lie : lies) {
        EXPECT_EQ(filed(true, 1, kStream + lie), kCastFiled) << lie;
        EXPECT_EQ(filed(false, 0x40020, kMessage + lie), kMessageFiled) << lie;
    }
    EXPECT_EQ(count(out(), "the rest is ignored \033[1;43m[WARNING]\033[0m\n"), 2 * std::size(lies));
    EXPECT_EQ(filed(false, 0x40020, std::string("08 00 FF FF") + kMessage), ""); // no text before it
    // A value of another length than its field's is read within its own bytes.
    EXPECT_EQ(filed(true, 1, std::string(kStream) + "02 00 02 00 05 01 09 00 01 00 04"),
              "bypass: 1 2 261 11 12 13 s1:513 d1:4 - 2010 14 2/3 0 1 2 split 1");
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
        int iLastState; // the cast receiver writes none
    };
    for (const Case &row : {Case{true, RxCASTInfoEngine, castLists, castLists[0]->pMutex, 1, kStream,
                                 kCastFiled, kCastPath, "2000", ENGINE_STOP},
                            Case{false, RxPCMBCInfoEngine, messageLists, messageLists[1]->pMutex, 0x40020,
                                 kMessage, kMessageFiled, kMessagePath, "500", ENGINE_STOPPED}}) {
        const auto served = [&] { return filed(row.bCast, row.uiCommand, row.pszRequest); };
        const std::string server = std::string("server ") + row.pszPath;
        script::fail(Step::Init, "mode 0", -1);
        script::fail(Step::Init, "mode 0", 0);
        script::fail(Step::Create, "server", -2);
        {
            Engine engine(row.pBody, row.pLists);
            EXPECT_EQ(served(), row.pszFiled);
            for (const int iResult : {0, -1}) {
                script::fail(Step::Accept, "server", iResult);
                EXPECT_EQ(served(), "");
                script::fail(Step::Rx, "connection", iResult);
                EXPECT_EQ(served(), "");
                EXPECT_EQ(served(), row.pszFiled);
            }
            script::forget();
            script::fail(Step::Poll, "server", -1);
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
            served(); // memory runs out here
            served(); // or here
            EXPECT_EQ(served(), row.pszFiled);
        }
        script::reset();
        script::fail(Step::Init, "mode 0", -1, 1'000'000);
        {
            Engine failing(row.pBody, row.pLists);
            EXPECT_TRUE(script::eventually([] { return script::seen().calls.size() > 20; }));
        }
        // After each attempt the thread gives way three times.
        EXPECT_EQ(script::passes(), 3 * static_cast<long>(script::seen().calls.size()));
        script::reset();
    }
}

TEST_F(ReceiverTest, BlocksWithoutTheirListsAreRefused) {
    KTPLUGIN_INFO_TAG block{};
    MSGList *half[2] = {messageLists[0], nullptr};
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

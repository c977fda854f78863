// The recast engine and the two file cast drivers.
#include "plugintest.h"

#include "filecast.h"

namespace {

using script::START;

class FileCastTest : public PluginTest {
protected:
    FileCastTest() { script::storedFile("/a", {{START, {0x47, 1}}, {START + 2, {0x47, 2}}}); }
    static CASTInfo *request(unsigned long ulFormat, const char *pszFile = "/a") {
        return cast({.ulType = 1, .ulFormat = ulFormat, .pszFile = pszFile});
    }
    // Waits until the playout waits for its second packet.
    static void playing(size_t ulCalls) {
        EXPECT_TRUE(script::eventually([=] { return script::calls().size() >= ulCalls; }));
        EXPECT_TRUE(script::settle(3));
    }
    Engine engine{PCCASTRECASTEngine};
};

const char *const LOG =
    "play: ST=20010909014640,ET=20010909014642,TYPE=ASF@FILECAST,IEPGID=0x00000001,FILE=\"/a\","
    "SRC=\"0.0.0.0:9100\",DST=\"224.2.2.2:5000\"";

TEST_F(FileCastTest, FormatChoosesTheDriver) {
    std::vector<std::string> logs;
    std::string console;
    for (const unsigned long ulFormat : {0x2021ul, 0x2005ul, 0x2025ul, 0x2010ul, 0x2016ul}) {
        const bool bASF = ulFormat == 0x2010 || ulFormat == 0x2016;
        script::storedFile("/a", {{script::now(), {0x47, 1}}, {script::now() + 2, {0x47, 2}}});
        script::forgetCalls();
        engine.handOver(request(ulFormat));
        playing(6);
        EXPECT_EQ(engine.block.eState, ENGINE_RUNNING);
        script::advance(2);
        ASSERT_TRUE(engine.becomes(ENGINE_IDLE));
        EXPECT_THAT(script::calls(),
                    ElementsAre("open stream /a", "start stream", bASF ? "open asf" : "open ts",
                                bASF ? "asf mode 0 hops 16 station /fixdata/bypass.nsc 0"
                                     : "ts mode 0 set-up none -1 224.2.2.2:5000 2777 16",
                                bASF ? "asf send 47 01" : "ts send 47 01", "release packet",
                                bASF ? "asf send 47 02" : "ts send 47 02", "release packet",
                                bASF ? "close asf" : "close ts", "close stream"));
        console += bASF ? "cast \"\033[1;32m/a\033[0m\"\n"
                        : "cast \"\033[1;32m/a\033[0m\" to \"\033[1;37m224.2.2.2:5000\033[0m\"\n";
    }
    EXPECT_EQ(script::console(), console);
    ASSERT_EQ(script::log().size(), 5u);
    EXPECT_EQ(script::log().at(0), std::string(LOG) + "\n");
    EXPECT_THAT(script::log().at(4), HasSubstr("DST=\"224.2.2.2:5000\",NSC=\"/fixdata/bypass.nsc\"\n"));
    EXPECT_THAT(script::reports(), IsEmpty());
}

TEST_F(FileCastTest, FailuresEndThePlayoutAndReleaseAll) {
    struct Case {
        Step step;
        int iStep;
        const char *pszReport; // behind the driver's name; "ASF" in front: of that driver alone
        bool bFailed, bLogged;
    };
    int iLogs = 0;
    for (const Case &row : {Case{Step::STREAM_START, 0, "can not start stream", true, false},
                            Case{Step::STREAM_START, 2, "can not start stream", true, false},
                            Case{Step::CASTER_OPEN, 0, "s_%s != ((struct ts_qxapi_%s *)0)", true, true},
                            Case{Step::SET_STATION, 0, "ASFinvalud nsc or format_index", false, true},
                            Case{Step::SET_TARGET, 0, "", false, true}, // of the TS set-up nobody asks
                            Case{Step::CASTER_SEND, 0, "ASFcast error", true, true},
                            Case{Step::CASTER_SEND, -1, "ASFcast error", true, true}}) {
        for (const bool bASF : {true, false}) {
            if (row.step == (bASF ? Step::SET_TARGET : Step::SET_STATION)) {
                continue;
            }
            script::storedFile("/a", {{script::now(), {1}}, {script::now(), {2}}});
            const size_t ulReports = script::reports().size();
            script::forgetCalls();
            script::fail(row.step, "", row.iStep);
            engine.handOver(request(bASF ? 0x2010 : 0x2021));
            ASSERT_TRUE(engine.becomes(row.bFailed ? ENGINE_FAILED : ENGINE_IDLE)) << row.pszReport;
            engineMove(&engine.block, ENGINE_FAILED, ENGINE_IDLE);
            const std::string caster = bASF ? "asf" : "ts";
            std::string report = row.pszReport;
            if (row.step == Step::CASTER_OPEN) {
                report = "s_" + caster + "cast != ((struct ts_qxapi_" + caster + "cast *)0)";
            } else if (report.rfind("ASF", 0) == 0) {
                report = bASF ? report.substr(3) : "";
            }
            std::vector<std::string> expected;
            if (!report.empty()) {
                expected.push_back("qxbox_" + caster + "cast: " + report);
            }
            const std::vector<std::string> reports = script::reports();
            EXPECT_EQ(std::vector<std::string>(reports.begin() + static_cast<long>(ulReports), reports.end()),
                      expected);
            iLogs += row.bLogged ? 1 : 0;
            EXPECT_EQ(script::log().size(), static_cast<size_t>(iLogs));
            const std::string calls = joined(script::calls());
            EXPECT_EQ(count(calls, "close stream"), 1u);
            EXPECT_EQ(count(calls, "open " + caster), row.bLogged ? 1u : 0u); // logged: it came to a packet
            EXPECT_EQ(count(calls, "close " + caster),
                      row.step == Step::CASTER_OPEN || !row.bLogged ? 0u : 1u);
            EXPECT_EQ(count(calls, " send"), row.step == Step::CASTER_SEND ? 1u : row.bFailed ? 0u : 2u);
        }
    }
    engine.handOver(request(0x2010, "/missing"));
    ASSERT_TRUE(engine.becomes(ENGINE_FAILED));
    EXPECT_EQ(script::reports().back(), "qxbox_asfcast: s_stream != ((struct ts_qxapi_stream *)0)");
    EXPECT_EQ(script::log().size(), static_cast<size_t>(iLogs));
}

TEST_F(FileCastTest, FinishStopAndBreakEndAPlayout) {
    for (const int iHow : {0, 1, 2}) {
        script::forgetCalls();
        script::storedFile("/a", {{START, {1}}, {START + 1000, {2}}});
        engine.handOver(request(iHow == 0 ? 0x2021 : 0x2010));
        playing(6);
        if (iHow == 1) {
            vexa_set_global_break(1);
        } else {
            engineMove(&engine.block, ENGINE_RUNNING, iHow == 0 ? ENGINE_FINISH : ENGINE_STOP);
        }
        ASSERT_TRUE(engine.becomes(iHow == 2 ? ENGINE_STOPPED : ENGINE_IDLE));
        vexa_set_global_break(0);
        EXPECT_EQ(script::log().size(), static_cast<size_t>(iHow + 1));
        EXPECT_EQ(count(joined(script::calls()), "send"), 1u);
    }
}

TEST_F(FileCastTest, EmptyFileOpensNoCaster) {
    script::storedFile("/a", {});
    engine.handOver(request(0x2021));
    ASSERT_TRUE(engine.becomes(ENGINE_IDLE));
    EXPECT_THAT(script::calls(), ElementsAre("open stream /a", "start stream", "close stream"));
    EXPECT_EQ(script::log().size(), 1u);
}

TEST_F(FileCastTest, RequestsThatCannotBePlayedAreReported) {
    engine.handOver(request(0x2000));
    ASSERT_TRUE(engine.becomes(ENGINE_IDLE));
    EXPECT_EQ(out(),
              "PCCASTRECASTEngine():#, ALARM, unknown content format[0x2000(8192)] to re-cast: let it go\n");
    CASTInfo *pInfo = request(0x2021);
    free(pInfo->pCASTFile);
    pInfo->pCASTFile = nullptr;
    pInfo->ulMSID = 0x1FFFE;
    engine.handOver(pInfo);
    ASSERT_TRUE(engine.becomes(ENGINE_FAILED));
    engineMove(&engine.block, ENGINE_FAILED, ENGINE_IDLE);
    const std::string text =
        std::regex_replace(out(), std::regex(R"(PCCASTRECASTEngine\[\d+\])"), "PCCASTRECASTEngine[#]");
    EXPECT_THAT(
        text,
        HasSubstr(
            "PCCASTRECASTEngine[#] check the recast arguments:\nPCCASTRECASTEngine[#] : FileName = NULL\n"
            "PCCASTRECASTEngine[#] : IP = 224.2.2.2, PORT = 5000\n"
            "PCCASTRECASTEngine[#] : MSID = 65534[fffe]\n"));
    pInfo = request(0x2021);
    free(pInfo->pDSTIP);
    pInfo->pDSTIP = nullptr;
    engine.handOver(pInfo);
    ASSERT_TRUE(engine.becomes(ENGINE_FAILED));
    engineMove(&engine.block, ENGINE_FAILED, ENGINE_IDLE);
    EXPECT_THAT(out(), HasSubstr(" : IP = NULL, PORT = 5000\n"));
    const std::string longest(249, '1'), longer(250, '1'); // with ":50000" 255 and 256 characters
    for (const std::string &target : {longest, longer}) {
        engine.handOver(
            cast({.ulType = 1, .pszTarget = target.c_str(), .pszFile = "/b", .usTargetPort = 50000}));
        ASSERT_TRUE(engine.becomes(ENGINE_FAILED));
        engineMove(&engine.block, ENGINE_FAILED, ENGINE_IDLE);
    }
    EXPECT_EQ(count(joined(script::calls()), "open stream /b"), 1u);
    engine.block.pWork = nullptr;
    engine.stop();
}

TEST_F(FileCastTest, TargetIsGivenToTheASFCasterWhenThereIsOne) {
    KTPLUGIN_INFO_TAG block{};
    block.eState = ENGINE_RUNNING;
    CASTInfo info{};
    info.uliEPGID = 0x1234567890;
    ASFCASTARG argument{};
    argument.uiMode = 3;
    argument.pszFile = "/a";
    argument.uiFormatIndex = 5;
    argument.pszTarget = "224.5.5.5";
    argument.uiTargetPort = 9;
    argument.pBlock = &block;
    argument.pInfo = &info;
    script::storedFile("/a", {{START, {1}}});
    script::fail(Step::SET_TARGET, "asf", 0);
    EXPECT_EQ(qxbox_asfcast(&argument), 1);
    EXPECT_EQ(script::calls().at(3), "asf mode 3 hops 16 station none 5");
    EXPECT_EQ(script::calls().at(4), "asf target 224.5.5.5 9");
    EXPECT_THAT(script::reports(), ElementsAre("qxbox_asfcast: invalid target or port"));
    EXPECT_EQ(script::log().at(0),
              "play: ST=20010909014640,ET=20010909014640,TYPE=ASF@FILECAST,IEPGID=0x1234567890,FILE=\"NULL\","
              "SRC=\"0.0.0.0:0\",DST=\"0.0.0.0:0\",NSC=\"NULL\"\n");
    script::fail(Step::CASTER_SEND, "ts", 42);
    TSCASTARG ts{};
    ts.pszAux = "eth0";
    ts.pszFile = "/a";
    ts.uiCasterParam = 7;
    ts.pBlock = &block;
    ts.pInfo = &info;
    EXPECT_EQ(qxbox_tscast(&ts), 42);
    EXPECT_THAT(joined(script::calls()), HasSubstr("ts mode 0 set-up eth0 -1 none 2777 7\n"));
    EXPECT_THAT(script::console(), HasSubstr("cast \"\033[1;32m/a\033[0m\" to \"\033[1;37mNULL\033[0m\"\n"));
}

} // namespace

// The recast engine and the two file cast drivers.
#include "plugintest.h"

#include "filecast.h"

namespace {

using script::kStart;

class FileCastTest : public PluginTest {
protected:
    FileCastTest() { script::storedFile("/a", {{kStart, {0x47, 1}}, {kStart + 2, {0x47, 2}}}); }
    static CASTInfo *request(unsigned long ulFormat, const char *pszFile = "/a") {
        return cast({.ulType = 1, .ulFormat = ulFormat, .pszFile = pszFile});
    }
    // Waits until so many calls were made and the playout waits for a packet.
    static void playing(size_t ulCalls) {
        EXPECT_TRUE(script::eventually([=] { return script::seen().calls.size() >= ulCalls; }));
        EXPECT_TRUE(script::settle(3));
    }
    Engine engine{PCCASTRECASTEngine};
};

TEST_F(FileCastTest, FormatChoosesTheDriver) {
    for (const unsigned long ulFormat : {0x2021ul, 0x2005ul, 0x2025ul, 0x2010ul, 0x2016ul}) {
        const bool bASF = ulFormat == 0x2010 || ulFormat == 0x2016;
        const std::string caster = bASF ? "asf" : "ts";
        script::storedFile("/a", {{script::now() + 1, {0x47, 1}}, {script::now() + 3, {0x47, 2}}});
        script::forget();
        engine.handOver(request(ulFormat));
        playing(2); // the first packet is not due yet
        const unsigned long ulSecond = 40 + script::now() - kStart;
        script::advance(1);
        playing(6);
        EXPECT_EQ(engine.block.eState, ENGINE_RUNNING);
        script::advance(2);
        ASSERT_TRUE(engine.becomes(ENGINE_IDLE));
        EXPECT_THAT(script::seen().calls,
                    ElementsAre("open stream /a", "start stream", "open " + caster,
                                bASF ? "asf mode 0 hops 16 station /fixdata/bypass.nsc 0"
                                     : "ts mode 0 set-up none -1 224.2.2.2:5000 2777 16",
                                caster + " send 47 01", "release packet", caster + " send 47 02",
                                "release packet", "close " + caster, "close stream"));
        EXPECT_EQ(script::seen().console, std::string("cast \"\033[1;32m/a\033[0m\"") +
                                              (bASF ? "\n" : " to \"\033[1;37m224.2.2.2:5000\033[0m\"\n"));
        EXPECT_THAT(script::seen().log,
                    ElementsAre("play: ST=200109090146" + std::to_string(ulSecond) + ",ET=200109090146" +
                                std::to_string(ulSecond + 3) +
                                ",TYPE=ASF@FILECAST,IEPGID=0x00000001,FILE=\"/a\",SRC=\"0.0.0.0:9100\","
                                "DST=\"224.2.2.2:5000\"" +
                                (bASF ? ",NSC=\"/fixdata/bypass.nsc\"\n" : "\n")));
        EXPECT_THAT(script::seen().reports, IsEmpty());
    }
}

TEST_F(FileCastTest, FailuresEndThePlayoutAndReleaseAll) {
    struct Case {
        Step step;
        int iStep;
        const char *pszASFReport, *pszTSReport;
        bool bFailed, bLogged;
    };
    for (const Case &row :
         {Case{Step::StreamStart, 0, "can not start stream", "can not start stream", true, false},
          Case{Step::StreamStart, 2, "can not start stream", "can not start stream", true, false},
          Case{Step::CasterOpen, 0, "s_asfcast != ((struct ts_qxapi_asfcast *)0)",
               "s_tscast != ((struct ts_qxapi_tscast *)0)", true, true},
          Case{Step::SetStation, 0, "invalud nsc or format_index", nullptr, false, true},
          Case{Step::SetTarget, 0, nullptr, "", false, true}, // nobody looks at the result of the TS set-up
          Case{Step::CasterSend, 0, "cast error", "", true, true},
          Case{Step::CasterSend, -1, "cast error", "", true, true}}) {
        for (const bool bASF : {true, false}) {
            const char *const pszReport = bASF ? row.pszASFReport : row.pszTSReport;
            if (pszReport == nullptr) { // a step that only the other caster has
                continue;
            }
            const std::string caster = bASF ? "asf" : "ts", driver = "qxbox_" + caster + "cast: ";
            script::storedFile("/a", {{script::now(), {1}}, {script::now(), {2}}});
            script::forget();
            script::fail(row.step, "", row.iStep);
            engine.handOver(request(bASF ? 0x2010 : 0x2021));
            ASSERT_TRUE(engine.becomes(row.bFailed ? ENGINE_FAILED : ENGINE_IDLE)) << driver << pszReport;
            engineMove(&engine.block, ENGINE_FAILED, ENGINE_IDLE);
            EXPECT_EQ(joined(script::seen().reports), *pszReport == '\0' ? "" : driver + pszReport + "\n");
            EXPECT_EQ(script::seen().log.size(), row.bLogged ? 1u : 0u);
            const std::string calls = joined(script::seen().calls);
            EXPECT_EQ(count(calls, "close stream"), 1u);
            EXPECT_EQ(count(calls, "open " + caster), row.bLogged ? 1u : 0u); // opened at the first packet
            EXPECT_EQ(count(calls, "close " + caster),
                      row.step == Step::CasterOpen || !row.bLogged ? 0u : 1u);
            EXPECT_EQ(count(calls, " send"), row.step == Step::CasterSend ? 1u : row.bFailed ? 0u : 2u);
        }
    }
    script::forget();
    engine.handOver(request(0x2010, "/missing"));
    ASSERT_TRUE(engine.becomes(ENGINE_FAILED));
    EXPECT_THAT(script::seen().reports,
                ElementsAre("qxbox_asfcast: s_stream != ((struct ts_qxapi_stream *)0)"));
    EXPECT_THAT(script::seen().log, IsEmpty());
    engineMove(&engine.block, ENGINE_FAILED, ENGINE_IDLE);
    script::forget();
    script::storedFile("/a", {});
    engine.handOver(request(0x2021));
    ASSERT_TRUE(engine.becomes(ENGINE_IDLE));
    EXPECT_THAT(script::seen().calls, ElementsAre("open stream /a", "start stream", "close stream"));
    EXPECT_EQ(script::seen().log.size(), 1u);
}

TEST_F(FileCastTest, FinishStopAndBreakEndAPlayout) {
    for (const int iHow : {0, 1, 2}) {
        script::forget();
        script::storedFile("/a", {{kStart, {1}}, {kStart + 1000, {2}}});
        engine.handOver(request(iHow == 0 ? 0x2021 : 0x2010));
        playing(6);
        if (iHow == 1) {
            vexa_set_global_break(1);
        } else {
            engineMove(&engine.block, ENGINE_RUNNING, iHow == 0 ? ENGINE_FINISH : ENGINE_STOP);
        }
        ASSERT_TRUE(engine.becomes(iHow == 2 ? ENGINE_STOPPED : ENGINE_IDLE));
        vexa_set_global_break(0);
        EXPECT_EQ(script::seen().log.size(), 1u);
        EXPECT_EQ(count(joined(script::seen().calls), "send"), 1u);
    }
}

TEST_F(FileCastTest, RequestsThatCannotBePlayedAreReported) {
    const auto fails = [this](CASTInfo *pInfo) {
        engine.handOver(pInfo);
        EXPECT_TRUE(engine.becomes(ENGINE_FAILED));
        engineMove(&engine.block, ENGINE_FAILED, ENGINE_IDLE);
    };
    engine.handOver(request(0x2000));
    ASSERT_TRUE(engine.becomes(ENGINE_IDLE));
    CASTInfo *pInfo = request(0x2021, nullptr);
    pInfo->ulMSID = 0x1FFFE;
    fails(pInfo);
    fails(cast({.ulType = 1, .pszTarget = nullptr, .pszFile = "/a"}));
    for (const size_t ulLength : {249ul, 250ul}) { // with ":50000" 255 and 256 characters
        const std::string target(ulLength, '1');
        fails(cast({.ulType = 1, .pszTarget = target.c_str(), .pszFile = "/b", .usTargetPort = 50000}));
    }
    EXPECT_EQ(
        std::regex_replace(out(), std::regex(R"(PCCASTRECASTEngine\[\d+\])"), "@"),
        "PCCASTRECASTEngine():#, ALARM, unknown content format[0x2000(8192)] to re-cast: let it go\n"
        "@ check the recast arguments:\n@ : FileName = NULL\n@ : IP = 224.2.2.2, PORT = 5000\n"
        "@ : MSID = 65534[fffe]\n"
        "@ check the recast arguments:\n@ : FileName = /a\n@ : IP = NULL, PORT = 5000\n@ : MSID = 0[0]\n"
        "PCCASTRECASTEngine():# \033[1;41m[destination of 256 characters is no address]\033[0m\n");
    EXPECT_EQ(count(joined(script::seen().calls), "open stream /b"), 1u);
}

// What the drivers can do and the engine does not ask for.
TEST_F(FileCastTest, DriversTakeTargetModeAndDevice) {
    KTPLUGIN_INFO_TAG block{};
    block.eState = ENGINE_RUNNING;
    CASTInfo info{};
    info.uliEPGID = 0x1234567890;
    ASFCASTARG asf{3, "/a", nullptr, 5, "224.5.5.5", 9, &block, &info};
    TSCASTARG ts{0, "eth0", "/a", nullptr, 7, &block, &info};
    script::storedFile("/a", {{kStart, {1}}});
    script::fail(Step::SetTarget, "asf", 0);
    EXPECT_EQ(qxbox_asfcast(&asf), 1);
    EXPECT_EQ(qxbox_asfcast(&asf), 1); // the target is taken: nothing is reported
    script::fail(Step::CasterSend, "ts", 42);
    EXPECT_EQ(qxbox_tscast(&ts), 42);
    EXPECT_THAT(joined(script::seen().calls),
                testing::AllOf(HasSubstr("asf mode 3 hops 16 station none 5\nasf target 224.5.5.5 9\n"),
                               HasSubstr("ts mode 0 set-up eth0 -1 none 2777 7\n")));
    EXPECT_THAT(script::seen().reports, ElementsAre("qxbox_asfcast: invalid target or port"));
    EXPECT_EQ(script::seen().log.at(0),
              "play: ST=20010909014640,ET=20010909014640,TYPE=ASF@FILECAST,IEPGID=0x1234567890,FILE=\"NULL\","
              "SRC=\"0.0.0.0:0\",DST=\"0.0.0.0:0\",NSC=\"NULL\"\n");
    EXPECT_THAT(script::seen().console,
                HasSubstr("cast \"\033[1;32m/a\033[0m\" to \"\033[1;37mNULL\033[0m\"\n"));
}

} // namespace

// What becomes of a request, as the command line tells it from the service's events. The test stands in for
// the service's view.
#include "outcome.h"

#include "command.h"
#include "commands.h"
#include "revoke.h"
#include "submit.h"
#include "viewclient.h"

#include <CLI/CLI.hpp>
#include <gtest/gtest.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <deque>
#include <map>
#include <sstream>

namespace {

// What the service answers, one after the other; nobody listens any more behind the last.
std::deque<std::vector<const char *>> gAnswers;
unsigned long gNumber = 0; // of the last event told
std::deque<Json> gViews;   // the last one is answered again; null: no answer

// Events of the request 3, unless they say otherwise: as an object, or as the event and its reason in words.
Json eventsOf(const std::vector<const char *> &events) {
    Json all = Json::array();
    for (const char *pszEvent : events) {
        Json event = Json::parse(R"({"time":1790000000,"milliseconds":7,"request":3,"kind":"relay","epg":7,
            "identity":"ID","created":5,"start":1790000000,"end":1790003600})");
        event["number"] = ++gNumber;
        if (*pszEvent == '{') {
            event.update(Json::parse(pszEvent));
        } else {
            std::string sEvent, sReason;
            std::istringstream(pszEvent) >> sEvent >> sReason;
            event.update({{"event", sEvent}, {"reason", sReason}});
        }
        all.push_back(event);
    }
    return all;
}

} // namespace

ViewResult getEvents(unsigned long ulAfter, unsigned int /*uiWait*/, Json *pEvents, std::string *psProblem) {
    EXPECT_EQ(ulAfter, gNumber);
    if (gAnswers.empty()) {
        return VIEW_ABSENT;
    }
    const std::vector<const char *> events = gAnswers.front();
    gAnswers.pop_front();
    if (events == std::vector<const char *>{nullptr}) {
        *psProblem = "no answer";
        return VIEW_FAILED;
    }
    *pEvents = Json{{"events", eventsOf(events)}, {"lost", 0}};
    (*pEvents)["last"] = gNumber;
    return VIEW_ANSWERED;
}

ViewResult getView(Json *pView, std::string *psProblem) {
    *pView = gViews.front();
    if (gViews.size() > 1) {
        gViews.pop_front();
    }
    *psProblem = "no view";
    return pView->is_null() ? VIEW_FAILED : VIEW_ANSWERED;
}

ViewResult getNewestEvent(unsigned long * /*pulNumber*/, std::string * /*psProblem*/) {
    return VIEW_ABSENT;
}

int sayAndReturn(int iExitCode, const std::string &sText) {
    std::fprintf(stderr, "pccast: %s\n", sText.c_str());
    return iExitCode;
}

int checkArguments(std::initializer_list<Argument> arguments) {
    for (const Argument &argument : arguments) {
        EXPECT_EQ(argument.sProblem, "");
    }
    return EXIT_DONE;
}

std::string helpExample(const std::string &sExample) {
    return sExample;
}

void addServiceOptions(const Command & /*command*/, ServiceOptions & /*options*/) {}

void setRequestAction(const Command &command, std::function<int()> action, int &iExitCode) {
    command.action([action = std::move(action), &iExitCode] { iExitCode = action(); });
}

int reachService(const ServiceOptions & /*options*/, ServiceKind /*eKind*/, Service * /*pService*/) {
    return EXIT_DONE;
}

int submitCast(const Service & /*service*/, unsigned long ulCMD, const CastRequest &request) {
    std::fprintf(stderr, "%lu %s %lu\n", ulCMD, writeCastIdentity(request.identity).c_str(), request.ulCT);
    return EXIT_DONE;
}

int submitMessage(const Service & /*service*/, unsigned long ulCMD, const MessageIdentity &identity,
                  unsigned long ulRepeat, const std::string &sText) {
    EXPECT_EQ(std::tuple(ulCMD, ulRepeat, sText), std::tuple(PCMBC_CMD_CANCEL, 1ul, "cancel"));
    std::fprintf(stderr, "%s\n", writeMessageIdentity(identity).c_str());
    return EXIT_DONE;
}

namespace {

void expectOutcome(const std::deque<std::vector<const char *>> &answers, bool bFollow, int iExit,
                   const std::string &sSaid) {
    gAnswers = answers;
    gNumber = 0;
    testing::internal::CaptureStderr();
    EXPECT_EQ(tellOutcome({true, 0}, {"relay", "ID", 5}, bFollow), iExit) << sSaid;
    EXPECT_EQ(testing::internal::GetCapturedStderr(), sSaid);
}

TEST(Outcome, EachEndIsToldWithItsExitCode) {
    setenv("TZ", "UTC0", 1);
    tzset();
    gViews = {Json::parse(R"({"time":1790000000,"requests":[]})")};
    const struct {
        int iExit;
        bool bFollow;
        std::deque<std::vector<const char *>> answers;
        const char *pszSaid;
    } aCase[] = {
        {0, false, {{"filed"}, {"started"}}, "pccast: on air now\n"},
        {0,
         false,
         {{R"({"event":"filed","request":9,"created":4})", "filed",
           R"({"event":"preempted","request":1,"epg":1,"other":{"request":3}})",
           R"({"event":"preempted","request":2,"epg":2,"other":{"request":8}})",
           R"({"event":"preempted","request":5,"epg":5,"kind":"file","other":{"request":3}})", "started"}},
         "pccast: on air now; it ended the relay of EPG 1 and file of EPG 5\n"},
        {80, true, {{"refused incomplete"}}, "pccast: refused: it is incomplete, or of an unknown type\n"},
        {80, true, {{"dropped"}}, "pccast: dropped\n"},
        {81, false, {{"filed", "failed loop"}}, "pccast: failed: it would feed itself\n"},
        {82,
         true,
         {{R"({"event":"cancelled","other":{"kind":"stop","identity":"S"}})"}},
         "pccast: cancelled: by stop S\n"},
        {84, true, {{"expired"}}, "pccast: expired\n"},
        {0, true, {{"finished repeats"}}, "pccast: finished: sent as often as asked\n"},
        {83, true, {{"started", "expired"}}, "pccast: expired\n"},
        {0,
         true,
         {{R"({"event":"current","text":"a","repeats":0})", R"({"event":"expired","text":"a","repeats":0})"}},
         "pccast: expired\n"},
        {0,
         true,
         {{"started"}, {R"({"event":"ended","request":4,"kind":"file"})"}, {"ended end-time"}},
         "pccast: on air now\n3  2026-09-21 14:13:20.007  ended relay ID  its end time has come\n"},
        {85,
         true,
         {{"started"}},
         "pccast: on air now\npccast: the service has been closed; what became of the request is not "
         "known\n"},
        {86, false, {{"filed"}, {nullptr}}, "pccast: no answer; what becomes of the request is not known\n"},
    };
    for (const auto &test : aCase) {
        expectOutcome(test.answers, test.bFollow, test.iExit, test.pszSaid);
    }

    // How a cast that was on air goes off it.
    const struct {
        int iExit;
        const char *pszEvent, *pszSaid;
    } aEnd[] = {
        {0, "ended file-end", "ended relay ID  the file has ended\n"},
        {82, "ended stop", "ended relay ID  stop\n"},
        {85, "ended closing", "ended relay ID  the service closes\n"},
        {81, "ended source-lost", "ended relay ID  its source socket failed\n"},
        {83, "preempted newer", "preempted relay ID  newer\npccast: it will not return\n"},
    };
    for (const char *pszBegun : {"started", "returned"}) {
        for (const auto &end : aEnd) {
            expectOutcome({{pszBegun}, {end.pszEvent}}, true, end.iExit,
                          std::string("pccast: on air now\n2  2026-09-21 14:13:20.007  ") + end.pszSaid);
        }
    }

    gViews = {
        Json::parse(R"({"time":1789999000,"requests":[{"request":3,"place":"waiting","kind":"relay","epg":7,
        "created":5,"identity":"ID","start":1790000000,"end":1790003600}]})")};
    expectOutcome({{"filed"}}, false, 0, "pccast: waits until 14:13:20\n");
}

TEST(Outcome, ATerminalShowsHowFarItIs) {
    int iScreen = -1;
    int iTerminal = -1;
    struct winsize size {
        24, 70, 0, 0
    };
    struct termios raw {};
    cfmakeraw(&raw);
    ASSERT_EQ(openpty(&iScreen, &iTerminal, nullptr, &raw, &size), 0);
    const int iBefore = dup(STDERR_FILENO);
    dup2(iTerminal, STDERR_FILENO);
    Json relay =
        Json::parse(R"({"time":1790001800,"requests":[{"request":3,"place":"on-air","kind":"relay","epg":7,
        "created":5,"identity":"ID","started":1790000000,"start":1790000000,"end":1790003600}],
        "relay":{"request":3,"datagrams":4567,"bytes":1,"failed":0,"dropped":0,"silence":0,
        "datagrams_per_second":100,"bytes_per_second":131600}})");
    Json file = relay;
    file["requests"][0]["kind"] = "file";
    Json waiting = relay;
    waiting["time"] = 1789999000;
    waiting["requests"][0]["place"] = "waiting";
    waiting.erase("relay");
    gViews = {relay, file, waiting, Json::parse(R"({"time":1790000000,"requests":[]})")};
    gAnswers = {{"started"}, {}, {}, {}, {}, {"ended end-time"}};
    gNumber = 0;
    const int iExit = tellOutcome({true, 0}, {"relay", "ID", 5}, true);
    dup2(iBefore, STDERR_FILENO);
    close(iBefore);
    close(iTerminal);
    std::string sScreen;
    std::array<char, 4096> aBytes{};
    for (ssize_t lRead = 0; (lRead = read(iScreen, aBytes.data(), aBytes.size())) > 0;) {
        sScreen.append(aBytes.data(), static_cast<size_t>(lRead));
    }
    close(iScreen);
    EXPECT_EQ(iExit, 0);
    EXPECT_EQ(
        sScreen,
        "pccast: on air now\n\r100 datagrams/s, 1052 kbit/s, 4567 datagrams in all, 0 dropped, 0 no…\033[K"
        "\r[############------------]  50% 100 datagrams/s, 1052 kbit/s, 4567 d…\033[K"
        "\rwaits until 14:13:20\033[K\r\033[K\r\033[K2  2026-09-21 14:13:20.007  ended relay ID  "
        "its end time has come\n");
}

TEST(Revocation, IsJudgedByTheFirstEventThatTells) {
    const std::pair<RevokeResult, std::vector<const char *>> aCase[] = {
        {REVOKE_VOID, {R"({"event":"refused","request":9,"kind":"stop","identity":"S"})"}},
        {REVOKE_VOID, {R"({"event":"expired","request":9,"kind":"stop","identity":"S"})"}},
        {REVOKE_LATE, {"failed"}},
        {REVOKE_LATE, {"finished"}},
        {REVOKE_LATE, {"dropped"}},
        {REVOKE_SILENT,
         {R"({"event":"ended","request":8,"kind":"file","other":{"kind":"stop","identity":"T"}})",
          "preempted",
          R"({"event":"preempted","request":8,"kind":"file","other":{"kind":"stop","identity":"S"}})",
          R"({"event":"done","request":9,"kind":"stop","identity":"S"})",
          R"({"event":"ended","request":4,"kind":"file"})",
          R"({"event":"refused","request":9,"kind":"cancel","identity":"S"})"}},
    };
    for (const auto &[eResult, events] : aCase) {
        gAnswers = {{R"({"event":"filed","request":9,"kind":"stop","identity":"S"})"}, events};
        gNumber = 0;
        unsigned long ulAfter = 0;
        Json event;
        EXPECT_EQ(awaitRevocation({"stop", "S", 3}, &ulAfter, &event), eResult) << events[0];
        EXPECT_EQ(ulAfter, gNumber);
        if (eResult != REVOKE_SILENT) {
            EXPECT_EQ(event.value("number", 0ul), ulAfter);
        }
    }
}

// The view at a place of the request 3, which is a relay or a message. A stop of the relay waits.
Json viewOf(const std::string &sPlace) {
    Json view = Json::parse(R"({"time":1790000100,"events":0,"requests":[
        {"request":3,"kind":"relay","epg":7,"created":5,"identity":"7:2:1790000000:1790003600:5000:0x2021"},
        {"request":3,"kind":"message","identity":"1:2:3:4000000000:normal"},
        {"request":6,"kind":"stop","identity":"7:2:1790000000:1790003600:5000:0x2021","place":"waiting"}]})");
    if (sPlace == "late" || sPlace == "early") {
        view["time"] = sPlace == "late" ? 1790003600 : 1789999999;
    }
    view["requests"][0]["place"] = sPlace == "late" || sPlace == "early" ? "on-air" : sPlace;
    return sPlace == "unknown" ? Json() : view;
}

TEST(Stop, GoesOnUntilItsTargetIsOverAndSaysHow) {
    const std::string sIdentity = "7:2:1790000000:1790003600:5000:0x2021"; // ID in what is said
    const std::string sStop = R"("kind":"stop","identity":")" + sIdentity + R"("})";
    const std::map<std::string, std::string> events{
        {"void", R"({"event":"done","reason":"nothing","request":9,)" + sStop},
        {"met", R"({"event":"ended","other":{)" + sStop + "}"},
        {"taken", R"({"event":"cancelled","other":{)" + sStop + "}"},
        {"other", R"({"event":"ended","request":4,"other":{)" + sStop + "}"},
        {"end", "ended end-time"}};
    const std::string sLate =
        "pccast: the relay of EPG 7 (ID) came to its end meanwhile: ended, its end time has come\n";
    const std::string sOver = "pccast: what was left is over meanwhile; nothing more was sent\n";
    const std::string sStopped = "2 ID 5\npccast: stopped: the relay of EPG 7 (ID)\n";
    const struct {
        const char *pszCommand, *pszPlaces, *pszEvents;
        int iExit;
        std::string sSaid;
    } aCase[] = {
        {"stop --epg 7", "unknown", "", 69, "pccast: no view; nothing was sent\n"},
        {"stop --epg 7", "on-air unknown", "", 69, "pccast: no view\n"},
        {"stop --epg 7", "on-air gone", "", 65, sOver},
        {"stop --all", "on-air gone", "", 0, sOver},
        {"stop --epg 7", "on-air", "met", 0, sStopped},
        {"stop --epg 7", "on-air", "other met", 70,
         "2 ID 5\npccast: another cast was met: the relay of EPG 7 (ID)\n" + sStopped},
        {"stop --epg 7", "on-air", "void void void", 86,
         "2 ID 5\n2 ID 5\n2 ID 5\npccast: the relay of EPG 7 (ID) is still there; pccast list shows it\n"},
        {"stop --epg 7", "on-air on-air on-air gone", "taken", 0,
         "2 ID 5\npccast: taken back: the relay of EPG 7 (ID)\n"},
        {"stop --epg 7", "on-air", "end", 65, "2 ID 5\n2 ID 1\n" + sLate},
        {"stop --epg 7", "on-air on-air on-air unknown", "silent", 69, "2 ID 5\n2 ID 1\npccast: no view\n"},
        {"stop --epg 7", "waiting", "met", 0, "2 ID 1\n" + sStopped.substr(7)},
        {"stop --epg 7", "pending", "end", 65, "2 7:2:1790000102:1790000102:5000:0x2021 5\n" + sLate},
        {"stop --epg 7", "late", "end", 65, "2 7:2:1790000000:1790003610:5000:0x2021 5\n" + sLate},
        {"stop --epg 7", "early", "end", 65, "2 7:2:1789999999:1790003600:5000:0x2021 5\n" + sLate},
        {"cancel 1:2:3:4000000000", "waiting", "silent", 86,
         "1:2:3:4000000000:normal\npccast: the service has not said whether the message is cancelled\n"},
        {"cancel 1:2:3:4000000000 --priority", "waiting", "end", 65,
         "1:2:3:4000000000:normal\npccast: the message came to its end meanwhile\n"},
        {"cancel 1:2:3:4000000000:priority", "unknown", "", 0,
         "pccast: no view, so what becomes of the request is not told\n1:2:3:4000000000:priority\n"
         "pccast: cancel requested\n"},
    };
    for (const auto &test : aCase) {
        CLI::App app;
        int iExit = 0;
        addStopCommand(app, iExit);
        addCancelCommand(app, iExit);
        gViews.clear();
        gAnswers.clear();
        gNumber = 0;
        std::istringstream places(test.pszPlaces);
        std::istringstream happens(test.pszEvents);
        for (std::string sWord; places >> sWord;) {
            gViews.push_back(viewOf(sWord));
        }
        for (std::string sWord; happens >> sWord;) {
            gAnswers.push_back({sWord == "silent" ? nullptr : events.at(sWord).c_str()});
        }
        testing::internal::CaptureStderr();
        app.parse(test.pszCommand);
        std::string sSaid = testing::internal::GetCapturedStderr();
        for (size_t u = 0; (u = sSaid.find(sIdentity)) != std::string::npos;) {
            sSaid.replace(u, sIdentity.size(), "ID");
        }
        EXPECT_EQ(sSaid, test.sSaid);
        EXPECT_EQ(iExit, test.iExit) << test.sSaid;
    }
}

} // namespace

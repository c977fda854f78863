// Tests the view's JSON, and what list, status, events and the audit make of it.
#include <eventtext.h>
#include <historytext.h>
#include <listtext.h>
#include <statustext.h>
#include <viewjson.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>

namespace {

// Lines as one text.
std::string joined(const std::vector<std::string> &lines) {
    std::string sAll;
    for (const std::string &sLine : lines) {
        sAll += sLine + "\n";
    }
    return sAll;
}

class ViewText : public testing::Test {
protected:
    void SetUp() override {
        setenv("TZ", "UTC0", 1);
        tzset();
    }
};

TEST(ViewJSON, TellsARequestWithoutItsKeyAndWithoutBytesThatAreNoText) {
    char szSource[] = "239.0.0.1";
    char szDestination[] = "239.1.2.3";
    unsigned char aKey[] = {0xC0, 0xFF, 0xEE};
    CASTInfo cast{};
    cast.ulCMD = CAST_CMD_START;
    cast.uliEPGID = 7;
    cast.ulCT = 90;
    cast.ulCASTType = CAST_TYPE_STREAM;
    cast.ulSTREAMFormat = CAST_FORMAT_TS;
    cast.ulST = 100;
    cast.ulET = 200;
    cast.pSRCIP = szSource;
    cast.pDSTIP = szDestination;
    cast.usSRCPort = 4000;
    cast.usDSTPort = 5000;
    cast.iEncryptionType = CAST_ENCRYPTION_SEED;
    cast.iEncryptionKeyLen = 3;
    cast.pEncryptionKey = aKey;
    // 1,023 bytes, then a character of three: it does not fit whole.
    std::string sText = "\"\x1b\xff" + std::string(1020, 'x') + "\xed\x95\x9c!";
    MSGInfo message{PCMBC_CMD_CANCEL, 8, 1, 91, 101, 201, 0, 0, 0, sText.data()};

    PCCASTViewRequest aRequest[2]{};
    aRequest[0] = {1, PCCAST_PLACE_ON_AIR, &cast, nullptr, 95, 100, 9, 0};
    aRequest[1] = {2, PCCAST_PLACE_WAITING, nullptr, &message, 96, 0, 0, 3};
    PCCASTView view{};
    view.ulTime = 150;
    view.pRequests = aRequest;
    view.iRequests = 2;
    view.ulSince = 1;
    view.ulEvents = 2;
    view.ulLost = 3;
    view.ulPasses = 4;
    view.threads[0] = {"Main", -1, 1};
    view.threads[1] = {"Relay", 4, 0};
    view.ulRelay = 1;
    view.relay = {5, 6, 7, 8, 9, 149, 148, 10, 11, 0, 0, 0};
    view.ulPlayout = 3;
    view.playout = {12, 13, 14, 0, 0, 0, 0, 0, 0, 15, 16, 17};
    view.announcements = {18, 19, 20};
    view.broadcasts = {21, 22, 0};
    std::string sIdle;
    for (int i = 2; i < PCCAST_VIEW_THREADS; ++i) {
        sIdle += R"(,{"name":"","state":"idle","alive":false})";
    }
    EXPECT_EQ(
        writeJSON(viewJSON(view)),
        R"({"time":150,"since":1,"events":2,"lost":3,"passes":4,"requests":[)"
        R"({"request":1,"place":"on-air","filed":95,"started":100,"preempted_by":9,"kind":"relay","epg":7,)"
        R"("identity":"7:2:100:200:5000:0x2021","created":90,"start":100,"end":200,"source":"239.0.0.1:4000",)"
        R"("destination":"239.1.2.3:5000","format":"0x2021","encrypted":true},)"
        R"({"request":2,"place":"waiting","filed":96,"repeats_left":3,"kind":"cancel","epg":8,)"
        R"("identity":"8:91:101:201:priority","created":91,"start":101,"end":201,"priority":1,"repeats":0,)"
        R"("text":"\"\u001b\ufffd)" +
            std::string(1020, 'x') +
            R"(","text_bytes":1027}],"threads":[{"name":"Main","state":"failed","alive":true},)"
            R"({"name":"Relay","state":"stopped","alive":false})" +
            sIdle +
            R"(],"relay":{"request":1,"datagrams":5,"bytes":6,"failed":7,"dropped":8,"silence":9,)"
            R"("silent_since":149,"last_arrival":148,"datagrams_per_second":10,"bytes_per_second":11},)"
            R"("playout":{"request":3,"datagrams":12,"bytes":13,"failed":14,"position_ms":15,"length_ms":16,)"
            R"("late":17},"announcements":{"sent":18,"failed":19,"last":20},"broadcasts":{"sent":21,"failed":22}})");

    cast.ulCASTType = CAST_TYPE_FILE;
    PCCASTEvent event{};
    event.ulNumber = 12;
    event.ulTime = 151;
    event.uiMilliseconds = 7;
    event.uiKind = PCCAST_EVENT_PREEMPTED;
    event.uiReason = PCCAST_REASON_NEWER;
    event.ulRequest = 1;
    event.pCast = &cast;
    event.ulOther = 2;
    event.pOtherMessage = &message;
    event.traffic.ulPositionMs = 1500;
    EXPECT_EQ(
        writeJSON(eventJSON(event)),
        R"({"number":12,"time":151,"milliseconds":7,"event":"preempted","reason":"newer","request":1,)"
        R"("kind":"file","epg":7,"identity":"7:1:100:200:5000:0x2021","created":90,"start":100,"end":200,)"
        R"("destination":"239.1.2.3:5000","format":"0x2021","encrypted":false,)"
        R"("other":{"request":2,"kind":"cancel","epg":8,"identity":"8:91:101:201:priority"},)"
        R"("traffic":{"datagrams":0,"bytes":0,"failed":0,"position_ms":1500,"late":0}})");
}

// A schedule with every reason to wait. Time: 2026-09-21 14:13:20 is 1790000000.
const Json kView =
    Json::parse(R"({"time":1790000000,"since":1789996400,"events":9,"lost":0,"passes":1,"requests":[
  {"request":1,"place":"waiting","filed":1,"started":1,"preempted_by":2,"kind":"relay","epg":1,"created":10,
   "identity":"1:2:1789990000:1790007200:5001:0x2021","start":1789990000,"end":1790007200,
   "source":"239.0.0.1:4001","destination":"239.1.2.3:5001"},
  {"request":2,"place":"on-air","filed":1,"started":1789999400,"kind":"relay","epg":2,"created":20,
   "identity":"2:2:1789999400:1790000600:5002:0x2021","start":1789999400,"end":1790000600,
   "source":"239.0.0.1:4002","destination":"239.1.2.3:5002"},
  {"request":3,"place":"waiting","filed":1,"kind":"relay","epg":3,"created":15,
   "identity":"3:2:1790000100:1790000500:5003:0x2021","start":1790000100,"end":1790000500,
   "source":"239.0.0.1:4003","destination":"239.1.2.3:5003"},
  {"request":4,"place":"pending","filed":1,"kind":"file","epg":4,"created":16,
   "identity":"4:1:1790000000:1790003600:5004:0x2021","start":1790000000,"end":1790003600,
   "file":"/srv/a\u001b[2J.ts","destination":"239.1.2.3:5004"},
  {"request":5,"place":"on-air","filed":1,"kind":"message","epg":5,"created":17,"repeats":3,"repeats_left":2,
   "identity":"5:17:1789999999:1790000300:normal","start":1789999999,"end":1790000300,"text":"Fire drill"},
  {"request":6,"place":"waiting","filed":1,"kind":"stop","epg":2,"created":18,
   "identity":"2:2:1790000050:1790000600:5002:0x2021","start":1790000050,"end":1790000600,
   "source":"0.0.0.0:1","destination":"0.0.0.0:1"},
  {"request":7,"place":"waiting","filed":1,"kind":"relay","epg":7,"created":30,
   "identity":"7:2:1790086400:1790090000:5007:0x2021","start":1790086400,"end":1790090000,
   "source":"239.0.0.1:4007","destination":"239.1.2.3:5007"},
  {"request":8,"place":"over","filed":1,"kind":"file","epg":8,"created":5,
   "identity":"8:1:1789990000:1790000900:5008:0x2021","start":1789990000,"end":1790000900,
   "file":"/srv/b.ts","destination":"239.1.2.3:5008"}],
  "threads":[{"name":"Main","state":"running","alive":true},{"name":"Relay","state":"failed","alive":true},
   {"name":"Dead","state":"running","alive":false}],
  "relay":{"request":2,"datagrams":4567,"bytes":1,"failed":1,"dropped":3,"silence":4,
   "datagrams_per_second":3800,"bytes_per_second":5000800},
  "playout":{"datagrams":0,"bytes":0,"failed":0,"position_ms":0,"late":0},
  "announcements":{"sent":20,"failed":1,"last":1789999990},"broadcasts":{"sent":1,"failed":0}})");

TEST_F(ViewText, ListShowsWhatIsOnAirThenWhatComesNextAndWhyItWaits) {
    EXPECT_EQ(
        joined(listLines(kView, {0, false, false})),
        R"(STATE    EPG  KIND     WHAT              WHERE           FROM                 UNTIL                LEFT      IDENTITY
on air   2    relay    239.0.0.1:4002    239.1.2.3:5002  14:03:20             14:23:20             00:10:00  2:2:1789999400:1790000600:5002:0x2021
on air   5    message  "Fire drill"                      14:13:19             14:18:20             2 more    5:17:1789999999:1790000300:normal
waiting  2    stop                                       14:14:10             14:23:20                       2:2:1790000050:1790000600:5002:0x2021
pending  4    file     /srv/a\x1b[2J.ts  239.1.2.3:5004  14:13:20             15:13:20                       4:1:1790000000:1790003600:5004:0x2021  waits for the relay of EPG 2 to end
waiting  3    relay    239.0.0.1:4003    239.1.2.3:5003  14:15:00             14:21:40                       3:2:1790000100:1790000500:5003:0x2021  behind the relay of EPG 2 until 14:23:20; expires before that
waiting  1    relay    239.0.0.1:4001    239.1.2.3:5001  11:26:40             16:13:20                       1:2:1789990000:1790007200:5001:0x2021  preempted, returns when EPG 2 ends
waiting  7    relay    239.0.0.1:4007    239.1.2.3:5007  2026-09-22 14:13:20  2026-09-22 15:13:20            7:2:1790086400:1790090000:5007:0x2021
over     8    file     /srv/b.ts         239.1.2.3:5008  11:26:40             14:28:20                       8:1:1789990000:1790000900:5008:0x2021
)");
    // The longest line of all just fits, or each request takes several.
    EXPECT_EQ(listLines(kView, {209, false, false}).size(), 9u);
    EXPECT_GT(listLines(kView, {208, false, false}).size(), 9u);
    Json few = kView;
    few["requests"] = Json::array({kView["requests"][0], kView["requests"][1]});
    EXPECT_EQ(joined(listLines(few, {80, true, true})),
              "\033[2mSTATE    EPG  KIND   WHAT            FROM      UNTIL     LEFT\033[0m\n"
              "\033[32mon air   2    relay  239.0.0.1:4002  14:03:20  14:23:20  00:10:00\033[0m\n"
              "         to 239.1.2.3:5002  2:2:1789999400:1790000600:5002:0x2021\n"
              "waiting  1    relay  239.0.0.1:4001  11:26:40  16:13:20\n"
              "         to 239.1.2.3:5001  1:2:1789990000:1790007200:5001:0x2021\n"
              "         preempted, returns when EPG 2 ends\n");
    few["requests"] = Json::array();
    EXPECT_EQ(joined(listLines(few, {80, true, true})), "nothing is on air and nothing waits\n");
}

Json event(const char *pszJSON) {
    Json event = Json::parse(R"({"number":12,"time":1790000000,"milliseconds":7,"event":"","request":1,
        "kind":"relay","identity":"ID","start":1790000000,"end":1790003600,
        "source":"239.0.0.1:4000","destination":"239.1.2.3:5000"})");
    event.update(Json::parse(pszJSON));
    return event;
}

TEST_F(ViewText, StatusShowsRateLossBarThreadsAndTheLastFailures) {
    std::vector<Json> events;
    for (int i = 0; i < 6; ++i) {
        events.push_back(event(R"({"event":"failed","reason":"source"})"));
        events.back()["identity"] = "ID" + std::to_string(i);
    }
    events.push_back(event(R"({"event":"ended","reason":"end-time"})"));
    const std::string sStatus = joined(statusLines(kView, events, {80, false, true}));
    EXPECT_EQ(sStatus, R"(since 2026-09-21 13:13:20, for 01:00:00; 9 events

ON AIR
  relay of EPG 2  239.0.0.1:4002 -> 239.1.2.3:5002
    until 14:23:20, left 00:10:00  2:2:1789999400:1790000600:5002:0x2021
    [############------------]  50%
    3800 datagrams/s, 40.0 Mbit/s
    4567 datagrams in all, 3 dropped, 1 not sent, silent for 4 s

MESSAGES
  on air  "Fire drill"
    until 14:18:20, left 2 more  5:17:1789999999:1790000300:normal

WAITING
  1 file, 3 relays, 1 stop

SENT
  announcements: 20 sent, 1 failed, the last at 14:13:10
  broadcasts of messages: 1 sent, 0 failed

THREADS
  Main                      running
  Relay                     failed
  Dead                      does not run

LAST FAILURES
  14:13:20  failed relay ID1  its source cannot be opened
  14:13:20  failed relay ID2  its source cannot be opened
  14:13:20  failed relay ID3  its source cannot be opened
  14:13:20  failed relay ID4  its source cannot be opened
  14:13:20  failed relay ID5  its source cannot be opened
)");

    for (const auto &[ulBytes, pszRate] : {std::pair{1249ul, ", 9992 bit/s\n"},
                                           {1250ul, ", 10 kbit/s\n"},
                                           {1249999ul, ", 9999 kbit/s\n"},
                                           {1250000ul, ", 10.0 Mbit/s\n"}}) {
        Json view = kView;
        view["relay"]["bytes_per_second"] = ulBytes;
        EXPECT_NE(joined(statusLines(view, {}, {80, false, true})).find(pszRate), std::string::npos)
            << pszRate;
    }

    Json playing = kView;
    playing["requests"] = Json::array({kView["requests"][3]});
    playing["requests"][0]["place"] = "on-air";
    playing["relay"].erase("request");
    playing["state"] = Json::parse(R"({"path":"/srv/a\\b","ok":true,"behind":1,"restoring":3,"restored":2})");
    playing["playout"] = Json::parse(
        R"({"request":4,"datagrams":70,"bytes":1,"failed":2,"position_ms":150000,"length_ms":600000,"late":5})");
    EXPECT_EQ(trafficLine(kView, 2),
              "3800 datagrams/s, 40.0 Mbit/s, 4567 datagrams in all, 3 dropped, 1 not sent, "
              "silent for 4 s");
    EXPECT_EQ(trafficLine(kView, 3), "");
    EXPECT_EQ(trafficLine(playing, 4), "at 00:02:30 of 00:10:00, 70 datagrams, 2 not sent, 5 late");
    const std::string sPlaying = joined(statusLines(playing, {}, {80, false, true}));
    EXPECT_EQ(sPlaying.substr(0, sPlaying.find("\n\nMESSAGES")),
              R"(since 2026-09-21 13:13:20, for 01:00:00; 9 events

ON AIR
  file of EPG 4  /srv/a\x1b[2J.ts -> 239.1.2.3:5004
    until 15:13:20, left 00:07:30  4:1:1790000000:1790003600:5004:0x2021
    [######------------------]  25%
    at 00:02:30 of 00:10:00, 70 datagrams, 2 not sent, 5 late)");
    EXPECT_NE(sPlaying.find("\n\nSTATE\n  kept in /srv/a\\\\b, 1 event behind, restored 2 of 3 requests\n\n"),
              std::string::npos)
        << sPlaying;
    Json silent = kView;
    silent["relay"]["silent_since"] = 1789999990u;
    EXPECT_EQ(trafficLine(silent, 2).substr(0, 30), "silent since 14:13:10, 4567 da");
    EXPECT_NE(joined(statusLines(silent, {}, {80, true, true}))
                  .find("\n    \033[31msilent since 14:13:10\033[0m\n"),
              std::string::npos);
}

TEST_F(ViewText, EachEventSaysWhatHappenedAndWhy) {
    const std::pair<const char *, const char *> aCase[] = {
        {R"({"event":"filed","start":1790000060})",
         "filed relay ID  239.0.0.1:4000 -> 239.1.2.3:5000 from 14:14:20 until 15:13:20"},
        {R"({"event":"refused","reason":"incomplete"})",
         "refused relay ID  239.0.0.1:4000 -> 239.1.2.3:5000 until 15:13:20, it is incomplete, or of an "
         "unknown type"},
        {R"({"event":"cancelled","reason":"stop","other":{"kind":"stop","identity":"ID2"}})",
         "cancelled relay ID  by stop ID2"},
        {R"({"event":"expired"})", "expired relay ID"},
        {R"({"event":"preempted","reason":"newer","other":{"kind":"relay","identity":"ID2"},
            "traffic":{"datagrams":1,"bytes":1316,"dropped":2,"failed":3,"silence":4}})",
         "preempted relay ID  for relay ID2, 1 datagram, 1316 bytes, 2 dropped, 3 not sent, silent for 4 s"},
        {R"({"event":"ended","reason":"file-end","traffic":{"datagrams":2,"bytes":1,"late":5,"position_ms":61000,
            "length_ms":61500}})",
         "ended relay ID  the file has ended, 2 datagrams, 1 byte, 5 late, played 00:01:01 of 00:01:01"},
        {R"({"event":"silent"})", "silent relay ID  silent since 14:13:19, nothing comes to 239.0.0.1:4000"},
        {R"({"event":"heard","time":1790000030})", "heard relay ID  heard again after 31 s"},
        {R"({"event":"heard","request":2})", "heard relay ID  heard again"},
        {R"({"event":"current","kind":"message","destination":0,
            "text":"a\nb 3456789012345678901234567890123456789012345678901234567890"})",
         "current message ID  \"a\\nb 345678901234567890123456789012345678901234567890123456…\" until "
         "15:13:20"},
        {R"({"event":"sent","kind":"message","repeats":3,"repeats_left":0})",
         "sent message ID  0 more to come"},
        {R"({"event":"sent","kind":"message","repeats":0,"repeats_left":0})",
         "sent message ID  repeated until 15:13:20"},
        {R"({"event":"done","kind":"stop","reason":"nothing"})", "done stop ID  it found nothing to end"},
        {R"({"event":"new\u001b[2J","reason":"unheard-of"})", "new\\x1b[2J relay ID  unheard-of"},
    };
    EventMemory memory;
    for (const auto &[pszJSON, pszText] : aCase) {
        EXPECT_EQ(eventText(event(pszJSON), &memory), pszText);
    }
    EXPECT_EQ(eventLine(event(R"({"event":"expired"})"), &memory),
              "12  2026-09-21 14:13:20.007  expired relay ID");
    EXPECT_EQ(lostText(1), "1 event is missing here: no longer kept");
    EXPECT_EQ(lostText(2), "2 events are missing here: no longer kept");
}

TEST(ViewJSON, EachKindEachEventAndEachReasonHasItsWord) {
    std::string sWords;
    for (const unsigned long ulCMD : {CAST_CMD_START, CAST_CMD_STOP, CAST_CMD_END}) {
        for (const unsigned long ulType : {0ul, CAST_TYPE_FILE, CAST_TYPE_STREAM, CAST_TYPE_STREAM_2, 4ul}) {
            CASTInfo some{};
            some.ulCMD = ulCMD;
            some.ulCASTType = ulType;
            sWords += std::string(kindOf(some)) + " ";
        }
    }
    EXPECT_EQ(sWords + kindOf(MSGInfo{}),
              "other file relay relay other stop stop stop stop stop other other other other other other");
    sWords.clear();
    const CASTInfo cast{};
    for (unsigned int ui = 1; ui <= PCCAST_REASON_NOTHING; ++ui) {
        PCCASTEvent told{};
        told.uiKind = ui;
        told.uiReason = ui;
        told.pCast = &cast;
        const Json object = eventJSON(told);
        sWords +=
            object.value("event", "") + "; " + object.value("reason", "") + ": " + reasonText(object) + "\n";
    }
    EXPECT_EQ(sWords, R"(filed; end-time: its end time has come
refused; stop: stop
cancelled; newer: newer
expired; source-lost: its source socket failed
dropped; file-end: the file has ended
started; repeats: sent as often as asked
returned; closing: the service closes
preempted; send-failed: it could not be sent
ended; source: its source cannot be opened
failed; destination: its destination cannot be opened
silent; key: it must be decrypted but brings no key
heard; loop: it would feed itself
current; file: the file cannot be opened or played
sent; format: no driver plays its format
replaced; incomplete: it is incomplete, or of an unknown type
finished; memory: memory has run out
done; lock: the lock of its list could not be taken
unknown; nothing: it found nothing to end
)");
}

TEST_F(ViewText, HistoryTellsEachEntryInLinesAndValues) {
    const Json entries = Json::parse(R"([
        {"kind":"relay","epg":1,"identity":"1:2","from":1790000002,"until":1790000003,"duration_ms":1000,
         "event":"preempted","reason":"newer","other":"2:2","source":"239.0.0.1:4000","destination":"239.1.2.3:5000",
         "datagrams":100,"bytes":131600,"failed":3,"dropped":2,"silence":4,"late":0},
        {"kind":"file","epg":2,"identity":"2:1","from":1790000004,"file":"/srv/a,\"\u001b.ts",
         "destination":"239.1.2.3:5001","datagrams":0,"bytes":0,"failed":0,"dropped":0,"silence":0,"late":5},
        {"kind":"file","epg":4,"identity":"4:1","until":1790000005,"event":"expired","reason":"end-time",
         "file":"/srv/b.ts","destination":"239.1.2.3:5001"},
        {"kind":"message","epg":3,"identity":"3:9","from":1790000004,"text":"say \"hi\"","broadcasts":2}])");
    EXPECT_EQ(joined(historyLines(entries)),
              R"(2026-09-21 14:13:22 to 2026-09-21 14:13:23  relay 1:2  239.0.0.1:4000 -> 239.1.2.3:5000
    preempted (newer) by 2:2, 100 datagrams, 131600 bytes, 3 failed, 2 dropped, 4 s silent
2026-09-21 14:13:24 to now  file 2:1  /srv/a,"\x1b.ts -> 239.1.2.3:5001
    on air, 0 datagrams, 0 bytes, 5 late
not on air, 2026-09-21 14:13:25  file 4:1  /srv/b.ts -> 239.1.2.3:5001
    expired (end-time)
2026-09-21 14:13:24 to now  message 3:9  "say "hi""
    lives, 2 broadcasts
)");
    EXPECT_EQ(
        historyCSV(entries[0]) + "\n" + historyCSV(entries[1]),
        R"(relay,1,1:2,1790000002,1790000003,1000,preempted,newer,2:2,239.0.0.1:4000,239.1.2.3:5000,,100,131600,3,2,4,0,,
file,2,2:1,1790000004,,,,,,,239.1.2.3:5001,"/srv/a,""\x1b.ts",0,0,0,0,0,5,,)");
}

} // namespace

// Tests what watch makes of datagrams: literal bytes go in; records, lines, JSON and the table come out.
#include <airdecode.h>
#include <airtext.h>
#include <json.h>
#include <safetext.h>
#include <watchtable.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>

namespace {

// Reads "4b 54 ..." as pairs of hexadecimal digits; blanks separate.
AirRecord decode(std::string sHex) {
    std::erase(sHex, ' ');
    std::vector<unsigned char> data;
    for (size_t i = 0; i + 1 < sHex.size(); i += 2) {
        data.push_back(static_cast<unsigned char>(std::stoul(sHex.substr(i, 2), nullptr, 16)));
    }
    return decodeAir(data.data(), data.size());
}

std::string problemsOf(const AirRecord &record) {
    std::string sAll;
    for (const std::string &sProblem : record.sProblems) {
        sAll += sProblem + "\n";
    }
    return sAll;
}

// The headers of frames without a payload length: an announcement, an end, a message.
const std::string kOnAirFrame = "4b544e46 0200 1c00 d2040000 cc000000 30000400 853bb16a ";
const std::string kEndFrame = "4b544e46 0200 1c00 d2040000 cc000000 33000400 853bb16a ";
const std::string kMessageFrame = "4b544e46 0200 1c00 0e000000 cc000000 20000400 853bb16a ";

// An H.264 stream on air, 67 bytes of payload: programme 7, 1790000000 to 1790003600, sent at 1790000005.
const std::string kOnAirItems = "0107 0400 07000000  1d70 0400 01000000  1c70 0400 02000000 "
                                "1170 0400 803bb16a  1270 0400 9049b16a "
                                "1470 0900 3233392e312e322e33  1770 0200 8813 ";
const std::string kOnAir = kOnAirFrame + "43000000  4c04 0400 904b59d1 " + kOnAirItems;

// An ASF file on air, 63 bytes of payload: programme 8, and the station file "NSC" behind its CRC.
const std::string kAsfFront =
    kOnAirFrame + "3f000000  4c04 0400 03a0f753  0107 0400 08000000 "
                  "1d70 0400 10000000  1c70 0400 03000000  1170 0400 803bb16a  1270 0400 9049b16a ";
const std::string kAsf = kAsfFront + "4d04 0400 656706fb  4f04 0300 4e5343 ";

const std::string kEnd = kEndFrame + "20000000  4c04 0400 f7196474  0107 0400 07000000  1d70 0400 01000000 "
                                     "1c70 0400 02000000 ";
const std::string kMessageFront =
    kMessageFrame + "34000000  4b00 0400 853bb16a  0b00 0400 803bb16a "
                    "0c00 0400 9049b16a  0a50 0200 0100  0350 0400 03000000  0150 0400 01000000 ";
const std::string kMessage = kMessageFront + "0b50 0200 6869 ";

TEST(AirDecoding, WhatDoesNotHoldIsNotedAndTheRestIsRead) {
    const struct {
        const char *pszProblem;
        AirKind eKind;
        std::string sHex;
    } aCase[] = {
        {"not a frame", AIR_BROKEN, ""},
        {"not a frame", AIR_BROKEN, "4b544e46 0200 1c00"},
        {"not a frame", AIR_BROKEN, "4b544e47" + kOnAir.substr(8)},
        {"not a frame", AIR_BROKEN, kOnAir.substr(0, kOnAir.size() - 3)},
        {"neither an announcement nor a message", AIR_UNKNOWN,
         "4b544e46 0200 1c00 d2040000 cd000000 30000400 853bb16a 00000000"},
        {"neither an announcement nor a message", AIR_UNKNOWN,
         "4b544e46 0200 1c00 d2040000 cc000000 20000400 853bb16a 00000000"},
        {"the CRC of the announcement is D1594B91, its bytes give D1594B90", AIR_ANNOUNCEMENT,
         kOnAirFrame + "43000000 4c04 0400 914b59d1" + kOnAirItems},
        {"the CRC of the station file is FC066765", AIR_ANNOUNCEMENT,
         kAsfFront + "4d04 0400 656706fc  4f04 0300 4e5343"},
        {"does not begin with its CRC", AIR_END, kEndFrame + "08000000 0107 0400 07000000"},
        {"the CRC of the announcement has 2 bytes", AIR_END,
         kEndFrame + "0e000000 4c04 0200 f719 0107 0400 07000000"},
        {"without a programme", AIR_BROKEN, kOnAirFrame + "00000000"},
        {"the item at byte 46 does not fit", AIR_BROKEN, kMessageFront + "0b50 0300 6869"},
        {"the item at byte 6 does not fit", AIR_BROKEN, kMessageFrame + "09000000 0b50 0200 6869 0150 04"},
        {"the item at byte 0 does not fit", AIR_BROKEN, kMessageFrame + "0a000000 0b50 ffff ffffffff 6869"},
        {"the end time has 2 bytes, not 4", AIR_MESSAGE,
         kMessageFrame + "0c000000 0c00 0200 9049 0b50 0200 6869"},
        {"a message without a text", AIR_BROKEN, kMessageFrame + "00000000"},
        {"the programme has 1 bytes, not 4\nthe type has 1 bytes, not 4\nthe format has 1 bytes, not 4\n"
         "the start time has 1 bytes, not 4\nthe end time has 1 bytes, not 4\nthe port has 1 bytes, not 2\n",
         AIR_BROKEN,
         kOnAirFrame + "1e000000 0107010001 1d70010001 1c70010001 1170010001 1270010001 1770010001"},
        {"the send time has 1 bytes, not 4\nthe showings has 1 bytes, not 2\n"
         "the attribute 3 has 1 bytes, not 4\nthe attribute 1 has 1 bytes, not 4\n",
         AIR_BROKEN, kMessageFrame + "14000000 4b00010001 0a50010001 0350010001 0150010001"},
    };
    for (const auto &test : aCase) {
        SCOPED_TRACE(test.sHex);
        const AirRecord record = decode(test.sHex);
        EXPECT_EQ(record.eKind, test.eKind);
        EXPECT_NE(problemsOf(record).find(test.pszProblem), std::string::npos) << problemsOf(record);
    }
    EXPECT_EQ(decode(kMessageFront + "0b50 0300 6869").uiET, 1790003600u);
}

TEST(AirText, LinesAndObjectsSayWhatWasHeard) {
    setenv("TZ", "UTC0", 1);
    tzset();
    EXPECT_EQ(
        airLine(decode(kOnAir), 1790000010, "10.0.0.5"),
        "2026-09-21 14:13:30  ON AIR  epg 7  stream  H.264  to 239.1.2.3:5000  from 2026-09-21 14:13:20  "
        "until 2026-09-21 15:13:20  left 00:59:50  crc ok  7:2:1790000000:1790003600:5000:0x2021  by "
        "10.0.0.5");
    EXPECT_EQ(airLine(decode(kEnd), 1790000010, "10.0.0.5"),
              "2026-09-21 14:13:30  ENDED  epg 7  stream  H.264  crc ok  by 10.0.0.5");
    EXPECT_EQ(
        airLine(decode(kOnAirFrame + "20000000  4c04 0400 00000000  0107 0400 07000000  1d70 0400 05000000 "
                                     "1c70 0400 ff000000"),
                1790000010, "10.0.0.5"),
        "2026-09-21 14:13:30  ON AIR  epg 7  type 5  0xff  crc WRONG  by 10.0.0.5  "
        "[the CRC of the announcement is 00000000, its bytes give 036EECF2]");
    EXPECT_EQ(
        airLine(decode(kAsf), 1790003600, "10.0.0.5"),
        "2026-09-21 15:13:20  ON AIR  epg 8  file  ASF  to the station's group  from 2026-09-21 14:13:20  "
        "until 2026-09-21 15:13:20  crc ok  station crc ok  by 10.0.0.5");

    const std::pair<std::string, const char *> aObject[] = {
        {kOnAir,
         R"("kind":"on-air","ident":1234,"service":204,"command":262192,"sent":1790000005,"epg":7,"type":1,)"
         R"("format":2,"start":1790000000,"end":1790003600,"address":"239.1.2.3","port":5000,"crcOk":true,)"
         R"("identity":"7:2:1790000000:1790003600:5000:0x2021"})"},
        {kAsf,
         R"("kind":"on-air","ident":1234,"service":204,"command":262192,"sent":1790000005,"epg":8,"type":16,)"
         R"("format":3,"start":1790000000,"end":1790003600,"crcOk":true,"stationCrcOk":true,"station":"NSC"})"},
        {kEnd,
         R"("kind":"end","ident":1234,"service":204,"command":262195,"sent":1790000005,"epg":7,"type":1,)"
         R"("format":2,"crcOk":true})"},
        {kMessageFront + "0b50 0200 221b",
         R"("kind":"message","ident":14,"service":204,"command":262176,"sent":1790000005,"start":1790000000,)"
         R"("end":1790003600,"messageSent":1790000005,"showings":1,"attribute1":1,"attribute3":3,"text":"\"\u001b"})"},
        {"4b544e46 0200 1c00 0e000000 cc000000 99000400 853bb16a 00000000",
         R"("kind":"unknown","ident":14,"service":204,"command":262297,"sent":1790000005,)"
         R"("problems":["a frame that is neither an announcement nor a message"]})"},
        {"", R"("kind":"broken","problems":["not a frame: shorter than a frame header"]})"},
        {kMessageFrame + "06000000 0b50 0200 41ff",
         R"("kind":"message","ident":14,"service":204,"command":262176,"sent":1790000005,)"
         R"("text":"A\ufffd","textHex":"41ff"})"},
        {kMessageFrame + "0c000000 0c00 0200 9049 0b00 0200 4143",
         R"("kind":"broken","ident":14,"service":204,"command":262176,"sent":1790000005,"problems":[)"
         R"("the end time has 2 bytes, not 4","the start time has 2 bytes, not 4","a message without a text"]})"},
    };
    for (const auto &[sHex, pszObject] : aObject) {
        EXPECT_EQ(airJSON(decode(sHex), 1790000010, "10.0.0.5"),
                  R"({"heard":1790000010,"by":"10.0.0.5",)" + std::string(pszObject));
    }
}

TEST(AirText, ReceivedTextCannotSteerTheTerminal) {
    const struct {
        std::string sText;
        const char *pszTerminal;
        const char *pszJSON;
    } aCase[] = {
        {"plain", "plain", "\"plain\""},
        {"\033[2Jx", "\\x1b[2Jx", "\"\\u001b[2Jx\""},
        {std::string("a\0b", 3), "a\\x00b", "\"a\\u0000b\""},
        {"a\nb\r\t", "a\\nb\\x0d\\x09", "\"a\\nb\\r\\t\""},
        {"\\n\"", "\\\\n\"", "\"\\\\n\\\"\""},
        {"\x7f", "\\u{7f}", "\"\\u007f\""},
        {"\xc2\x9bJ", "\\u{9b}J", "\"\\u009bJ\""},             // the one-character form of ESC [
        {"\x9bJ", "\\x9bJ", "\"\\ufffdJ\""},                   // the same as a lone byte
        {"\xe2\x80\xaexyz", "\\u{202e}xyz", "\"\\u202exyz\""}, // right-to-left override
        {"\xed\x95\x9c\xea\xb8\x80", "\xed\x95\x9c\xea\xb8\x80", "\"\\ud55c\\uae00\""},
        {"\xf0\x9f\x98\x80", "\xf0\x9f\x98\x80", "\"\\ud83d\\ude00\""},
        {"\xe2\x80", "\\xe2\\x80", "\"\\ufffd\""},                        // cut character
        {"\xc0\xaf", "\\xc0\\xaf", "\"\\ufffd\\ufffd\""},                 // written too long
        {"\xed\xa0\x80", "\\xed\\xa0\\x80", "\"\\ufffd\\ufffd\\ufffd\""}, // half of a pair
        {"\xf4\x90\x80\x80", "\\xf4\\x90\\x80\\x80", "\"\\ufffd\\ufffd\\ufffd\\ufffd\""},
    };
    for (const auto &test : aCase) {
        SCOPED_TRACE(test.pszTerminal);
        EXPECT_EQ(textForTerminal(test.sText), test.pszTerminal);
        EXPECT_EQ(writeJSON(test.sText), test.pszJSON);
    }
    EXPECT_EQ(textFront("\xed\x95\x9c", 2), "");
    EXPECT_EQ(textCut("ab", 1) + "|" + textCut("ab", 0), "…|");
    EXPECT_EQ(textCut("abcdef", 6), "abcdef");
    EXPECT_EQ(textCut("abcdefg", 6), "abcde…");
    EXPECT_EQ(textCut("\xed\x95\x9c\xea\xb8\x80\xed\x95\x9c", 5), "\xed\x95\x9c\xea\xb8\x80…");
}

// The drawn lines that contain sText.
std::vector<std::string> drawnWith(const WatchState &state, unsigned long ulNow, const std::string &sText) {
    std::vector<std::string> found;
    for (const std::string &sLine : watchDraw(state, ulNow, WatchWindow{160, 40})) {
        if (sLine.find(sText) != std::string::npos) {
            found.push_back(sLine);
        }
    }
    return found;
}

// The whole table, a line below the other, with ^ for ESC.
std::string table(const WatchState &state, unsigned long ulNow, const WatchWindow &window) {
    std::string sTable;
    for (const std::string &sLine : watchDraw(state, ulNow, window)) {
        sTable += sLine.substr(0, sLine.find_last_not_of(' ') + 1) + "\n";
    }
    std::replace(sTable.begin(), sTable.end(), '\033', '^');
    return sTable;
}

TEST(WatchTable, FollowsACastFromItsAnnouncementToItsEnd) {
    setenv("TZ", "UTC0", 1);
    tzset();
    WatchState state;
    watchNote(&state, decode(kOnAir), 1790000000, "10.0.0.5");
    watchNote(&state, decode(kOnAir), 1790000011, "10.0.0.5");
    EXPECT_EQ(drawnWith(state, 1790000036, "on air, 25 s ago").size(), 1u);
    EXPECT_EQ(drawnWith(state, 1790000037, "silent, 26 s ago").size(), 1u);
    EXPECT_EQ(drawnWith(state, 1790003600, "over").size(), 1u);

    watchNote(&state, decode(kEnd), 1790000050, "10.0.0.6"); // another service's programme 7
    watchNote(&state, decode(kEndFrame + "08000000 0107 0400 07000000"), 1790000050, "10.0.0.5"); // no CRC
    watchNote(&state, decode(kEndFrame + "10000000 4c04 0400 00000000 0107 0400 07000000"), 1790000050,
              "10.0.0.5"); // a wrong one
    watchNote(&state, decode(kMessage), 1790000051, "10.0.0.7");
    EXPECT_EQ(table(state, 1790000052, WatchWindow{170, 30, false, "q ends"}),
              R"(pccast watch   2026-09-21 14:14:12   6 datagrams heard   q ends

ON AIR
  EPG         KIND    FORMAT  DESTINATION            UNTIL     STATE             LEFT      FROM      IDENTITY                                BY
  7           stream  H.264   239.1.2.3:5000         15:13:20  silent, 41 s ago  00:59:08  14:13:20  7:2:1790000000:1790003600:5000:0x2021   10.0.0.5

MESSAGES
  14:14:11  1x    hi

PROBLEMS
  14:14:10  the CRC of the announcement is 00000000, its bytes give 6A699BD6, by 10.0.0.5
  14:14:10  it does not begin with its CRC, by 10.0.0.5
)");
    watchNote(&state, decode(kEnd), 1790000060, "10.0.0.5");
    EXPECT_EQ(table(state, 1790003600, WatchWindow{80, 16, true}),
              R"(pccast watch   2026-09-21 15:13:20   7 datagrams heard

^[1mON AIR^[0m
^[2m  EPG         KIND    FORMAT  DESTINATION            UNTIL     STATE           …^[0m
^[2m  nothing^[0m

^[1mMESSAGES^[0m
^[2m  14:14:11  1x    hi^[0m

^[1mENDED^[0m
^[2m  7           stream  H.264   239.1.2.3:5000         15:13:20  ended 14:14:20  …^[0m

^[1mPROBLEMS^[0m
^[31m  14:14:10  the CRC of the announcement is 00000000, its bytes give 6A699BD6, b…^[0m
^[31m  14:14:10  it does not begin with its CRC, by 10.0.0.5^[0m
)");
}

TEST(WatchTable, ANewerCastTakesTheOlderOnesPlaceWithoutAnEnd) {
    WatchState state;
    watchNote(&state, decode(kOnAir), 1790000000, "10.0.0.5");
    const std::string sForged = kOnAirFrame + "08000000  0107 0400 09000000";
    watchNote(&state, decode(sForged), 1790000005, "10.0.0.5"); // without a CRC it takes no place
    EXPECT_EQ(drawnWith(state, 1790000005, "on air").size(), 1u);
    EXPECT_EQ(drawnWith(state, 1790000005, "no CRC").size(), 1u);
    watchNote(&state, decode(kAsf), 1790000011, "10.0.0.5");
    EXPECT_EQ(drawnWith(state, 1790000011, "on air").size(), 1u);
    EXPECT_NE(drawnWith(state, 1790000011, "on air")[0].find("ASF"), std::string::npos);
    EXPECT_EQ(drawnWith(state, 1790000011, "ended").size(), 2u);
}

TEST(WatchTable, ALongMessageGoesOnInTheFreeRows) {
    setenv("TZ", "UTC0", 1);
    tzset();
    WatchState state;
    AirRecord message = decode(kMessage);
    watchNote(&state, message, 1790000000, "10.0.0.5");
    message.sText =
        "the film begins in ten minutes, please take your seats in the hall " + std::string(200, 'x');
    watchNote(&state, message, 1790000000, "10.0.0.5");
    EXPECT_EQ(table(state, 1790000000, WatchWindow{50, 12}),
              R"(pccast watch   2026-09-21 14:13:20   2 datagrams …

ON AIR
  EPG         KIND    FORMAT  DESTINATION        …
  nothing heard yet (a cast is announced every 11…

MESSAGES
  14:13:20  1x    the film begins in ten minutes,
                  please take your seats in the
                  hall
                  xxxxxxxxxxxxxxxxxxxxxxxxxxxxxxx…
  14:13:20  1x    hi
)");
}

TEST(WatchTable, StaysInsideTheWindowHoweverMuchIsHeard) {
    WatchState state;
    for (unsigned int i = 0; i < 200; ++i) {
        AirRecord message = decode(kMessage);
        message.sText = std::string(300, 'x') + std::to_string(i);
        watchNote(&state, message, 1790000000, "10.0.0.5");
        watchNote(&state, decode(kMessage), 1790000000, "10.0.0.5");
        watchNote(&state, decode(""), 1790000000, "10.0.0.5");
        if (i % 2 == 0) {
            AirRecord ended = decode(kOnAir);
            ended.uiEPGID = i;
            watchNote(&state, ended, 1790000000, "10.0.0.6");
        }
    }
    EXPECT_EQ(drawnWith(state, 1790000000, "200x  hi").size(), 1u);
    EXPECT_EQ(drawnWith(state, 1790000000, "x  hi").size(), 1u);
    EXPECT_EQ(state.messages.size(), 50u);
    // What is on air is shown first, however little room there is.
    watchNote(&state, decode(kOnAir), 1790000000, "10.0.0.5");
    const std::vector<std::string> small = watchDraw(state, 1790000000, WatchWindow{80, 12});
    EXPECT_EQ(small.size(), 12u);
    EXPECT_NE(small.at(4).find("239.1.2.3:5000"), std::string::npos);
    for (const size_t uRows : {1u, 5u, 16u, 24u, 60u}) {
        for (const size_t uColumns : {1u, 20u, 30u, 80u, 200u}) {
            const std::vector<std::string> lines = watchDraw(state, 1790000000, WatchWindow{uColumns, uRows});
            EXPECT_EQ(lines.size(), uRows);
            for (const std::string &sLine : lines) {
                EXPECT_LE(textColumns(sLine), uColumns) << sLine;
            }
        }
    }
    for (const char *pszLeftOut : {"and 36 more", "and 44 more", "and 43 more"}) { // the three last sections
        EXPECT_EQ(drawnWith(state, 1790000000, pszLeftOut).size(), 1u) << pszLeftOut;
    }
}

} // namespace

// What a receiver makes of what it hears: announcements, messages, and the packets of an ASF cast. Nothing
// that does not hold moves the player.
#include "banner.h"
#include "msbjoin.h"
#include "nsc.h"
#include "safetext.h"
#include "sap.h"
#include "tunelogic.h"
#include "wire.h"

#include <gtest/gtest.h>
#include <pccast/msginfo.h>
#include <qxapi.h>

#include <fstream>
#include <iterator>

namespace {

using Bytes = std::string;

Bytes number(unsigned long ulValue, size_t uBytes) {
    Bytes bytes;
    for (size_t i = 0; i < uBytes; ++i) {
        bytes += static_cast<char>(ulValue >> 8 * i);
    }
    return bytes;
}

Bytes item(unsigned short usTag, const Bytes &value) {
    return number(usTag, 2) +
           (value.size() < 0xFFFF ? number(value.size(), 2) : "\xFF\xFF" + number(value.size(), 4)) + value;
}

Bytes frame(unsigned int uiIdent, unsigned int uiCommand, unsigned int uiSent, const Bytes &payload) {
    return "KTNF" + number(2, 2) + number(28, 2) + number(uiIdent, 4) + number(204, 4) +
           number(uiCommand, 4) + number(uiSent, 4) + number(payload.size(), 4) + payload;
}

unsigned int crc(const Bytes &bytes) {
    return qxapi_crc32(0xFFFFFFFFu, reinterpret_cast<const unsigned char *>(bytes.data()), bytes.size());
}

struct Announced {
    unsigned int uiSent = 1000;
    unsigned int uiEPGID = 7;
    unsigned int uiFormat = BCI_FORMAT_H264;
    Bytes sAddress = "239.1.2.3";
    unsigned short usPort = 5000;
    Bytes sStation = {};
    unsigned int uiWrong = 0; // into the CRC
    unsigned int uiStationWrong = 0;
    bool bStationCheck = true;
};

Bytes onAir(const Announced &said) {
    Bytes items = item(0x0701, number(said.uiEPGID, 4)) + item(0x701D, number(1, 4)) +
                  item(0x701C, number(said.uiFormat, 4)) + item(0x7011, number(900, 4)) +
                  item(0x7012, number(5000, 4));
    Bytes sStation;
    if (said.uiFormat == BCI_FORMAT_H264) {
        items += item(0x7014, said.sAddress) + item(0x7017, number(said.usPort, 2));
    } else if (!said.bStationCheck) {
        items += item(1103, said.sStation);
    } else {
        sStation =
            item(1101, number(crc(said.sStation) ^ said.uiStationWrong, 4)) + item(1103, said.sStation);
    }
    return frame(1234, BCI_CMD_ONAIR, said.uiSent,
                 item(1100, number(crc(items) ^ said.uiWrong, 4)) + items + sStation);
}

Bytes ended(unsigned int uiSent, unsigned int uiEPGID) {
    const Bytes items =
        item(0x0701, number(uiEPGID, 4)) + item(0x701D, number(1, 4)) + item(0x701C, number(2, 4));
    return frame(1234, BCI_CMD_END, uiSent, item(1100, number(crc(items), 4)) + items);
}

Bytes message(unsigned int uiSent, const Bytes &sText) {
    return frame(14, PCMBC_CMD_MSG, uiSent,
                 item(0x004B, number(uiSent, 4)) + item(0x000B, number(900, 4)) +
                     item(0x000C, number(5000, 4)) + item(0x500A, number(1, 2)) + item(0x500B, sText));
}

// What the commands are, in words.
std::string words(const std::vector<TuneCommand> &commands) {
    std::string sWords;
    for (const TuneCommand &command : commands) {
        switch (command.eKind) {
        case TUNE_PLAY:
            sWords += "play " + command.cast.sGroup + ":" + std::to_string(command.cast.usPort) + ";";
            break;
        case TUNE_STOP:
            sWords += "stop;";
            break;
        case TUNE_SHOW:
            sWords += "show " + command.page.lines.front() + ";";
            break;
        case TUNE_HIDE:
            sWords += "hide;";
            break;
        }
    }
    return sWords;
}

std::string hear(TuneState *pState, const Bytes &datagram, unsigned long ulNow) {
    return words(tuneHear(
        pState, decodeAir(reinterpret_cast<const unsigned char *>(datagram.data()), datagram.size()), ulNow));
}

Bytes sampleStation() {
    std::ifstream file(PCCAST_SAMPLES "/sample.nsc", std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

TEST(Tune, FollowsTheAnnouncements) {
    TuneState state;
    const struct {
        const char *pszWhat;
        Bytes datagram;
        unsigned long ulNow;
        const char *pszCommands;
    } aStep[] = {
        {"an end without a cast", ended(990, 7), 0, ""},
        {"a cast", onAir({}), 1000, "play 239.1.2.3:5000;"},
        {"doubled", onAir({}), 1001, ""},
        {"repeated", onAir({.uiSent = 1011}), 12'000, ""},
        {"another cast", onAir({.uiSent = 1022, .uiEPGID = 8, .usPort = 5001}), 23'000,
         "play 239.1.2.3:5001;"},
        {"the first one, overtaken", onAir({.uiSent = 1011}), 23'100, ""},
        {"the end of the first one", ended(1023, 7), 24'000, ""},
        {"an overtaken end", ended(1021, 8), 24'100, ""},
        {"the end", ended(1033, 8), 35'000, "stop;"},
        {"announced in the second of its end", onAir({.uiSent = 1033, .uiEPGID = 8}), 35'100, ""},
        {"a service whose clock was set back", onAir({.uiSent = 500}), 40'000, "play 239.1.2.3:5000;"},
    };
    for (const auto &step : aStep) {
        EXPECT_EQ(hear(&state, step.datagram, step.ulNow), step.pszCommands) << step.pszWhat;
    }
    EXPECT_EQ(words(tuneTick(&state, 65'000)), "");
    EXPECT_EQ(words(tuneTick(&state, 65'001)), "stop;") << "announced no more";
    EXPECT_EQ(words(tuneResume(state)), "");
}

TEST(Tune, AnASFCastComesFromItsStation) {
    TuneState state;
    const Bytes sStation = sampleStation();
    ASSERT_FALSE(sStation.empty());
    EXPECT_EQ(hear(&state, onAir({.uiFormat = BCI_FORMAT_ASF, .sStation = sStation}), 0),
              "play 239.192.48.179:8080;");
    ASSERT_EQ(state.cast->formats.size(), 1u);
    EXPECT_EQ(state.cast->formats[0].uiPacketSize, 1400u);
    EXPECT_EQ(words(tuneResume(state)), "play 239.192.48.179:8080;");
    EXPECT_EQ(hear(&state, onAir({.uiFormat = BCI_FORMAT_ASF, .sStation = sStation}), 20'000), "")
        << "repeated";
    EXPECT_EQ(words(tuneTick(&state, 45'000)), "");
    EXPECT_EQ(hear(&state, onAir({.uiEPGID = 8, .uiFormat = BCI_FORMAT_ASF, .sStation = sStation}), 45'000),
              "play 239.192.48.179:8080;");
    EXPECT_EQ(state.cast->formats.size(), 1u);
}

TEST(Tune, WhatDoesNotHoldMovesNothing) {
    NscStation unicast;
    std::string sReason;
    ASSERT_TRUE(nscParse(sampleStation(), unicast, sReason));
    NscStation headless = unicast;
    unicast.sAddress = "10.0.0.1";
    headless.formats[0].header.pop_back();
    std::vector<std::pair<std::string, Bytes>> datagrams{
        {"a wrong CRC", onAir({.uiWrong = 1})},
        {"no port", onAir({.usPort = 0})},
        {"an unknown format", onAir({.uiFormat = 0x3000})},
        {"a wrong station CRC",
         onAir({.uiFormat = BCI_FORMAT_ASF, .sStation = sampleStation(), .uiStationWrong = 1})},
        {"a station without its CRC",
         onAir({.uiFormat = BCI_FORMAT_ASF, .sStation = sampleStation(), .bStationCheck = false})},
        {"a station that is none", onAir({.uiFormat = BCI_FORMAT_ASF, .sStation = "[Address]\r\n"})},
        {"a station that is no group", onAir({.uiFormat = BCI_FORMAT_ASF, .sStation = nscWrite(unicast)})},
        {"a station without a whole header",
         onAir({.uiFormat = BCI_FORMAT_ASF, .sStation = nscWrite(headless)})},
        {"a message without letters", message(1000, " \n\n ")},
    };
    for (const Bytes &sAddress :
         {Bytes("10.0.0.1"), Bytes("0.0.0.0"), Bytes("255.255.255.255"), Bytes("239.1.2.3 --script=/tmp/x"),
          Bytes("239.1.2.3:5000?localaddr=1.2.3.4"), Bytes("/etc/passwd"), Bytes("file:///etc/passwd"),
          Bytes("--input-conf=x"), Bytes("239.1.2.3\0x", 11), Bytes("239.1.2.3\n"), Bytes("0xEF.1.2.3"),
          Bytes("$(id)"), Bytes("\x1b]0;x\a"), Bytes(60'000, 'A'), Bytes()}) {
        datagrams.emplace_back("the address " + sAddress.substr(0, 40), onAir({.sAddress = sAddress}));
    }
    for (const auto &[sWhat, datagram] : datagrams) {
        TuneState fresh;
        EXPECT_EQ(hear(&fresh, datagram, 0), "") << sWhat;
        TuneState tuned;
        hear(&tuned, onAir({.uiEPGID = 3, .usPort = 3}), 0);
        EXPECT_EQ(hear(&tuned, datagram, 10), "") << sWhat;
        EXPECT_EQ(words(tuneTick(&tuned, 25'000)), "") << sWhat;
        EXPECT_EQ(words(tuneTick(&tuned, 25'001)), "stop;") << sWhat << " counts as an announcement";
    }
}

TEST(Tune, AMessageIsShownOnceForAsLongAsReadingTakes) {
    TuneState state;
    EXPECT_EQ(hear(&state, message(1000, "Fire drill at noon"), 0), "show Fire drill at noon;");
    EXPECT_EQ(hear(&state, message(1000, "Fire drill at noon"), 10), "") << "doubled";
    EXPECT_EQ(words(tuneResume(state)), "show Fire drill at noon;");
    EXPECT_EQ(words(tuneTick(&state, 6'799)), "");
    EXPECT_EQ(words(tuneTick(&state, 6'800)), "hide;");
    EXPECT_EQ(hear(&state, message(1011, "Fire drill at noon"), 11'000), "show Fire drill at noon;")
        << "repeated";
    EXPECT_EQ(hear(&state, message(1012, "Leave now"), 12'000), "show Leave now;") << "newer";
    EXPECT_EQ(words(tuneTick(&state, 17'900)), "hide;");
}

TEST(Banner, NoTextSteersThePlayer) {
    const std::vector<BannerPage> pages =
        bannerPages("{\\an8}${path} \\N}\r\n\x1b[2J\xFD\xFE\tback\xE2\x80\xAEwards \\{");
    ASSERT_EQ(pages.size(), 1u);
    const std::vector<std::string> expected{"{\\an8}${path} \\N}",
                                            "\uFFFD[2J\uFFFD\uFFFD back\uFFFDwards \\{"};
    EXPECT_EQ(pages[0].lines, expected);
    std::string sDrawn = bannerDraw(pages[0]);
    EXPECT_TRUE(sDrawn.ends_with("\n{\\an7\\q2\\pos(58,618)\\fs44\\b1\\bord0\\shad0\\1c&HFFFFFF&}"
                                 "\uFFFD[2J\uFFFD\uFFFD back\uFFFDwards \\\u2060\\{"))
        << sDrawn;
    EXPECT_NE(sDrawn.find("}\\{\\\u2060an8}$\\{path} \\\u2060N}\n"), std::string::npos) << sDrawn;
}

TEST(Banner, LongTextsArePagesOfWholeWords) {
    std::string sWords;
    for (int i = 0; i < 100; ++i) {
        sWords += "word" + std::to_string(1000 + i) + " "; // 9 columns, 5 of them to a line
    }
    const std::vector<BannerPage> pages = bannerPages(sWords);
    ASSERT_EQ(pages.size(), 4u);
    EXPECT_EQ(pages[0].lines.size(), 6u);
    EXPECT_EQ(pages[3].lines.size(), 2u);
    EXPECT_EQ(pages[0].lines[1], "word1005 word1006 word1007 word1008 word1009");
    EXPECT_EQ(pages[3].lines[1], "word1095 word1096 word1097 word1098 word1099");

    // No character is cut in two, even where marks without a width make a line of many bytes.
    std::string sMarks = "e";
    for (int i = 0; i < 200; ++i) {
        sMarks += "\xE0\xA5\x80"; // three bytes, so that 192 bytes end in one
    }
    const std::vector<BannerPage> marks = bannerPages(sMarks);
    ASSERT_FALSE(marks.empty());
    for (const std::string &sLine : marks.front().lines) {
        EXPECT_TRUE(isUTF8(sLine)) << sLine;
    }

    EXPECT_EQ(bannerPages(std::string(99, 'A'))[0].lines[0].size(), kBannerColumns);
    for (const std::string &sLong : {std::string(65'000, 'A'), std::string(65'000, '\n') + "x",
                                     std::string(65'000, '\xEA'), std::string(30'000, '\\')}) {
        size_t uLines = 0;
        for (const BannerPage &page : bannerPages(sLong)) {
            uLines += page.lines.size();
        }
        EXPECT_LE(uLines, kBannerPages * kBannerLines) << sLong[0];
    }
}

// A packet of the playout usStream, with its number in its first byte behind the send time.
Bytes packet(unsigned int uiNumber, unsigned short usStream = 1) {
    Bytes data("\x82\0\0\x01\x5D\0\0\0\0\x2E\0", 11);
    data += static_cast<char>(uiNumber);
    data.resize(20);
    return number(uiNumber, 4) + number(usStream, 2) + number(data.size() + 8, 2) + data;
}

TEST(MSBJoin, PutsInOrderWhatTheNetworkMixes) {
    const Bytes kSecond = "a second goes by";
    const struct {
        const char *pszWhat;
        std::vector<Bytes> packets;
        const char *pszPieces;  // H a header, else the packet's number
        const char *pszCounted; // lost, repeated, foreign
    } aCase[] = {
        {"in order", {packet(5), packet(6), packet(7)}, "H 5 6 7", "0 0 0"},
        {"mixed", {packet(0), packet(2), packet(3), packet(1), packet(4)}, "H 0 1 2 3 4", "0 0 0"},
        {"twice", {packet(0), packet(0), packet(2), packet(2), packet(1)}, "H 0 1 2", "0 2 0"},
        {"lost", {packet(0), packet(2), packet(3)}, "H 0 2 3", "1 0 0"},
        {"far ahead", {packet(0), packet(5000)}, "H 0 136", "4999 0 0"},
        {"the number wraps", {packet(0xFFFFFFFF), packet(1), packet(0)}, "H 255 0 1", "0 0 0"},
        {"the next playout",
         {packet(8), kSecond, packet(0, 0x8001), packet(9), packet(1, 0x8001)},
         "H 8 H 0 1",
         "0 0 1"},
        {"begun anew", {packet(900), kSecond, packet(0), packet(1)}, "H 132 H 0 1", "0 0 0"},
        {"somebody else's", {packet(0), packet(7, 0x8001), packet(1), packet(900, 0x8001)}, "H 0 1", "0 0 2"},
        {"of another format",
         {packet(0, 2), packet(0).substr(0, 20), Bytes("\0\0\0", 3), packet(0)},
         "H 0",
         "0 0 3"},
    };
    for (const auto &test : aCase) {
        MSBJoin join;
        join.formats = {{1, 30, "header"}};
        std::vector<MSBPiece> pieces;
        unsigned long ulNow = 10;
        for (const Bytes &bytes : test.packets) {
            if (bytes == kSecond) {
                ulNow += 1000;
            } else {
                msbTake(&join, reinterpret_cast<const unsigned char *>(bytes.data()), bytes.size(), ulNow,
                        &pieces);
            }
        }
        msbTick(&join, ulNow + 99, &pieces);
        msbTick(&join, ulNow + 100, &pieces);
        std::string sPieces;
        for (const MSBPiece &piece : pieces) {
            sPieces += (sPieces.empty() ? "" : " ") +
                       (piece.bBegins ? "H" : std::to_string(static_cast<unsigned char>(piece.sBytes[11])));
            EXPECT_EQ(piece.sBytes.size(), piece.bBegins ? 6u : 30u) << test.pszWhat;
        }
        const MSBCounts &counts = join.counts;
        EXPECT_EQ(sPieces, test.pszPieces) << test.pszWhat;
        EXPECT_EQ(std::to_string(counts.ulLost) + " " + std::to_string(counts.ulRepeated) + " " +
                      std::to_string(counts.ulForeign),
                  test.pszCounted)
            << test.pszWhat;
        EXPECT_TRUE(join.held.empty()) << test.pszWhat;
    }
}

TEST(MSBJoin, CountsAreToldAndStrangersOnlyWhereThereAreSome) {
    MSBCounts counts;
    counts.ulPackets = 1;
    counts.ulLost = 2;
    counts.ulRepeated = 3;
    EXPECT_EQ(msbText(counts), "1 packets, 2 lost, 3 repeated");
    counts.ulForeign = 4;
    EXPECT_EQ(msbText(counts), "1 packets, 2 lost, 3 repeated, 4 not of this station");
}

TEST(Sap, AnnouncesToTheByteAndTakesBackWhatItAnnounced) {
    const SapCast cast{12345, 7, 1790000000, 1790003600, "239.1.2.3", 5000, 5};
    const std::string sDescription = sapDescription(cast, "192.0.2.7");
    EXPECT_EQ(sDescription, "v=0\r\no=- 39989888002345 1 IN IP4 192.0.2.7\r\ns=PCCAST programme 7\r\n"
                            "c=IN IP4 239.1.2.3/5\r\nt=3998988800 3998992400\r\na=tool:pccast\r\n"
                            "a=type:broadcast\r\na=recvonly\r\nm=video 5000 udp 33\r\n"
                            "a=rtpmap:33 MP2T/90000\r\n");
    const unsigned int uiHash = crc(sDescription);
    const Bytes hash{static_cast<char>(uiHash >> 8 | 1), static_cast<char>(uiHash)};
    const Bytes sRest = hash + Bytes("\xC0\0\2\7application/sdp\0", 20);
    EXPECT_EQ(sapPacket(sDescription, "192.0.2.7", false), Bytes("\x20\0", 2) + sRest + sDescription);
    EXPECT_EQ(sapPacket(sDescription, "192.0.2.7", true),
              Bytes("\x24\0", 2) + sRest + "o=- 39989888002345 1 IN IP4 192.0.2.7\r\n");
    EXPECT_EQ(sapPacket("", "", true).size(), 8 + sizeof "application/sdp") << "never described";
}

// Announcements and messages of which a byte is changed, or the end cut off. The frame's send time is left
// alone: no CRC covers it, and a later one makes the announcement of another cast a sound one.
TEST(Tune, NoChangedByteAndNoCutGivesACommandButATextOfAMessage) {
    TuneState state;
    hear(&state, onAir({}), 0);
    unsigned long ulShown = 0;
    const auto tell = [&](const Bytes &bytes) {
        const std::string sSaid = hear(&state, bytes, 0);
        ulShown += sSaid.empty() ? 0 : 1;
        EXPECT_TRUE(sSaid.empty() || sSaid.starts_with("show ")) << sSaid;
        EXPECT_EQ(sSaid.find_first_of("\x1b\n\r\xFD\xFE"), std::string::npos);
    };
    for (const Bytes &source :
         {onAir({}), onAir({.uiSent = 1011, .uiEPGID = 8, .sAddress = "239.9.9.9"}),
          onAir({.uiSent = 1011, .uiFormat = BCI_FORMAT_ASF, .sStation = sampleStation()}), ended(1011, 7),
          message(1000, "Fire drill at noon")}) {
        for (size_t u = 0; u < source.size(); u += u == 19 ? 5 : 1) {
            for (const int iChange : {1, 2, 3, 4, 8, 16, 32, 64, 128, 255}) { // 3: an end's command
                Bytes bytes = source;
                bytes[u] = static_cast<char>(bytes[u] ^ iChange);
                tell(bytes);
            }
        }
        for (size_t uLength = 0; uLength < source.size(); ++uLength) {
            tell(source.substr(0, uLength));
        }
    }
    EXPECT_EQ(words(tuneResume(state)).substr(0, 20), "play 239.1.2.3:5000;");
    EXPECT_GT(ulShown, 100u); // no CRC protects a message: a changed text is a text
}

} // namespace

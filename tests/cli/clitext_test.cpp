// Tests the texts of the command line: what it reads, what it refuses, and with which words.
#include <clitext.h>
#include <fileaccess.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <tuple>

namespace {

// 2026-11-24T20:15:30Z
constexpr unsigned long kNow = 1795551330;

void setZone(const char *pszZone) {
    setenv("TZ", pszZone, 1);
    tzset();
}

TEST(CommandLineText, TimesMeanWhatTheySay) {
    const struct {
        const char *pszZone;
        std::vector<std::pair<const char *, unsigned long>> times;
    } aCase[] = {
        {"UTC0",
         {{"now", kNow},
          {"+30s", kNow + 30},
          {"+1h30m", kNow + 5400},
          {"@1795551330", kNow},
          {"20:15:30", kNow},             // this very second is not tomorrow's
          {"20:15:29", kNow - 1 + 86400}, // passed: the next one
          {"23:00", kNow + 9870},
          {"2026-11-24T20:15:30", kNow},
          {"2026-11-24 20:15", kNow - 30},
          {"2026-11-25T05:15:30+09:00", kNow},
          {"2026-11-24T15:15:30-0500", kNow},
          {"2026-11-25T06:14:30+09:59", kNow},
          {"2106-02-07T06:28:15Z", 4294967295}}},
        {"CET-1CEST,M3.5.0,M10.5.0/3",
         {{"21:15:30", kNow},
          {"2026-11-24T21:15:30", kNow},
          {"2026-11-24T20:15:30Z", kNow},
          {"2026-07-01T12:00:00", 1782900000}}}, // summer time: 10:00 UTC
    };
    for (const auto &test : aCase) {
        setZone(test.pszZone);
        for (const auto &[pszText, ulExpected] : test.times) {
            SCOPED_TRACE(std::string(test.pszZone) + " " + pszText);
            unsigned long ulTime = 0;
            EXPECT_EQ(readTime(pszText, kNow, &ulTime), "");
            EXPECT_EQ(ulTime, ulExpected);
        }
    }
}

TEST(CommandLineText, WhatIsNoTimeIsRefusedWithTheReason) {
    setZone("CET-1CEST,M3.5.0,M10.5.0/3");
    const std::pair<const char *, std::vector<const char *>> aCase[] = {
        {"is not a time",
         {"", "tomorrow", "24:00", "18:60", "18:00:60", "18:00x", "8:00", "@", "@-1", "2026-11-24",
          "2026-11-24T20:15:30Z!", "@99999999999999999999"}},
        {"is not a duration", {"+", "+5x"}},
        {"does not exist in the calendar", {"2026-02-30T12:00", "2026-13-01T12:00Z"}},
        {"does not exist in the calendar of the local time zone", {"2026-03-29T02:30:00"}},
        {"no valid time zone", {"2026-11-24T20:15:30+9", "2026-11-24T20:15:30+15:00"}},
        {"does not fit the 32 bits",
         {"2106-02-07T06:28:16Z", "1969-12-31T23:59:59Z", "@4294967296", "+4294967295s"}}};
    for (const auto &[pszReason, texts] : aCase) {
        for (const char *pszText : texts) {
            unsigned long ulTime = 7;
            const std::string sProblem = readTime(pszText, kNow, &ulTime);
            EXPECT_NE(sProblem.find(pszReason), std::string::npos) << pszText << ": " << sProblem;
            EXPECT_EQ(ulTime, 7u) << pszText;
        }
    }
}

// The reader takes some texts. For each of the others it gives a reason and stores nothing.
void expectNumbers(std::string (*pRead)(std::string_view, unsigned long *),
                   const std::vector<std::pair<const char *, unsigned long>> &taken,
                   const std::vector<const char *> &refused) {
    unsigned long ulNumber = 0;
    for (const auto &[pszText, ulExpected] : taken) {
        EXPECT_EQ(pRead(pszText, &ulNumber), "");
        EXPECT_EQ(ulNumber, ulExpected) << pszText;
    }
    ulNumber = 7;
    for (const char *pszText : refused) {
        EXPECT_NE(pRead(pszText, &ulNumber), "") << pszText;
        EXPECT_EQ(ulNumber, 7u) << pszText;
    }
}

TEST(CommandLineText, DurationsAddUpAndNeverWrapAndFormatsHaveNames) {
    expectNumbers(readDuration,
                  {{"90", 90}, {"30s", 30}, {"1d2h3m4s", 93784}, {"1h30", 3630}, {"4294967295", 4294967295}},
                  {"4294967296", "49711d", "h", "-5s", "5 s", "", "1.5h", "99999999999999999999s"});
    expectNumbers(readFormat, {{"ts", 0x2021}, {"asf", 0x2010}, {"0x2025", 0x2025}, {"8208", 8208}},
                  {"mp4", "0x"});
}

TEST(CommandLineText, TimeLeftKeepsItsWidthBeyondADay) {
    EXPECT_EQ(writeTimeLeft(0), "00:00:00");
    EXPECT_EQ(writeTimeLeft(86399), "23:59:59");
    EXPECT_EQ(writeTimeLeft(86400), "1d 00:00");
    EXPECT_EQ(writeTimeLeft(4294967295), "49710d 06:28");
}

TEST(CommandLineText, AddressesNameWhatIsWrongWithThem) {
    const std::pair<const char *, std::vector<const char *>> aCase[] = {
        {"", {"239.1.2.3:5000", "127.0.0.1:1", "239.1.2.3:65535"}}, // read
        {"has no port", {"239.1.2.3"}},
        {"'' in '239.1.2.3:' is not a port", {"239.1.2.3:"}},
        {"is not a port", {"239.1.2.3:0", "239.1.2.3:65536", "239.1.2.3:5000x"}},
        {"'239.1.2' in '239.1.2:5000' is not an IPv4 address", {"239.1.2:5000"}},
        {"is not an IPv4 address", {"239.1.2.256:5000", "localhost:5000", "[ff02::1]:5000", ":5000"}},
        {"names no target", {"0.0.0.0:5000"}}};
    for (const auto &[pszReason, texts] : aCase) {
        for (const std::string sText : texts) {
            std::string sAddress;
            unsigned short usPort = 0;
            const std::string sProblem = readEndpoint(sText, &sAddress, &usPort);
            EXPECT_EQ(sProblem.empty(), *pszReason == 0) << sText;
            EXPECT_NE(sProblem.find(pszReason), std::string::npos) << sProblem;
            EXPECT_EQ(sProblem.empty() ? sAddress + ":" + std::to_string(usPort) : sText, sText);
        }
    }
}

TEST(CommandLineText, KeysKeepTheirLeadingZerosAndLength) {
    std::vector<unsigned char> key;
    EXPECT_EQ(readKey("00ff0A", &key), "");
    EXPECT_EQ(key, (std::vector<unsigned char>{0x00, 0xFF, 0x0A}));
    for (const char *pszWrong : {"", "0", "0g", "00112233445566778899aabbccddeeff00", "0x11", "+1"}) {
        EXPECT_NE(readKey(pszWrong, &key), "") << pszWrong;
    }
}

TEST(CommandLineText, IdentitiesComeBackWhole) {
    CastIdentity cast{};
    ASSERT_EQ(readCastIdentity("7:2:1790000000:1790003600:5000:0x2021", &cast), "");
    EXPECT_EQ(std::tuple(cast.ulEPGID, cast.ulType, cast.ulST, cast.ulET, cast.usPort, cast.ulFormat),
              std::tuple(7ul, 2ul, 1790000000ul, 1790003600ul, 5000, 0x2021ul));
    EXPECT_EQ(writeCastIdentity(cast), "7:2:1790000000:1790003600:5000:0x2021");
    for (const char *pszWrong : {"", "7:2:1790000000:1790003600:5000", "7:4:1:2:5000:ts", "7:0:1:2:5000:ts",
                                 "7:2:1:2:0:ts", "7:2:1:2:65536:ts", "7:2::2:5000:ts", "7:2:1:2:5000:ts:"}) {
        EXPECT_NE(readCastIdentity(pszWrong, &cast), "") << pszWrong;
    }

    MessageIdentity message{};
    for (const std::string sEnd : {":priority", ":normal", ""}) {
        EXPECT_EQ(readMessageIdentity("1:10:20:30" + sEnd, &message), "");
        EXPECT_EQ(message.ulCT, 10u);
        EXPECT_EQ(writeMessageIdentity(message), "1:10:20:30" + (sEnd.empty() ? ":normal" : sEnd));
    }
    for (const char *pszWrong : {"1:10:20:30:urgent", "1:10:20", "1:10:20:4294967296"}) {
        EXPECT_NE(readMessageIdentity(pszWrong, &message), "") << pszWrong;
    }
}

TEST(CommandLineText, AMistypedWordIsTakenForItsNeighbourAndAnotherWordIsNot) {
    const std::vector<std::string> commands{"serve", "relay", "file", "stop", "message", "watch"};
    const std::pair<const char *, const char *> aCase[] = {
        {"rely", "relay"},   {"realy", "relay"}, {"stpo", "stop"}, {"mesage", "message"}, {"fiel", "file"},
        {"mess", "message"}, {"play", ""},       {"x", ""},        {"halt", ""}};
    for (const auto &[pszWord, pszMeant] : aCase) {
        EXPECT_EQ(nearestWord(pszWord, commands), pszMeant) << pszWord;
    }
}

TEST(FileAccess, AFolderOrFileThatIsShutIsNamed) {
    char folder[] = "/tmp/fileaccess.XXXXXX";
    ASSERT_NE(mkdtemp(folder), nullptr);
    const std::string sFolder = folder;
    const std::string sFile = sFolder + "/film.ts";
    close(open(sFile.c_str(), O_WRONLY | O_CREAT, 0644));
    const struct {
        mode_t uiFolder, uiFile;
        uid_t uiUser;
        std::string sClosed;
    } aCase[] = {{0755, 0644, 54321, ""},    {0711, 0644, 54321, ""},     {0700, 0644, 54321, sFolder},
                 {0755, 0640, 54321, sFile}, {0755, 0600, geteuid(), ""}, {0744, 0644, 54321, sFolder},
                 {0700, 0600, 0, ""}};
    for (const auto &test : aCase) {
        chmod(folder, test.uiFolder);
        chmod(sFile.c_str(), test.uiFile);
        EXPECT_EQ(closedTo(sFile, test.uiUser), test.sClosed) << test.uiFolder << " " << test.uiFile;
    }
    // An access list may let anybody in. This one names a user, beside owner, group, mask and others.
    const unsigned short list[] = {2, 0,      1,      6,  0xFFFF, 0xFFFF, 2,      4,  0, 0,      4,
                                   0, 0xFFFF, 0xFFFF, 16, 4,      0xFFFF, 0xFFFF, 32, 0, 0xFFFF, 0xFFFF};
    if (setxattr(sFile.c_str(), "system.posix_acl_access", list, sizeof list, 0) == 0) {
        chmod(folder, 0711);
        EXPECT_EQ(closedTo(sFile, 54321), "");
    }
    chmod(folder, 0700);
    std::remove(sFile.c_str());
    rmdir(folder);
}

} // namespace

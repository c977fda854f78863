// The texts of the command line: what is read, what is refused and with which words.
#include <clitext.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>

namespace {

// 2026-11-24T20:15:30Z
constexpr unsigned long NOW = 1795551330;

void setZone(const char *pszZone) {
    setenv("TZ", pszZone, 1);
    tzset();
}

TEST(CommandLineText, TimesMeanWhatTheySay) {
    const struct {
        const char *pszZone;
        const char *pszText;
        unsigned long ulExpected;
    } aCase[] = {
        {"UTC0", "now", NOW},
        {"UTC0", "+30s", NOW + 30},
        {"UTC0", "+1h30m", NOW + 5400},
        {"UTC0", "20:15:30", NOW},             // this very second is not tomorrow's
        {"UTC0", "20:15:29", NOW - 1 + 86400}, // passed: the next one
        {"UTC0", "23:00", NOW + 9870},
        {"UTC0", "2026-11-24T20:15:30", NOW},
        {"UTC0", "2026-11-24 20:15", NOW - 30},
        {"CET-1CEST,M3.5.0,M10.5.0/3", "21:15:30", NOW},
        {"CET-1CEST,M3.5.0,M10.5.0/3", "2026-11-24T21:15:30", NOW},
        {"CET-1CEST,M3.5.0,M10.5.0/3", "2026-07-01T12:00:00", 1782900000}, // summer time: 10:00 UTC
        {"CET-1CEST,M3.5.0,M10.5.0/3", "2026-11-24T20:15:30Z", NOW},
        {"UTC0", "2026-11-25T05:15:30+09:00", NOW},
        {"UTC0", "2026-11-24T15:15:30-0500", NOW},
        {"UTC0", "@1795551330", NOW},
        {"UTC0", "2106-02-07T06:28:15Z", 4294967295},
    };
    for (const auto &test : aCase) {
        SCOPED_TRACE(std::string(test.pszZone) + " " + test.pszText);
        setZone(test.pszZone);
        unsigned long ulTime = 0;
        EXPECT_EQ(readTime(test.pszText, NOW, &ulTime), "");
        EXPECT_EQ(ulTime, test.ulExpected);
    }
}

TEST(CommandLineText, WhatIsNoTimeIsRefusedWithTheReason) {
    setZone("CET-1CEST,M3.5.0,M10.5.0/3");
    const struct {
        const char *pszText;
        const char *pszReason;
    } aCase[] = {
        {"", "is not a time"},
        {"tomorrow", "is not a time"},
        {"24:00", "is not a time"},
        {"18:60", "is not a time"},
        {"18:00x", "is not a time"},
        {"8:00", "is not a time"},
        {"+", "is not a duration"},
        {"+5x", "is not a duration"},
        {"@", "is not a time"},
        {"@-1", "is not a time"},
        {"2026-02-30T12:00", "does not exist in the calendar"},
        {"2026-03-29T02:30:00", "does not exist in the calendar of the local time zone"},
        {"2026-13-01T12:00Z", "does not exist in the calendar"},
        {"2026-11-24", "is not a time"},
        {"2026-11-24T20:15:30+9", "no valid time zone"},
        {"2026-11-24T20:15:30Z!", "is not a time"},
        {"2106-02-07T06:28:16Z", "does not fit the 32 bits"},
        {"1969-12-31T23:59:59Z", "does not fit the 32 bits"},
        {"@4294967296", "does not fit the 32 bits"},
        {"+4294967295s", "does not fit the 32 bits"},
        {"@99999999999999999999", "is not a time"},
    };
    for (const auto &test : aCase) {
        SCOPED_TRACE(test.pszText);
        unsigned long ulTime = 7;
        EXPECT_NE(readTime(test.pszText, NOW, &ulTime).find(test.pszReason), std::string::npos)
            << readTime(test.pszText, NOW, &ulTime);
        EXPECT_EQ(ulTime, 7u);
    }
}

TEST(CommandLineText, DurationsAddUpAndNeverWrap) {
    const struct {
        const char *pszText;
        unsigned long ulExpected; // 0: refused
    } aCase[] = {{"90", 90},
                 {"30s", 30},
                 {"1d2h3m4s", 93784},
                 {"4294967295", 4294967295},
                 {"4294967296", 0},
                 {"49711d", 0},
                 {"1h30", 3630},
                 {"h", 0},
                 {"-5s", 0},
                 {"5 s", 0},
                 {"", 0},
                 {"1.5h", 0},
                 {"99999999999999999999s", 0}};
    for (const auto &test : aCase) {
        SCOPED_TRACE(test.pszText);
        unsigned long ulSeconds = 0;
        EXPECT_EQ(readDuration(test.pszText, &ulSeconds).empty(), test.ulExpected != 0);
        EXPECT_EQ(ulSeconds, test.ulExpected);
    }
}

TEST(CommandLineText, TimeLeftKeepsItsWidthBeyondADay) {
    EXPECT_EQ(writeTimeLeft(0), "00:00:00");
    EXPECT_EQ(writeTimeLeft(86399), "23:59:59");
    EXPECT_EQ(writeTimeLeft(86400 + 3660), "1d 01:01");
    EXPECT_EQ(writeTimeLeft(4294967295), "49710d 06:28");
}

TEST(CommandLineText, AddressesNameWhatIsWrongWithThem) {
    const struct {
        const char *pszText;
        const char *pszReason; // empty: read
    } aCase[] = {{"239.1.2.3:5000", ""},
                 {"127.0.0.1:1", ""},
                 {"239.1.2.3:65535", ""},
                 {"239.1.2.3", "has no port"},
                 {"239.1.2.3:", "'' in '239.1.2.3:' is not a port"},
                 {"239.1.2.3:0", "is not a port"},
                 {"239.1.2.3:65536", "is not a port"},
                 {"239.1.2.3:5000x", "is not a port"},
                 {"239.1.2:5000", "'239.1.2' in '239.1.2:5000' is not an IPv4 address"},
                 {"239.1.2.256:5000", "is not an IPv4 address"},
                 {"localhost:5000", "is not an IPv4 address"},
                 {"[ff02::1]:5000", "is not an IPv4 address"},
                 {":5000", "is not an IPv4 address"},
                 {"0.0.0.0:5000", "names no target"}};
    for (const auto &test : aCase) {
        SCOPED_TRACE(test.pszText);
        std::string sAddress;
        unsigned short usPort = 0;
        const std::string sProblem = readEndpoint(test.pszText, &sAddress, &usPort);
        EXPECT_EQ(sProblem.empty(), test.pszReason[0] == '\0');
        EXPECT_NE(sProblem.find(test.pszReason), std::string::npos) << sProblem;
        EXPECT_EQ(sProblem.empty() ? sAddress + ":" + std::to_string(usPort) : test.pszText, test.pszText);
    }
}

TEST(CommandLineText, KeysKeepTheirLeadingZerosAndLength) {
    std::vector<unsigned char> key;
    EXPECT_EQ(readKey("00ff0A", &key), "");
    EXPECT_EQ(key, (std::vector<unsigned char>{0x00, 0xFF, 0x0A}));
    for (const char *pszWrong : {"", "0", "0g", "00112233445566778899aabbccddeeff00", "0x11", "+1"}) {
        SCOPED_TRACE(pszWrong);
        EXPECT_NE(readKey(pszWrong, &key), "");
    }
}

TEST(CommandLineText, FormatsByNameOrNumber) {
    const struct {
        const char *pszText;
        unsigned long ulExpected; // 0: refused
    } aCase[] = {{"ts", 0x2021}, {"asf", 0x2010}, {"0x2025", 0x2025}, {"8208", 8208}, {"mp4", 0}, {"0x", 0}};
    for (const auto &test : aCase) {
        SCOPED_TRACE(test.pszText);
        unsigned long ulFormat = 0;
        EXPECT_EQ(readFormat(test.pszText, &ulFormat).empty(), test.ulExpected != 0);
        EXPECT_EQ(ulFormat, test.ulExpected);
    }
}

TEST(CommandLineText, IdentitiesComeBackWhole) {
    CAST_IDENTITY cast{};
    ASSERT_EQ(readCastIdentity("7:2:1790000000:1790003600:5000:0x2021", &cast), "");
    EXPECT_EQ(cast.ulEPGID, 7u);
    EXPECT_EQ(cast.ulType, 2u);
    EXPECT_EQ(cast.ulST, 1790000000u);
    EXPECT_EQ(cast.ulET, 1790003600u);
    EXPECT_EQ(cast.usPort, 5000u);
    EXPECT_EQ(cast.ulFormat, 0x2021u);
    EXPECT_EQ(writeCastIdentity(cast), "7:2:1790000000:1790003600:5000:0x2021");
    for (const char *pszWrong : {"", "7:2:1790000000:1790003600:5000", "7:4:1:2:5000:ts", "7:0:1:2:5000:ts",
                                 "7:2:1:2:0:ts", "7:2:1:2:65536:ts", "7:2::2:5000:ts", "7:2:1:2:5000:ts:"}) {
        EXPECT_NE(readCastIdentity(pszWrong, &cast), "") << pszWrong;
    }

    const struct {
        const char *pszText;
        bool bPriority;
        const char *pszWritten; // empty: refused
    } aMessage[] = {{"1:10:20:30:priority", true, "1:10:20:30:priority"},
                    {"1:10:20:30:normal", false, "1:10:20:30:normal"},
                    {"1:10:20:30", false, "1:10:20:30:normal"},
                    {"1:10:20:30:urgent", false, ""},
                    {"1:10:20", false, ""},
                    {"1:10:20:4294967296", false, ""}};
    for (const auto &test : aMessage) {
        SCOPED_TRACE(test.pszText);
        MESSAGE_IDENTITY message{};
        const std::string sProblem = readMessageIdentity(test.pszText, &message);
        EXPECT_EQ(sProblem.empty(), test.pszWritten[0] != '\0') << sProblem;
        EXPECT_EQ(message.bPriority, test.bPriority);
        EXPECT_EQ(sProblem.empty() ? writeMessageIdentity(message) : "", test.pszWritten);
    }
}

} // namespace

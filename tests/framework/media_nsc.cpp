// Tests of station files: the public encoding, what is read and written, and what is refused.
#include "media_files.h"
#include "nsc.h"

namespace {

constexpr char kAddress[] = "020G000000000UCW0p03a0BW0n03a0CW0k03G0E00k0340Dm0v0000"; // 239.192.48.179
constexpr char kVersion[] = "029G0000000008Cm0k0300000";                              // 3.0

std::string format(unsigned int uiFormatID) {
    return nscEncode({uiFormatID, {'A', 'S', 'F'}});
}

std::string station(const std::string &sAddress, const std::string &sPort, const std::string &sFormats) {
    return "[Address]\r\nIP Address=" + sAddress + "\r\nIP Port=" + sPort + "\r\n[Formats]\r\n" + sFormats +
           "\r\n";
}

} // namespace

TEST(MediaNsc, EncodingIsThePublicOne) {
    for (const auto &[pszText, pszPlain] : {std::pair{kAddress, "239.192.48.179"}, {kVersion, "3.0"}}) {
        std::vector<unsigned char> data; // UTF-16, terminated
        for (const char c : std::string(pszPlain) + '\0') {
            data.insert(data.end(), {static_cast<unsigned char>(c), 0});
        }
        NscValue value;
        std::string sReason;
        ASSERT_TRUE(nscDecode(pszText, value, sReason)) << sReason;
        EXPECT_EQ(value.data, data);
        EXPECT_EQ(value.uiKey, 0U);
        EXPECT_EQ(nscEncode({0, data}), std::string(pszText));
    }
    // Key 0x123, three bytes, check byte 01^23^03^41^53^46 = 75: 75 00000123 00000003 415346.
    EXPECT_EQ(nscEncode({0x123, {'A', 'S', 'F'}}), "02TG000IC00003GLD6");
}

TEST(MediaNsc, PlainTextsBareLineEndsAndUnknownLinesAreRead) {
    NscStation station;
    std::string sReason;
    ASSERT_TRUE(nscParse(
        "[Address]\nName=News\nNSC Format Version=3.0\nIP Address = 239.192.48.179\n IP Port\t=\t0x1f90 \r\n"
        "Time To Live= 0x00000007\nUnknown=0\n\n[Formats]\nFormat3=" +
            format(9) + "\nDescription3 =low\n[Other]\nanything=1\n",
        station, sReason))
        << sReason;
    EXPECT_EQ(station.sName, "News");
    EXPECT_EQ(station.sVersion, "3.0");
    EXPECT_EQ(station.sAddress, "239.192.48.179");
    EXPECT_EQ(station.usPort, 8080);
    EXPECT_EQ(station.iHops, 7);
    ASSERT_EQ(station.formats.size(), 1U);
    EXPECT_EQ(station.formats[0].uiFormatID, 9U);
    EXPECT_EQ(station.formats[0].sDescription, "low");
    EXPECT_EQ(station.formats[0].header, (std::vector<unsigned char>{'A', 'S', 'F'}));
    EXPECT_EQ(nscFindFormat(station, 0), &station.formats[0]);
    EXPECT_EQ(nscFindFormat(station, 3), &station.formats[0]);
    EXPECT_EQ(nscFindFormat(station, 1), nullptr);
}

TEST(MediaNsc, StationIsWrittenWhole) {
    NscStation station;
    station.sName = "\xC3\xA9"; // e with acute accent: 00E9
    station.sAddress = "239.192.48.179";
    station.usPort = 8080;
    station.iHops = 7;
    station.formats = {{1, 0x123, {'A', 'S', 'F'}, ""}, {12, 0x123, {'A', 'S', 'F'}, "3.0"}};
    // The name: key 0, four bytes E9 00 00 00, check byte 04^E9 = ED.
    EXPECT_EQ(nscWrite(station),
              std::string("[Address]\r\nName=02xG0000000004wG0000\r\nNSC Format Version=") + kVersion +
                  "\r\nIP Address=" + kAddress +
                  "\r\nIP Port=0x00001F90\r\nTime To Live=0x00000007\r\n[Formats]\r\n"
                  "Format1=02TG000IC00003GLD6\r\nFormat12=02TG000IC00003GLD6\r\n"
                  "Description12=" +
                  kVersion + "\r\n");
}

// The name of a written station, in UTF-16, and what is read of it again.
TEST(MediaNsc, TextsOfEveryLengthAreWrittenAndReadAgain) {
    using Units = std::vector<unsigned int>;
    const struct {
        std::string sText;
        Units units;
        std::string sRead;
    } aCase[] = {
        {"\x01\x7F", {0x01, 0x7F}, "\x01\x7F"},
        {"\xC2\x80\xDF\xBF", {0x80, 0x7FF}, "\xC2\x80\xDF\xBF"},
        {"\xE0\xA0\x80\xE1\x88\xB4\xEF\xBF\xBF",
         {0x800, 0x1234, 0xFFFF},
         "\xE0\xA0\x80\xE1\x88\xB4\xEF\xBF\xBF"},
        {"\xF0\x90\x80\x80\xF4\x8F\xBF\xBF",
         {0xD800, 0xDC00, 0xDBFF, 0xDFFF},
         "\xF0\x90\x80\x80\xF4\x8F\xBF\xBF"},
        {"\x80x\xC1\xBF\xF5\x80", {'?', 'x', '?', '?', '?', '?'}, "?x????"},               // no leads
        {"\xC2x\xE2\x82", {'?', 'x', '?', '?'}, "?x??"},                                   // cut short
        {"\xED\xA0\x80x\xED\xBF\xBF", {0xD800, 'x', 0xDFFF}, "\xEF\xBF\xBDx\xEF\xBF\xBD"}, // half pairs
        {"\xED\xAF\xBF\xEE\x80\x80", {0xDBFF, 0xE000}, "\xEF\xBF\xBD\xEE\x80\x80"},
        {std::string("a\0b", 3), {'a', 0, 'b'}, "a"},
    };
    for (std::size_t ul = 0; ul < std::size(aCase); ul++) {
        NscStation written{aCase[ul].sText, "", "239.1.1.1", 1, 255, {{9999, 2047, {'A'}, ""}}}, read;
        const std::string sText = nscWrite(written);
        const std::size_t ulValue = sText.find("Name=") + 5;
        NscValue value;
        std::string sReason;
        ASSERT_TRUE(nscDecode(sText.substr(ulValue, sText.find('\r', ulValue) - ulValue), value, sReason));
        Units units;
        for (std::size_t ulAt = 0; ulAt + 2 < value.data.size(); ulAt += 2) {
            units.push_back(value.data[ulAt] | static_cast<unsigned int>(value.data[ulAt + 1]) << 8);
        }
        EXPECT_EQ(units, aCase[ul].units) << "row " << ul;
        ASSERT_TRUE(nscParse(sText, read, sReason)) << sReason;
        EXPECT_EQ(read.sName, aCase[ul].sRead) << "row " << ul;
        EXPECT_EQ(read.iHops, 255);
        EXPECT_EQ(nscFindFormat(read, 9999)->uiFormatID, 2047U);
    }
}

TEST(MediaNsc, FileIsReadUpToItsLimit) {
    const std::string sStation = station("239.1.1.1", "0xFFFF", "Format1=" + format(1));
    const MemoryFile whole(sStation + std::string(kNscFileMax - sStation.size(), '\n')),
        larger(sStation + std::string(kNscFileMax + 1 - sStation.size(), '\n'));
    for (const auto &[sPath, pszReason] : {std::pair<std::string, const char *>{whole.sPath, ""},
                                           {larger.sPath, "it is larger than a station file can be"},
                                           {"/nowhere", "it cannot be opened: No such file or directory"},
                                           {"/proc/self/mem", "it cannot be read: Input/output error"}}) {
        NscStation read;
        std::string sReason;
        EXPECT_EQ(nscRead(sPath.c_str(), read, sReason), *pszReason == 0);
        EXPECT_EQ(sReason, pszReason);
        EXPECT_EQ(read.usPort, *pszReason == 0 ? 0xFFFF : 0);
    }
    // A writer may fill the last four characters up with zeros.
    NscValue value;
    std::string sReason;
    const std::string sEncoded = nscEncode({0x123, {'A', 'S', 'F'}});
    EXPECT_TRUE(nscDecode(sEncoded + "000", value, sReason)) << sReason;
    EXPECT_EQ(value.data, (std::vector<unsigned char>{'A', 'S', 'F'}));
    EXPECT_FALSE(nscDecode(sEncoded + "0000", value, sReason));
    EXPECT_TRUE(nscDecode(nscEncode({7, {}}), value, sReason)) << sReason;
    EXPECT_EQ(value.uiKey, 7U);
}

TEST(MediaNsc, LiesAreRefusedWithTheirLine) {
    const std::string sFormat = "Format1=" + format(1);
    std::string sManyFormats;
    for (int i = 1; i <= 65; i++) {
        sManyFormats += "Format" + std::to_string(i) + "=" + format(1) + "\n";
    }
    std::string sWrongCheck = sFormat;
    sWrongCheck[10] = sWrongCheck[10] == '0' ? '1' : '0';
    const auto formats = [](const std::string &sFormats) { return station("239.1.1.1", "0x1", sFormats); };
    const auto address = [&](const char *pszAddress) { return station(pszAddress, "0x1", sFormat); };
    const auto port = [&](const char *pszPort) { return station("239.1.1.1", pszPort, sFormat); };
    const std::pair<const char *, std::string> aCase[] = {
        {"line 1 is not of a station file", "GIF89a"},
        {"line 1 is not of a station file", "IP Address=239.1.1.1\n"},
        {"line 2, Name: an encoded value's check byte is wrong",
         "[Address]\nName=021G000000000UCW0p03a0BW0n03a0CW0k03G0E00k0340Dm0v0000\n"},
        {"it names no IP Address", "[Address]\nIP Port=0x1\n[Formats]\n" + sFormat},
        {"it names no IP Port", port("0x0")},
        {"it holds no format", formats("")},
        {"it holds no format", formats("Description1=none")},
        {"line 2, IP Address: \"news.example\" is no IPv4 address to send to", address("news.example")},
        {"line 2, IP Address: \"0.0.0.0\" is no IPv4 address to send to", address("0.0.0.0")},
        {"line 2, IP Address: an encoded value's check byte is wrong",
         address("021G000000000UCW0p03a0BW0n03a0CW0k03G0E00k0340Dm0v0000")},
        {"line 2, IP Address: an encoded value says that it has 30 bytes, and has 10",
         address("020G000000000UCW0p03a0BW0n03")},
        {"line 3, IP Port: \"0x10000\" is no number from 0x0 to the most allowed, 65535", port("0x10000")},
        {"line 3, IP Port: \"8080\" is no number from 0x0 to the most allowed, 65535", port("8080")},
        {"line 3, IP Port: \"0x123456789\" is no number from 0x0 to the most allowed, 65535",
         port("0x123456789")},
        {"line 3, Time To Live: \"0x100\" is no number from 0x0 to the most allowed, 255",
         "[Address]\nName=x\nTime To Live=0x100\n"},
        {"line 3, IP Port: \"0x\" is no number from 0x0 to the most allowed, 65535", port("0x")},
        {"line 3, IP Port: \"00\" is no number from 0x0 to the most allowed, 65535", port("00")},
        {"line 3, IP Port: \"0y10\" is no number from 0x0 to the most allowed, 65535", port("0y10")},
        {"line 3, IP Port: \"0x1g\" is no number from 0x0 to the most allowed, 65535", port("0x1g")},
        {"line 5, Format1: an encoded value's check byte is wrong", formats(sWrongCheck)},
        {"line 5, Format10000: the format has no number", formats("Format10000=" + format(1))},
        {"line 5, Format1: an encoded value begins with 02", formats("Format1=0123")},
        {"line 5, Format1: an encoded value is cut short", formats("Format1=02000000")},
        {"line 5, Format1: an encoded value has a character that is not of its alphabet",
         formats("Format1=02-0000000000000")},
        {"line 5, Format1: an encoded value says that it has 1039654781 bytes, and has 3",
         formats("Format1=020000000zzzzz0000")},
        {"line 5, Format1: the Format ID 2048 is above 2047", formats("Format1=" + format(2048))},
        {"line 5, Formatx: the format has no number", formats("Formatx=" + format(1))},
        {"line 69, Format65: there are more than 64 formats", formats(sManyFormats)},
    };
    for (const auto &[pszReason, sText] : aCase) {
        NscStation station;
        std::string sReason;
        EXPECT_FALSE(nscParse(sText, station, sReason)) << pszReason;
        EXPECT_EQ(sReason, pszReason);
    }
}

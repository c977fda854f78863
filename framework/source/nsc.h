// nsc.h - reads and writes the station file (NSC) of a Media Stream Broadcast: its address and its formats.
//
// Used by the ASF caster and by the station tool. No state. The file is ASCII text in two sections,
// [Address] and [Formats], with lines of Name=value. An integer is 0x and hexadecimal digits. A text is
// plain or encoded; binary data is always encoded. An encoded value is "02" and characters of six bits
// each. These bits hold a check byte, a key, a length and the data.
#ifndef FRAMEWORK_NSC_H
#define FRAMEWORK_NSC_H

#include <string>
#include <vector>

constexpr std::size_t kNscFileMax = std::size_t{2} * 1024 * 1024; // a larger file is refused
constexpr std::size_t kNscFormatsMax = 64;
constexpr unsigned int kNscFormatIdMax = 0x7FF; // a Format ID has eleven bits

// An encoded value, decoded.
struct NscValue {
    unsigned int uiKey = 0; // the Format ID for an ASF header, else 0
    std::vector<unsigned char> data;
};

struct NscFormat {
    unsigned int uiIndex = 0; // N of FormatN
    unsigned int uiFormatID = 0;
    std::vector<unsigned char> header; // the ASF header and the head of the data object
    std::string sDescription;          // UTF-8
};

struct NscStation {
    std::string sName; // UTF-8
    std::string sVersion;
    std::string sAddress; // IPv4, checked
    unsigned short usPort = 0;
    int iHops = -1; // Time To Live, -1 none
    std::vector<NscFormat> formats;
};

// Decodes an encoded value. Returns false and the reason if the text is not encoded, or if its length or
// check byte is wrong.
bool nscDecode(const std::string &sText, NscValue &value, std::string &sReason);
std::string nscEncode(const NscValue &value);

// Reads a station file's text. Ignores lines with unknown names. Returns false and the reason, with the
// line's number, if the text cannot be used.
bool nscParse(const std::string &sText, NscStation &station, std::string &sReason);

// Reads a station file. Returns as nscParse.
bool nscRead(const char *pszFile, NscStation &station, std::string &sReason);

// Returns the text of a station file: lines that end with CRLF, all texts and binary data encoded.
std::string nscWrite(const NscStation &station);

// Returns a format of the station: the first for uiFormatIndex 0, else FormatN for N. Returns null if there
// is none.
const NscFormat *nscFindFormat(const NscStation &station, unsigned int uiFormatIndex);

#endif

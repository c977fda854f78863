// nsc.h - the station file (NSC) of a Media Stream Broadcast: what is sent where, and in which formats.
//
// Used by the ASF caster and by the station tool. No state. The file is ASCII text of two sections, [Address]
// and [Formats], with lines of Name=value: integers as 0x and hexadecimal digits, texts plain or encoded,
// binaries encoded. Encoded is "02" and characters of six bits each; decoded, a check byte, a key, a length
// and the data.
#ifndef FRAMEWORK_NSC_H
#define FRAMEWORK_NSC_H

#include <string>
#include <vector>

constexpr std::size_t kNscFileMax = 2 * 1024 * 1024; // bytes of a station file that are read
constexpr std::size_t kNscFormatsMax = 64;
constexpr unsigned int kNscFormatIdMax = 0x7FF; // a Format ID has eleven bits

// A value before it is encoded, or decoded.
struct NscValue {
    unsigned int uiKey = 0; // the Format ID of an ASF header, else 0
    std::vector<unsigned char> data;
};

struct NscFormat {
    unsigned int uiIndex = 0; // N of FormatN
    unsigned int uiFormatID = 0;
    std::vector<unsigned char> header; // the ASF header, with the head of the data object
    std::string sDescription;          // UTF-8
};

struct NscStation {
    std::string sName; // UTF-8
    std::string sVersion;
    std::string sAddress; // IPv4, checked
    unsigned short usPort = 0;
    int iHops = -1; // Time To Live, -1 when it names none
    std::vector<NscFormat> formats;
};

// Decodes an encoded value. Returns false and the reason when it is none, or lies about itself.
bool nscDecode(const std::string &sText, NscValue &value, std::string &sReason);
std::string nscEncode(const NscValue &value);

// Reads a station file's text. Returns false and the reason, with the line's number, when it cannot be used;
// lines with names that are not known are passed over.
bool nscParse(const std::string &sText, NscStation &station, std::string &sReason);

// The same from a file.
bool nscRead(const char *pszFile, NscStation &station, std::string &sReason);

// Returns the station file's text: CRLF lines, texts and binaries encoded.
std::string nscWrite(const NscStation &station);

// Returns the format that uiFormatIndex names: 0 the first one, else FormatN; null when there is none.
const NscFormat *nscFindFormat(const NscStation &station, unsigned int uiFormatIndex);

#endif

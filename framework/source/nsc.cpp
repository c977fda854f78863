#include "nsc.h"

#include "casttarget.h"
#include "filewindow.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <string_view>
#include <unistd.h>

namespace {

constexpr std::string_view kAlphabet = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz{}";
constexpr std::string_view kEncodedMark = "02";
constexpr std::size_t kValueHeadSize = 9; // check byte, key, length

unsigned int big32(const unsigned char *p) {
    return static_cast<unsigned int>(p[0]) << 24 | static_cast<unsigned int>(p[1]) << 16 |
           static_cast<unsigned int>(p[2]) << 8 | p[3];
}

void appendBig32(std::vector<unsigned char> &bytes, std::size_t ulValue) {
    for (const unsigned int uiShift : {24U, 16U, 8U, 0U}) {
        bytes.push_back(static_cast<unsigned char>(ulValue >> uiShift));
    }
}

unsigned char checkByte(const unsigned char *p, std::size_t ulLength) {
    unsigned char ucCheck = 0;
    for (std::size_t ul = 0; ul < ulLength; ul++) {
        ucCheck = static_cast<unsigned char>(ucCheck ^ p[ul]);
    }
    return ucCheck;
}

void appendUTF8(std::string &sText, unsigned int uiCode) {
    if (uiCode < 0x80) {
        sText += static_cast<char>(uiCode);
        return;
    }
    const unsigned int uiMore = uiCode < 0x800 ? 1 : uiCode < 0x10000 ? 2 : 3;
    constexpr unsigned int kLead[] = {0, 0xC0, 0xE0, 0xF0};
    sText += static_cast<char>(kLead[uiMore] | uiCode >> 6 * uiMore);
    for (unsigned int ui = uiMore; ui > 0; ui--) {
        sText += static_cast<char>(0x80 | (uiCode >> 6 * (ui - 1) & 0x3F));
    }
}

// Converts UTF-16LE up to its terminating zero to UTF-8. Half a surrogate pair becomes the replacement
// character.
std::string textOf(const std::vector<unsigned char> &data) {
    constexpr unsigned int kReplacement = 0xFFFD;
    const auto unitAt = [&](std::size_t ul) {
        return data[ul] | static_cast<unsigned int>(data[ul + 1]) << 8;
    };
    std::string sText;
    for (std::size_t ul = 0; ul + 1 < data.size(); ul += 2) {
        unsigned int uiCode = unitAt(ul);
        if (uiCode == 0) {
            break;
        }
        if (uiCode >= 0xD800 && uiCode < 0xDC00 && ul + 3 < data.size() &&
            (unitAt(ul + 2) & 0xFC00) == 0xDC00) {
            uiCode = 0x10000 + ((uiCode & 0x3FF) << 10 | (unitAt(ul + 2) & 0x3FF));
            ul += 2;
        } else if (uiCode >= 0xD800 && uiCode < 0xE000) {
            uiCode = kReplacement;
        }
        appendUTF8(sText, uiCode);
    }
    return sText;
}

// Converts UTF-8 to UTF-16LE with a terminating zero. Bytes that are no UTF-8 become question marks.
NscValue valueOf(const std::string &sText) {
    NscValue value;
    const auto append = [&](unsigned int uiUnit) {
        value.data.push_back(static_cast<unsigned char>(uiUnit));
        value.data.push_back(static_cast<unsigned char>(uiUnit >> 8));
    };
    for (std::size_t ul = 0; ul < sText.size();) {
        const unsigned char ucLead = static_cast<unsigned char>(sText[ul++]);
        const unsigned int uiMore = ucLead < 0x80   ? 0
                                    : ucLead < 0xC2 ? 4
                                    : ucLead < 0xE0 ? 1
                                    : ucLead < 0xF0 ? 2
                                    : ucLead < 0xF5 ? 3
                                                    : 4;
        unsigned int uiCode = uiMore == 0 ? ucLead : ucLead & (0x3FU >> uiMore);
        unsigned int uiTaken = 0;
        while (uiMore < 4 && uiTaken < uiMore && ul + uiTaken < sText.size() &&
               (sText[ul + uiTaken] & 0xC0) == 0x80) {
            uiCode = uiCode << 6 | (static_cast<unsigned char>(sText[ul + uiTaken++]) & 0x3FU);
        }
        if (uiMore > 3 || uiTaken < uiMore) {
            append('?');
            continue;
        }
        ul += uiMore;
        if (uiCode >= 0x10000) {
            append(0xD800 + (((uiCode - 0x10000) >> 10) & 0x3FF));
            append(0xDC00 + (uiCode & 0x3FF));
        } else {
            append(uiCode);
        }
    }
    append(0);
    return value;
}

bool looksEncoded(const std::string &sText) {
    return sText.size() >= 2 + kValueHeadSize * 8 / 6 && sText.starts_with(kEncodedMark) &&
           sText.find_first_not_of(kAlphabet, 2) == std::string::npos;
}

std::string withoutBlanks(const std::string &sText) {
    constexpr const char *kBlanks = " \t\r";
    const std::size_t ulFirst = sText.find_first_not_of(kBlanks);
    return ulFirst == std::string::npos
               ? ""
               : sText.substr(ulFirst, sText.find_last_not_of(kBlanks) - ulFirst + 1);
}

// Reads a text, plain or encoded.
bool readText(const std::string &sText, std::string &sOut, std::string &sReason) {
    NscValue value;
    if (looksEncoded(sText)) {
        if (!nscDecode(sText, value, sReason)) {
            return false;
        }
        sOut = textOf(value.data);
    } else {
        sOut = sText;
    }
    return true;
}

bool readInteger(const std::string &sText, unsigned int uiMost, unsigned int &uiOut, std::string &sReason) {
    unsigned long ulValue = 0;
    const bool bForm =
        sText.size() >= 3 && sText.size() <= 10 && sText[0] == '0' && (sText[1] == 'x' || sText[1] == 'X') &&
        std::all_of(sText.begin() + 2, sText.end(), [](unsigned char c) { return std::isxdigit(c); });
    if (bForm) {
        ulValue = std::stoul(sText, nullptr, 16);
    }
    if (!bForm || ulValue > uiMost) {
        sReason = "\"" + sText.substr(0, 20) + "\" is no number from 0x0 to the most allowed, " +
                  std::to_string(uiMost);
        return false;
    }
    uiOut = static_cast<unsigned int>(ulValue);
    return true;
}

// Returns the format that a line names by its number. Adds it if no line before named it.
NscFormat *formatOf(NscStation &station, const std::string &sDigits, std::string &sReason) {
    if (sDigits.empty() || sDigits.size() > 4 ||
        !std::all_of(sDigits.begin(), sDigits.end(), [](unsigned char c) { return std::isdigit(c); })) {
        sReason = "the format has no number";
        return nullptr;
    }
    const unsigned int uiIndex = static_cast<unsigned int>(std::stoul(sDigits));
    for (NscFormat &format : station.formats) {
        if (format.uiIndex == uiIndex) {
            return &format;
        }
    }
    if (station.formats.size() >= kNscFormatsMax) {
        sReason = "there are more than " + std::to_string(kNscFormatsMax) + " formats";
        return nullptr;
    }
    station.formats.emplace_back().uiIndex = uiIndex;
    return &station.formats.back();
}

bool readAddressLine(const std::string &sName, const std::string &sValue, NscStation &station,
                     std::string &sReason) {
    unsigned int uiValue = 0;
    if (sName == "Name") {
        return readText(sValue, station.sName, sReason);
    }
    if (sName == "NSC Format Version") {
        return readText(sValue, station.sVersion, sReason);
    }
    if (sName == "IP Address") {
        return readText(sValue, station.sAddress, sReason) &&
               castTargetCheckAddress(station.sAddress, sReason);
    }
    if (sName == "IP Port") {
        if (!readInteger(sValue, 0xFFFF, uiValue, sReason)) {
            return false;
        }
        station.usPort = static_cast<unsigned short>(uiValue);
    }
    if (sName == "Time To Live") {
        if (!readInteger(sValue, 255, uiValue, sReason)) {
            return false;
        }
        station.iHops = static_cast<int>(uiValue);
    }
    return true;
}

bool readFormatLine(const std::string &sName, const std::string &sValue, NscStation &station,
                    std::string &sReason) {
    constexpr std::string_view kFormat = "Format";
    constexpr std::string_view kDescription = "Description";
    const bool bFormat = sName.starts_with(kFormat);
    if (!bFormat && !sName.starts_with(kDescription)) {
        return true;
    }
    NscFormat *pFormat =
        formatOf(station, sName.substr(bFormat ? kFormat.size() : kDescription.size()), sReason);
    if (!pFormat) {
        return false;
    }
    if (!bFormat) {
        return readText(sValue, pFormat->sDescription, sReason);
    }
    NscValue value;
    if (!nscDecode(sValue, value, sReason)) {
        return false;
    }
    if (value.uiKey > kNscFormatIdMax) {
        sReason =
            "the Format ID " + std::to_string(value.uiKey) + " is above " + std::to_string(kNscFormatIdMax);
        return false;
    }
    pFormat->uiFormatID = value.uiKey;
    pFormat->header = std::move(value.data);
    return true;
}

} // namespace

bool nscDecode(const std::string &sText, NscValue &value, std::string &sReason) {
    std::vector<unsigned char> bytes;
    bytes.reserve(sText.size());
    if (!sText.starts_with(kEncodedMark)) {
        sReason = "an encoded value begins with 02";
        return false;
    }
    unsigned int uiBits = 0;
    unsigned int uiHeld = 0;
    for (const char c : std::string_view(sText).substr(kEncodedMark.size())) {
        const std::size_t ulSix = kAlphabet.find(c);
        if (ulSix == std::string_view::npos) {
            sReason = "an encoded value has a character that is not of its alphabet";
            return false;
        }
        uiBits = (uiBits << 6 | static_cast<unsigned int>(ulSix)) & 0xFFF;
        uiHeld += 6;
        if (uiHeld >= 8) {
            uiHeld -= 8;
            bytes.push_back(static_cast<unsigned char>(uiBits >> uiHeld));
        }
    }
    if (bytes.size() < kValueHeadSize) {
        sReason = "an encoded value is cut short";
        return false;
    }
    const std::size_t ulLength = big32(bytes.data() + 5);
    const std::size_t ulThere = bytes.size() - kValueHeadSize;
    // A writer may fill up the last four characters, which leaves up to two bytes after the data.
    if (ulLength > ulThere || ulThere - ulLength > 2) {
        sReason = "an encoded value says that it has " + std::to_string(ulLength) + " bytes, and has " +
                  std::to_string(ulThere);
        return false;
    }
    if (checkByte(bytes.data() + 1, kValueHeadSize - 1 + ulLength) != bytes[0]) {
        sReason = "an encoded value's check byte is wrong";
        return false;
    }
    value.uiKey = big32(bytes.data() + 1);
    value.data.assign(bytes.begin() + kValueHeadSize,
                      bytes.begin() + static_cast<std::ptrdiff_t>(kValueHeadSize + ulLength));
    return true;
}

std::string nscEncode(const NscValue &value) {
    std::vector<unsigned char> bytes(1);
    appendBig32(bytes, value.uiKey);
    appendBig32(bytes, value.data.size());
    bytes.insert(bytes.end(), value.data.begin(), value.data.end());
    bytes[0] = checkByte(bytes.data() + 1, bytes.size() - 1);
    std::string sText(kEncodedMark);
    unsigned int uiBits = 0;
    unsigned int uiHeld = 0;
    for (const unsigned char ucByte : bytes) {
        uiBits = (uiBits << 8 | ucByte) & 0xFFFF;
        for (uiHeld += 8; uiHeld >= 6; uiHeld -= 6) {
            sText += kAlphabet[uiBits >> (uiHeld - 6) & 0x3F];
        }
    }
    if (uiHeld > 0) {
        sText += kAlphabet[uiBits << (6 - uiHeld) & 0x3F];
    }
    return sText;
}

bool nscParse(const std::string &sText, NscStation &station, std::string &sReason) {
    enum { NO_SECTION, ADDRESS, FORMATS, OTHER } eSection = NO_SECTION;
    station = NscStation{};
    std::size_t ulLine = 0;
    for (std::size_t ulAt = 0; ulAt < sText.size();) {
        const std::size_t ulEnd = std::min(sText.find('\n', ulAt), sText.size());
        const std::string sLine = withoutBlanks(sText.substr(ulAt, ulEnd - ulAt));
        ulAt = ulEnd + 1;
        ulLine++;
        if (sLine.empty()) {
            continue;
        }
        if (sLine[0] == '[') {
            eSection = sLine == "[Address]" ? ADDRESS : sLine == "[Formats]" ? FORMATS : OTHER;
            continue;
        }
        const std::size_t ulEqual = sLine.find('=');
        if (eSection == NO_SECTION || ulEqual == std::string::npos) {
            sReason = "line " + std::to_string(ulLine) + " is not of a station file";
            return false;
        }
        const std::string sName = withoutBlanks(sLine.substr(0, ulEqual));
        const std::string sValue = withoutBlanks(sLine.substr(ulEqual + 1));
        if ((eSection == ADDRESS && !readAddressLine(sName, sValue, station, sReason)) ||
            (eSection == FORMATS && !readFormatLine(sName, sValue, station, sReason))) {
            sReason.insert(0, "line " + std::to_string(ulLine) + ", " + sName.substr(0, 40) + ": ");
            return false;
        }
    }
    std::erase_if(station.formats, [](const NscFormat &format) { return format.header.empty(); });
    if (station.sAddress.empty() || station.usPort == 0 || station.formats.empty()) {
        sReason = station.sAddress.empty() ? "it names no IP Address"
                  : station.usPort == 0    ? "it names no IP Port"
                                           : "it holds no format";
        return false;
    }
    return true;
}

bool nscRead(const char *pszFile, NscStation &station, std::string &sReason) {
    const int iFile = fileOpenRegular(pszFile, sReason);
    if (iFile < 0) {
        return false;
    }
    FileWindow window;
    windowOpen(window, iFile, kNscFileMax + 1);
    std::size_t ulHave = 0;
    const unsigned char *p = windowBytes(window, 0, kNscFileMax + 1, ulHave);
    close(iFile);
    if (window.iError != 0) {
        sReason = std::string("it cannot be read: ") + std::strerror(window.iError);
        return false;
    }
    if (ulHave > kNscFileMax) {
        sReason = "it is larger than a station file can be";
        return false;
    }
    return nscParse(std::string(p, p + ulHave), station, sReason);
}

std::string nscWrite(const NscStation &station) {
    const auto hexadecimal = [](unsigned int uiValue) {
        char szValue[16];
        std::snprintf(szValue, sizeof szValue, "0x%08X", uiValue);
        return std::string(szValue);
    };
    std::string sText = "[Address]\r\n";
    if (!station.sName.empty()) {
        sText += "Name=" + nscEncode(valueOf(station.sName)) + "\r\n";
    }
    sText += "NSC Format Version=" + nscEncode(valueOf("3.0")) + "\r\n";
    sText += "IP Address=" + nscEncode(valueOf(station.sAddress)) + "\r\n";
    sText += "IP Port=" + hexadecimal(station.usPort) + "\r\n";
    if (station.iHops >= 0) {
        sText += "Time To Live=" + hexadecimal(static_cast<unsigned int>(station.iHops)) + "\r\n";
    }
    sText += "[Formats]\r\n";
    for (const NscFormat &format : station.formats) {
        const std::string sIndex = std::to_string(format.uiIndex);
        sText += "Format" + sIndex + "=" + nscEncode({format.uiFormatID, format.header}) + "\r\n";
        if (!format.sDescription.empty()) {
            sText += "Description" + sIndex + "=" + nscEncode(valueOf(format.sDescription)) + "\r\n";
        }
    }
    return sText;
}

const NscFormat *nscFindFormat(const NscStation &station, unsigned int uiFormatIndex) {
    for (const NscFormat &format : station.formats) {
        if (uiFormatIndex == 0 || format.uiIndex == uiFormatIndex) {
            return &format;
        }
    }
    return nullptr;
}

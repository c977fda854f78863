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

constexpr std::string_view ALPHABET = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz{}";
constexpr std::string_view ENCODED_MARK = "02";
constexpr std::size_t VALUE_HEAD = 9; // check byte, key, length

unsigned int big32(const unsigned char *p) {
    return static_cast<unsigned int>(p[0]) << 24 | static_cast<unsigned int>(p[1]) << 16 |
           static_cast<unsigned int>(p[2]) << 8 | p[3];
}

void appendBig32(std::vector<unsigned char> &Bytes, std::size_t ulValue) {
    for (const unsigned int uiShift : {24U, 16U, 8U, 0U})
        Bytes.push_back(static_cast<unsigned char>(ulValue >> uiShift));
}

unsigned char checkByte(const unsigned char *p, std::size_t ulLength) {
    unsigned char ucCheck = 0;
    for (std::size_t ul = 0; ul < ulLength; ul++)
        ucCheck = static_cast<unsigned char>(ucCheck ^ p[ul]);
    return ucCheck;
}

void appendUTF8(std::string &sText, unsigned int uiCode) {
    if (uiCode < 0x80) {
        sText += static_cast<char>(uiCode);
        return;
    }
    const unsigned int uiMore = uiCode < 0x800 ? 1 : uiCode < 0x10000 ? 2 : 3;
    constexpr unsigned int LEAD[] = {0, 0xC0, 0xE0, 0xF0};
    sText += static_cast<char>(LEAD[uiMore] | uiCode >> 6 * uiMore);
    for (unsigned int ui = uiMore; ui > 0; ui--)
        sText += static_cast<char>(0x80 | (uiCode >> 6 * (ui - 1) & 0x3F));
}

// UTF-16LE with its terminating zero as UTF-8; half pairs become the replacement character.
std::string textOf(const std::vector<unsigned char> &Data) {
    constexpr unsigned int REPLACEMENT = 0xFFFD;
    const auto unitAt = [&](std::size_t ul) {
        return Data[ul] | static_cast<unsigned int>(Data[ul + 1]) << 8;
    };
    std::string sText;
    for (std::size_t ul = 0; ul + 1 < Data.size(); ul += 2) {
        unsigned int uiCode = unitAt(ul);
        if (uiCode == 0)
            break;
        if (uiCode >= 0xD800 && uiCode < 0xDC00 && ul + 3 < Data.size() &&
            (unitAt(ul + 2) & 0xFC00) == 0xDC00) {
            uiCode = 0x10000 + ((uiCode & 0x3FF) << 10 | (unitAt(ul + 2) & 0x3FF));
            ul += 2;
        } else if (uiCode >= 0xD800 && uiCode < 0xE000) {
            uiCode = REPLACEMENT;
        }
        appendUTF8(sText, uiCode);
    }
    return sText;
}

// UTF-8 as UTF-16LE with a terminating zero; bytes that are no UTF-8 become question marks.
NSCVALUE valueOf(const std::string &sText) {
    NSCVALUE Value;
    const auto append = [&](unsigned int uiUnit) {
        Value.Data.push_back(static_cast<unsigned char>(uiUnit));
        Value.Data.push_back(static_cast<unsigned char>(uiUnit >> 8));
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
               (sText[ul + uiTaken] & 0xC0) == 0x80)
            uiCode = uiCode << 6 | (static_cast<unsigned char>(sText[ul + uiTaken++]) & 0x3FU);
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
    return Value;
}

bool looksEncoded(const std::string &sText) {
    return sText.size() >= 2 + VALUE_HEAD * 8 / 6 && sText.starts_with(ENCODED_MARK) &&
           sText.find_first_not_of(ALPHABET, 2) == std::string::npos;
}

// A text, plain or encoded.
bool readText(const std::string &sText, std::string &sOut, std::string &sReason) {
    NSCVALUE Value;
    if (looksEncoded(sText)) {
        if (!nscDecode(sText, Value, sReason))
            return false;
        sOut = textOf(Value.Data);
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
    if (bForm)
        ulValue = std::stoul(sText, nullptr, 16);
    if (!bForm || ulValue > uiMost) {
        sReason = "\"" + sText.substr(0, 20) + "\" is no number from 0x0 to the most allowed, " +
                  std::to_string(uiMost);
        return false;
    }
    uiOut = static_cast<unsigned int>(ulValue);
    return true;
}

// The format that a line is about, made where it is the first one to name it.
NSCFORMAT *formatOf(NSCSTATION &Station, const std::string &sDigits, std::string &sReason) {
    if (sDigits.empty() || sDigits.size() > 4 ||
        !std::all_of(sDigits.begin(), sDigits.end(), [](unsigned char c) { return std::isdigit(c); })) {
        sReason = "the format has no number";
        return nullptr;
    }
    const unsigned int uiIndex = static_cast<unsigned int>(std::stoul(sDigits));
    for (NSCFORMAT &Format : Station.Formats) {
        if (Format.uiIndex == uiIndex)
            return &Format;
    }
    if (Station.Formats.size() >= NSC_FORMATS_MAX) {
        sReason = "there are more than " + std::to_string(NSC_FORMATS_MAX) + " formats";
        return nullptr;
    }
    Station.Formats.emplace_back().uiIndex = uiIndex;
    return &Station.Formats.back();
}

bool readAddressLine(const std::string &sName, const std::string &sValue, NSCSTATION &Station,
                     std::string &sReason) {
    unsigned int uiValue = 0;
    if (sName == "Name")
        return readText(sValue, Station.sName, sReason);
    if (sName == "NSC Format Version")
        return readText(sValue, Station.sVersion, sReason);
    if (sName == "IP Address")
        return readText(sValue, Station.sAddress, sReason) &&
               castTargetCheckAddress(Station.sAddress, sReason);
    if (sName == "IP Port") {
        if (!readInteger(sValue, 0xFFFF, uiValue, sReason))
            return false;
        Station.usPort = static_cast<unsigned short>(uiValue);
    }
    if (sName == "Time To Live") {
        if (!readInteger(sValue, 255, uiValue, sReason))
            return false;
        Station.iHops = static_cast<int>(uiValue);
    }
    return true;
}

bool readFormatLine(const std::string &sName, const std::string &sValue, NSCSTATION &Station,
                    std::string &sReason) {
    constexpr std::string_view FORMAT = "Format";
    constexpr std::string_view DESCRIPTION = "Description";
    const bool bFormat = sName.starts_with(FORMAT);
    if (!bFormat && !sName.starts_with(DESCRIPTION))
        return true;
    NSCFORMAT *pFormat =
        formatOf(Station, sName.substr(bFormat ? FORMAT.size() : DESCRIPTION.size()), sReason);
    if (!pFormat)
        return false;
    if (!bFormat)
        return readText(sValue, pFormat->sDescription, sReason);
    NSCVALUE Value;
    if (!nscDecode(sValue, Value, sReason))
        return false;
    if (Value.uiKey > NSC_FORMAT_ID_MAX) {
        sReason =
            "the Format ID " + std::to_string(Value.uiKey) + " is above " + std::to_string(NSC_FORMAT_ID_MAX);
        return false;
    }
    pFormat->uiFormatID = Value.uiKey;
    pFormat->Header = std::move(Value.Data);
    return true;
}

} // namespace

bool nscDecode(const std::string &sText, NSCVALUE &Value, std::string &sReason) {
    std::vector<unsigned char> Bytes;
    Bytes.reserve(sText.size());
    if (!sText.starts_with(ENCODED_MARK)) {
        sReason = "an encoded value begins with 02";
        return false;
    }
    unsigned int uiBits = 0;
    unsigned int uiHeld = 0;
    for (const char c : std::string_view(sText).substr(ENCODED_MARK.size())) {
        const std::size_t ulSix = ALPHABET.find(c);
        if (ulSix == std::string_view::npos) {
            sReason = "an encoded value has a character that is not of its alphabet";
            return false;
        }
        uiBits = (uiBits << 6 | static_cast<unsigned int>(ulSix)) & 0xFFF;
        uiHeld += 6;
        if (uiHeld >= 8) {
            uiHeld -= 8;
            Bytes.push_back(static_cast<unsigned char>(uiBits >> uiHeld));
        }
    }
    if (Bytes.size() < VALUE_HEAD) {
        sReason = "an encoded value is cut short";
        return false;
    }
    const std::size_t ulLength = big32(Bytes.data() + 5);
    const std::size_t ulThere = Bytes.size() - VALUE_HEAD;
    // Up to two bytes more than said may come of filling up the last four characters.
    if (ulLength > ulThere || ulThere - ulLength > 2) {
        sReason = "an encoded value says that it has " + std::to_string(ulLength) + " bytes, and has " +
                  std::to_string(ulThere);
        return false;
    }
    if (checkByte(Bytes.data() + 1, VALUE_HEAD - 1 + ulLength) != Bytes[0]) {
        sReason = "an encoded value's check byte is wrong";
        return false;
    }
    Value.uiKey = big32(Bytes.data() + 1);
    Value.Data.assign(Bytes.begin() + VALUE_HEAD,
                      Bytes.begin() + static_cast<std::ptrdiff_t>(VALUE_HEAD + ulLength));
    return true;
}

std::string nscEncode(const NSCVALUE &Value) {
    std::vector<unsigned char> Bytes(1);
    appendBig32(Bytes, Value.uiKey);
    appendBig32(Bytes, Value.Data.size());
    Bytes.insert(Bytes.end(), Value.Data.begin(), Value.Data.end());
    Bytes[0] = checkByte(Bytes.data() + 1, Bytes.size() - 1);
    std::string sText(ENCODED_MARK);
    unsigned int uiBits = 0;
    unsigned int uiHeld = 0;
    for (const unsigned char ucByte : Bytes) {
        uiBits = (uiBits << 8 | ucByte) & 0xFFFF;
        for (uiHeld += 8; uiHeld >= 6; uiHeld -= 6)
            sText += ALPHABET[uiBits >> (uiHeld - 6) & 0x3F];
    }
    if (uiHeld > 0)
        sText += ALPHABET[uiBits << (6 - uiHeld) & 0x3F];
    return sText;
}

bool nscParse(const std::string &sText, NSCSTATION &Station, std::string &sReason) {
    enum { NO_SECTION, ADDRESS, FORMATS, OTHER } eSection = NO_SECTION;
    Station = NSCSTATION{};
    std::size_t ulLine = 0;
    for (std::size_t ulAt = 0; ulAt < sText.size();) {
        const std::size_t ulEnd = std::min(sText.find('\n', ulAt), sText.size());
        std::string sLine = sText.substr(ulAt, ulEnd - ulAt);
        ulAt = ulEnd + 1;
        ulLine++;
        while (!sLine.empty() && (sLine.back() == '\r' || sLine.back() == ' ' || sLine.back() == '\t'))
            sLine.pop_back();
        if (sLine.empty())
            continue;
        if (sLine[0] == '[') {
            eSection = sLine == "[Address]" ? ADDRESS : sLine == "[Formats]" ? FORMATS : OTHER;
            continue;
        }
        const std::size_t ulEqual = sLine.find('=');
        if (eSection == NO_SECTION || ulEqual == std::string::npos) {
            sReason = "line " + std::to_string(ulLine) + " is not of a station file";
            return false;
        }
        const std::string sName = sLine.substr(0, ulEqual);
        const std::string sValue = sLine.substr(ulEqual + 1);
        if ((eSection == ADDRESS && !readAddressLine(sName, sValue, Station, sReason)) ||
            (eSection == FORMATS && !readFormatLine(sName, sValue, Station, sReason))) {
            sReason = "line " + std::to_string(ulLine) + ", " + sName.substr(0, 40) + ": " + sReason;
            return false;
        }
    }
    std::erase_if(Station.Formats, [](const NSCFORMAT &Format) { return Format.Header.empty(); });
    if (Station.sAddress.empty() || Station.usPort == 0 || Station.Formats.empty()) {
        sReason = Station.sAddress.empty() ? "it names no IP Address"
                  : Station.usPort == 0    ? "it names no IP Port"
                                           : "it holds no format";
        return false;
    }
    return true;
}

bool nscRead(const char *pszFile, NSCSTATION &Station, std::string &sReason) {
    const int iFile = fileOpenRegular(pszFile, sReason);
    if (iFile < 0)
        return false;
    FILEWINDOW Window;
    windowOpen(Window, iFile, NSC_FILE_MAX + 1);
    std::size_t ulHave = 0;
    const unsigned char *p = windowBytes(Window, 0, NSC_FILE_MAX + 1, ulHave);
    close(iFile);
    if (Window.iError != 0) {
        sReason = std::string("it cannot be read: ") + std::strerror(Window.iError);
        return false;
    }
    if (ulHave > NSC_FILE_MAX) {
        sReason = "it is larger than a station file can be";
        return false;
    }
    return nscParse(std::string(p, p + ulHave), Station, sReason);
}

std::string nscWrite(const NSCSTATION &Station) {
    const auto hexadecimal = [](unsigned int uiValue) {
        char szValue[16];
        std::snprintf(szValue, sizeof szValue, "0x%08X", uiValue);
        return std::string(szValue);
    };
    std::string sText = "[Address]\r\n";
    if (!Station.sName.empty())
        sText += "Name=" + nscEncode(valueOf(Station.sName)) + "\r\n";
    sText += "NSC Format Version=" + nscEncode(valueOf("3.0")) + "\r\n";
    sText += "IP Address=" + nscEncode(valueOf(Station.sAddress)) + "\r\n";
    sText += "IP Port=" + hexadecimal(Station.usPort) + "\r\n";
    if (Station.iHops >= 0)
        sText += "Time To Live=" + hexadecimal(static_cast<unsigned int>(Station.iHops)) + "\r\n";
    sText += "[Formats]\r\n";
    for (const NSCFORMAT &Format : Station.Formats) {
        const std::string sIndex = std::to_string(Format.uiIndex);
        sText += "Format" + sIndex + "=" + nscEncode({Format.uiFormatID, Format.Header}) + "\r\n";
        if (!Format.sDescription.empty())
            sText += "Description" + sIndex + "=" + nscEncode(valueOf(Format.sDescription)) + "\r\n";
    }
    return sText;
}

const NSCFORMAT *nscFindFormat(const NSCSTATION &Station, unsigned int uiFormatIndex) {
    for (const NSCFORMAT &Format : Station.Formats) {
        if (uiFormatIndex == 0 || Format.uiIndex == uiFormatIndex)
            return &Format;
    }
    return nullptr;
}

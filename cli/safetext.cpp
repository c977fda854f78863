#include "safetext.h"

#include <array>
#include <cstdio>

namespace {

// One character at the front of a text.
struct Character {
    size_t uBytes;
    unsigned int uiCode; // its code point
    bool bValid;         // false: one byte that is not UTF-8
};

// The first byte of a character tells its length. A code point below uiSmallest must be written shorter.
struct Lead {
    unsigned int uiMask;
    unsigned int uiLead;
    unsigned int uiSmallest;
};
constexpr std::array<Lead, 4> kLeads{
    {{0x80, 0x00, 0}, {0xE0, 0xC0, 0x80}, {0xF0, 0xE0, 0x800}, {0xF8, 0xF0, 0x10000}}};

Character firstCharacter(std::string_view sText) {
    const unsigned int uiFirst = static_cast<unsigned char>(sText.front());
    for (size_t uMore = 0; uMore < kLeads.size(); ++uMore) {
        const Lead &lead = kLeads[uMore];
        if ((uiFirst & lead.uiMask) != lead.uiLead || sText.size() <= uMore) {
            continue;
        }
        unsigned int uiCode = uiFirst & ~lead.uiMask;
        bool bValid = true;
        for (size_t i = 1; i <= uMore; ++i) {
            const unsigned int uiByte = static_cast<unsigned char>(sText[i]);
            bValid = bValid && (uiByte & 0xC0) == 0x80;
            uiCode = uiCode << 6 | (uiByte & 0x3F);
        }
        if (bValid && uiCode >= lead.uiSmallest && uiCode <= 0x10FFFF &&
            (uiCode < 0xD800 || uiCode > 0xDFFF)) {
            return {uMore + 1, uiCode, true};
        }
    }
    return {1, uiFirst, false};
}

// Characters that move the cursor, switch modes or turn the writing direction.
bool isControl(unsigned int uiCode) {
    return uiCode < 0x20 || (uiCode >= 0x7F && uiCode < 0xA0) || uiCode == 0x061C ||
           (uiCode >= 0x200B && uiCode <= 0x200F) || (uiCode >= 0x2028 && uiCode <= 0x202E) ||
           (uiCode >= 0x2060 && uiCode <= 0x206F) || uiCode == 0xFEFF;
}

// Wide scripts and pictures take two columns. A count that is one too high only leaves a gap.
size_t columnsOf(unsigned int uiCode) {
    if (uiCode >= 0x0300 && uiCode < 0x0370) {
        return 0; // combining accents
    }
    return uiCode < 0x1100 || (uiCode >= 0x2010 && uiCode < 0x2600) ? 1 : 2;
}

// At least iDigits hexadecimal digits.
std::string hex(unsigned int uiValue, int iDigits) {
    std::array<char, 16> aText{};
    std::snprintf(aText.data(), aText.size(), "%0*x", iDigits, uiValue);
    return aText.data();
}

} // namespace

std::string textForTerminal(std::string_view sText) {
    std::string sSafe;
    while (!sText.empty()) {
        const Character character = firstCharacter(sText);
        if (!character.bValid || (character.uiCode < 0x20 && character.uiCode != '\n')) {
            sSafe += "\\x" + hex(character.uiCode, 2);
        } else if (character.uiCode == '\n') {
            sSafe += "\\n";
        } else if (character.uiCode == '\\') {
            sSafe += "\\\\";
        } else if (isControl(character.uiCode)) {
            sSafe += "\\u{" + hex(character.uiCode, 1) + "}";
        } else {
            sSafe += sText.substr(0, character.uBytes);
        }
        sText.remove_prefix(character.uBytes);
    }
    return sSafe;
}

std::string textForPicture(std::string_view sText) {
    std::string sSafe;
    while (!sText.empty()) {
        const Character character = firstCharacter(sText);
        if (character.bValid && character.uiCode == '\t') {
            sSafe += ' ';
        } else if (character.bValid && (character.uiCode == '\n' || !isControl(character.uiCode))) {
            sSafe += sText.substr(0, character.uBytes);
        } else if (character.uiCode != '\r') {
            sSafe += "\uFFFD";
        }
        sText.remove_prefix(character.uBytes);
    }
    return sSafe;
}

bool isUTF8(std::string_view sText) {
    while (!sText.empty()) {
        const Character character = firstCharacter(sText);
        if (!character.bValid) {
            return false;
        }
        sText.remove_prefix(character.uBytes);
    }
    return true;
}

std::string textFront(std::string_view sText, size_t uBytes) {
    size_t uFront = 0;
    while (uFront < sText.size()) {
        const size_t uNext = uFront + firstCharacter(sText.substr(uFront)).uBytes;
        if (uNext > uBytes) {
            break;
        }
        uFront = uNext;
    }
    return std::string(sText.substr(0, uFront));
}

std::string textAsHex(std::string_view sText) {
    std::string sHex;
    for (const char cByte : sText) {
        sHex += hex(static_cast<unsigned char>(cByte), 2);
    }
    return sHex;
}

size_t textColumns(std::string_view sText) {
    size_t uColumns = 0;
    while (!sText.empty()) {
        const Character character = firstCharacter(sText);
        uColumns += columnsOf(character.uiCode);
        sText.remove_prefix(character.uBytes);
    }
    return uColumns;
}

std::string textCut(std::string_view sText, size_t uColumns) {
    if (textColumns(sText) <= uColumns) {
        return std::string(sText);
    }
    std::string sFront;
    size_t uTaken = 0;
    while (!sText.empty()) {
        const Character character = firstCharacter(sText);
        uTaken += columnsOf(character.uiCode);
        if (uTaken + 1 > uColumns) {
            break;
        }
        sFront += sText.substr(0, character.uBytes);
        sText.remove_prefix(character.uBytes);
    }
    return uColumns == 0 ? "" : sFront + "…";
}

std::vector<std::string> textWrap(std::string_view sText, size_t uColumns, size_t uLines) {
    std::vector<std::string> lines;
    while (lines.size() + 1 < uLines) {
        size_t uFits = 0;  // bytes
        size_t uBreak = 0; // bytes up to the last blank that ends a line
        size_t uTaken = 0;
        while (uFits < sText.size()) {
            const Character character = firstCharacter(sText.substr(uFits));
            uBreak = character.uiCode == ' ' ? uFits : uBreak;
            uTaken += columnsOf(character.uiCode);
            if (uTaken > uColumns) {
                break;
            }
            uFits += character.uBytes;
        }
        if (uFits == sText.size() || uFits == 0) {
            break;
        }
        lines.emplace_back(sText.substr(0, uBreak == 0 ? uFits : uBreak));
        sText.remove_prefix(uBreak == 0 ? uFits : uBreak + 1);
    }
    if (uLines != 0) {
        lines.push_back(textCut(sText, uColumns));
    }
    return lines;
}

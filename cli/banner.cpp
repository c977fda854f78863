#include "banner.h"

#include "safetext.h"

#include <algorithm>

namespace {

// 5 s to notice the page, and 0.1 s for each column. The service pauses 7 s and 0.2 s for each byte before it
// sends the next message, so a message has been read by then.
constexpr unsigned long kNotice = 5000;
constexpr unsigned long kColumn = 100;

constexpr int kLineHeight = 54;
constexpr int kFontSize = 44;
constexpr int kMargin = 24; // between the box and the edges of the picture, and between box and text
constexpr int kStripe = 10; // the coloured edge of the box

// The bytes of the text's first characters that fill at most so many columns, but one character at least.
size_t fitting(std::string_view sText, size_t uColumns) {
    size_t uBytes = 0;
    while (uBytes < sText.size()) {
        size_t uNext = uBytes + 1;
        while (uNext < sText.size() && (static_cast<unsigned char>(sText[uNext]) & 0xC0) == 0x80) {
            ++uNext;
        }
        const size_t uTaken = textColumns(sText.substr(uBytes, uNext - uBytes));
        if (uBytes > 0 && uTaken > uColumns) {
            break;
        }
        uColumns -= std::min(uTaken, uColumns);
        uBytes = uNext;
    }
    return uBytes;
}

// Cuts one line into lines that fit, between words where there are any. Stops at uMost lines.
void wrap(std::string_view sLine, size_t uMost, std::vector<std::string> *pLines) {
    while (pLines->size() < uMost) {
        sLine.remove_prefix(std::min(sLine.find_first_not_of(' '), sLine.size()));
        sLine = sLine.substr(0, sLine.find_last_not_of(' ') + 1);
        // Far more than a line is never looked at: a text of 64 KB may be a single word.
        size_t uTaken = fitting(textFront(sLine, kBannerColumns * 4), kBannerColumns);
        if (uTaken < sLine.size()) {
            const size_t uBlank = sLine.rfind(' ', uTaken);
            uTaken = uBlank == std::string_view::npos || uBlank == 0 ? uTaken : uBlank;
        }
        if (uTaken == 0) {
            return;
        }
        pLines->emplace_back(sLine.substr(0, uTaken));
        sLine.remove_prefix(uTaken);
    }
}

// Takes their meaning from the characters that the format gives one. Behind a backslash stands a word joiner,
// which is not drawn.
std::string escape(const std::string &sLine) {
    std::string sEscaped;
    for (const char cByte : sLine) {
        if (cByte == '{') {
            sEscaped += '\\';
        }
        sEscaped += cByte;
        if (cByte == '\\') {
            sEscaped += "\u2060";
        }
    }
    return sEscaped;
}

// A filled rectangle. pszColour: blue, green and red; pszAlpha: 00 solid to FF clear.
std::string box(int iLeft, int iTop, int iWidth, int iHeight, const char *pszColour, const char *pszAlpha) {
    const std::string sWidth = std::to_string(iWidth);
    const std::string sHeight = std::to_string(iHeight);
    return "{\\an7\\pos(" + std::to_string(iLeft) + "," + std::to_string(iTop) + ")\\bord0\\shad0\\1c&H" +
           pszColour + "&\\1a&H" + pszAlpha + "&\\p1}m 0 0 l " + sWidth + " 0 l " + sWidth + " " + sHeight +
           " l 0 " + sHeight + "{\\p0}";
}

} // namespace

std::vector<BannerPage> bannerPages(std::string_view sText) {
    constexpr size_t kLinesMost = kBannerPages * kBannerLines;
    // More bytes than the lines can hold are not looked at.
    const std::string sSafe = textForPicture(textFront(sText, kLinesMost * (kBannerColumns + 1) * 4));
    std::vector<std::string> lines;
    for (std::string_view sRest = sSafe; !sRest.empty() && lines.size() <= kLinesMost;) {
        const size_t uEnd = std::min(sRest.find('\n'), sRest.size());
        wrap(sRest.substr(0, uEnd), kLinesMost + 1, &lines);
        sRest.remove_prefix(std::min(uEnd + 1, sRest.size()));
    }
    if (lines.size() > kLinesMost) {
        lines.resize(kLinesMost);
        lines.back() = textCut(lines.back() + " …", kBannerColumns);
    }
    std::vector<BannerPage> pages;
    for (size_t i = 0; i < lines.size(); ++i) {
        if (i % kBannerLines == 0) {
            pages.emplace_back();
            pages.back().ulShown = kNotice;
        }
        pages.back().ulShown += kColumn * textColumns(lines[i]);
        pages.back().lines.push_back(std::move(lines[i]));
    }
    return pages;
}

std::string bannerDraw(const BannerPage &page) {
    const int iHeight = static_cast<int>(page.lines.size()) * kLineHeight + 2 * kMargin;
    const int iTop = kBannerHeight - kMargin - iHeight;
    const int iWidth = kBannerWidth - 2 * kMargin;
    std::string sEvents = box(kMargin, iTop, iWidth, iHeight, "201008", "18") + "\n" +
                          box(kMargin, iTop, kStripe, iHeight, "00C8FF", "00");
    int iLine = iTop + kMargin;
    for (const std::string &sLine : page.lines) {
        sEvents += "\n{\\an7\\q2\\pos(" + std::to_string(2 * kMargin + kStripe) + "," +
                   std::to_string(iLine) + ")\\fs" + std::to_string(kFontSize) +
                   "\\b1\\bord0\\shad0\\1c&HFFFFFF&}" + escape(sLine);
        iLine += kLineHeight;
    }
    return sEvents;
}

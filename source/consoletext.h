// consoletext.h - makes a text from a request safe for a terminal.
#ifndef PCCAST_CONSOLETEXT_H
#define PCCAST_CONSOLETEXT_H

#include <cstdlib>
#include <cstring>
#include <memory>

struct FreeText {
    void operator()(char *pText) const { std::free(pText); }
};
using ConsoleText = std::unique_ptr<char, FreeText>;

// A copy of the text with a question mark for each byte that could be, or begin, a control character: below
// blank, DEL, and the C1 controls as UTF-8 has them (C2 80 to C2 9F). A null text reads as pFallback. Null
// when memory runs out.
inline ConsoleText consoleText(const char *pText, const char *pFallback) {
    ConsoleText pCopy(strdup(pText == nullptr ? pFallback : pText));
    auto *pBytes = reinterpret_cast<unsigned char *>(pCopy.get());
    for (unsigned char *p = pBytes; p != nullptr && *p != 0; ++p) {
        const bool bC1 = *p >= 0x80 && *p < 0xA0 && p > pBytes && p[-1] == 0xC2;
        if (*p < 0x20 || *p == 0x7F || bC1) {
            *p = '?';
        }
    }
    return pCopy;
}

// For the argument of a printf: the text, or a question mark when there is none.
inline const char *orQuestion(const ConsoleText &pText) {
    return pText == nullptr ? "?" : pText.get();
}

#endif

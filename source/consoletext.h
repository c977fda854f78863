// consoletext.h - makes a text from a request safe for a terminal. It is safe on every thread.
#ifndef PCCAST_CONSOLETEXT_H
#define PCCAST_CONSOLETEXT_H

#include <cstdlib>
#include <cstring>
#include <memory>

struct FreeText {
    void operator()(char *pText) const { std::free(pText); }
};
using ConsoleText = std::unique_ptr<char, FreeText>;

// Returns a copy of the text, with a question mark in place of each control character: the bytes below 20,
// the byte 7F, and the C1 controls of UTF-8 (C2 80 to C2 9F). pFallback stands in for a null text. Returns
// null if memory runs out.
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

// Returns the text for a printf, or a question mark for null.
inline const char *orQuestion(const ConsoleText &pText) {
    return pText == nullptr ? "?" : pText.get();
}

#endif

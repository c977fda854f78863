// The line that a signal leaves on the console.

#include <pccast/plugin.h>

#include "pccastmain.h"

#include <unistd.h>

#include <cerrno>

namespace {

// Puts the decimal digits of a value at pOut. Returns behind the last one.
char *putNumber(char *pOut, int iValue) {
    char digits[12];
    int iCount = 0;
    long lValue = iValue;
    if (lValue < 0) {
        *pOut++ = '-';
        lValue = -lValue;
    }
    do {
        digits[iCount++] = static_cast<char>('0' + lValue % 10);
        lValue /= 10;
    } while (lValue > 0);
    while (iCount > 0) {
        *pOut++ = digits[--iCount];
    }
    return pOut;
}

char *putText(char *pOut, const char *pText) {
    while (*pText != '\0') {
        *pOut++ = *pText++;
    }
    return pOut;
}

} // namespace

void pccastSignalHandler(int iSignal) {
    // The interrupted thread may hold the output's lock, so the line is put together here and written at
    // once.
    const int iError = errno;
    char line[128];
    char *pOut = putText(line, "[");
    pOut = putText(pOut, kModule);
    pOut = putText(pOut, ":");
    pOut = putNumber(pOut, __LINE__);
    pOut = putText(pOut, "] \e[2;31m ");
    pOut = putNumber(pOut, iSignal);
    pOut = putText(pOut, " signal occured  \e[1;41m[SIGNAL]\e[0m\n");
    [[maybe_unused]] const ssize_t lWritten = write(STDOUT_FILENO, line, static_cast<size_t>(pOut - line));
    errno = iError;
}

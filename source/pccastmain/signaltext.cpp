// Prints a line when a signal arrives. Runs in the signal handler, on whichever thread the signal interrupts.

#include <pccast/plugin.h>

#include "pccastmain.h"

#include <unistd.h>

#include <cerrno>

namespace {

// Writes the value, which is not negative, in decimal at pOut. Returns the place behind the last digit.
char *putNumber(char *pOut, int iValue) {
    char digits[12];
    int iCount = 0;
    do {
        digits[iCount++] = static_cast<char>('0' + iValue % 10);
        iValue /= 10;
    } while (iValue > 0);
    while (iCount > 0) {
        *pOut++ = digits[--iCount];
    }
    return pOut;
}

// Writes the text at pOut, without its terminating zero. Returns the place behind it.
char *putText(char *pOut, const char *pText) {
    while (*pText != '\0') {
        *pOut++ = *pText++;
    }
    return pOut;
}

} // namespace

void pccastSignalHandler(int iSignal) {
    // The interrupted thread may hold the lock of standard output. So the line is built here and written with
    // one system call.
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

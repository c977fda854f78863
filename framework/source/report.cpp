#include "report.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <functional>
#include <mutex>
#include <string_view>
#include <time.h>
#include <unistd.h>

namespace {

constexpr size_t LINE_SIZE = 512;
constexpr time_t QUIET_SECONDS = 10;

// The lines written last, by hash; the oldest gives way. Two lines with one hash would share one entry: the
// worst that comes of it is a line left out for ten seconds.
struct REPORTED {
    size_t ulHash;
    timespec Written; // CLOCK_MONOTONIC, zero while the entry is free
};
std::mutex ReportMutex;
std::array<REPORTED, 64> Reported;

bool earlier(const timespec &Left, const timespec &Right) {
    return Left.tv_sec != Right.tv_sec ? Left.tv_sec < Right.tv_sec : Left.tv_nsec < Right.tv_nsec;
}

// Whether the line may be written now; remembers it if so.
bool isDue(std::string_view Line) {
    const size_t ulHash = std::hash<std::string_view>{}(Line);
    timespec Now{};
    clock_gettime(CLOCK_MONOTONIC, &Now);

    const std::lock_guard Lock(ReportMutex);
    REPORTED *pEntry = &Reported[0];
    for (REPORTED &Entry : Reported) {
        const bool bWritten = Entry.Written.tv_sec != 0 || Entry.Written.tv_nsec != 0;
        if (bWritten && Entry.ulHash == ulHash) {
            if (earlier(Now, {Entry.Written.tv_sec + QUIET_SECONDS, Entry.Written.tv_nsec}))
                return false;
            pEntry = &Entry;
            break;
        }
        if (earlier(Entry.Written, pEntry->Written))
            pEntry = &Entry;
    }
    *pEntry = {ulHash, Now};
    return true;
}

} // namespace

void frameworkReport(const char *pszWho, const char *pszFormat, ...) {
    const int iErrno = errno;
    std::array<char, LINE_SIZE> Line;
    const size_t ulRoom = Line.size() - 1; // the newline's place
    size_t ulLength =
        std::min(ulRoom - 1, static_cast<size_t>(std::max(0, snprintf(Line.data(), ulRoom, "%s: ", pszWho))));
    va_list Arguments;
    va_start(Arguments, pszFormat);
    const int iText = vsnprintf(Line.data() + ulLength, ulRoom - ulLength, pszFormat, Arguments);
    va_end(Arguments);
    ulLength = std::min(ulRoom - 1, ulLength + static_cast<size_t>(std::max(0, iText)));

    // File names and addresses come from outside: whatever they hold, the report stays one line.
    std::replace_if(
        Line.begin(), Line.begin() + static_cast<std::ptrdiff_t>(ulLength),
        [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7f; }, '?');
    if (isDue({Line.data(), ulLength})) {
        Line[ulLength++] = '\n';
        while (write(STDERR_FILENO, Line.data(), ulLength) < 0 && errno == EINTR) {
        }
    }
    errno = iErrno;
}

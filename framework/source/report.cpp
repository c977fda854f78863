#include "report.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <functional>
#include <mutex>
#include <string_view>
#include <unistd.h>

namespace {

constexpr std::size_t kLineSize = 512;
constexpr time_t kQuietSeconds = 10;

// The lines written last, by hash. A new line replaces the oldest. Two lines with the same hash share an
// entry; at worst, one of them is left out for ten seconds.
struct ReportedLine {
    std::size_t ulHash;
    timespec written; // CLOCK_MONOTONIC, zero while the entry is free
};
std::mutex reportMutex;
std::array<ReportedLine, 64> reported;

bool earlier(const timespec &left, const timespec &right) {
    return left.tv_sec != right.tv_sec ? left.tv_sec < right.tv_sec : left.tv_nsec < right.tv_nsec;
}

// Returns whether the line may be written now. Remembers it if so.
bool isDue(std::string_view line) {
    const std::size_t ulHash = std::hash<std::string_view>{}(line);
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);

    const std::lock_guard lock(reportMutex);
    ReportedLine *pEntry = &reported[0];
    for (ReportedLine &entry : reported) {
        const bool bWritten = entry.written.tv_sec != 0 || entry.written.tv_nsec != 0;
        if (bWritten && entry.ulHash == ulHash) {
            if (earlier(now, {entry.written.tv_sec + kQuietSeconds, entry.written.tv_nsec})) {
                return false;
            }
            pEntry = &entry;
            break;
        }
        if (earlier(entry.written, pEntry->written)) {
            pEntry = &entry;
        }
    }
    *pEntry = {ulHash, now};
    return true;
}

} // namespace

void frameworkReport(const char *pszWho, const char *pszFormat, ...) {
    const int iErrno = errno;
    std::array<char, kLineSize> line;
    const std::size_t ulRoom = line.size() - 1; // leave a place for the newline
    std::size_t ulLength =
        std::min(ulRoom - 1,
                 static_cast<std::size_t>(std::max(0, std::snprintf(line.data(), ulRoom, "%s: ", pszWho))));
    va_list arguments;
    va_start(arguments, pszFormat);
    const int iText = std::vsnprintf(line.data() + ulLength, ulRoom - ulLength, pszFormat, arguments);
    va_end(arguments);
    ulLength = std::min(ulRoom - 1, ulLength + static_cast<std::size_t>(std::max(0, iText)));

    // File names and addresses come from outside and may hold control characters. Keep the report on one
    // line.
    std::replace_if(
        line.begin(), line.begin() + static_cast<std::ptrdiff_t>(ulLength),
        [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7f; }, '?');
    if (isDue({line.data(), ulLength})) {
        line[ulLength++] = '\n';
        while (write(STDERR_FILENO, line.data(), ulLength) < 0 && errno == EINTR) {
        }
    }
    errno = iErrno;
}

// The debug log. The contracts stand in debuglog.h.
#include "debuglog.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>

extern "C" {
char gszProcessName[100];
char gszLogPath[100];
char gszCurFileName[160];
char gszOldFileName[160];
FILE *gFD;
std::atomic<int32_t> gPrintStdOut;
std::atomic<int32_t> gFileLog;
std::atomic<int32_t> gDebugLevel;
constinit thread_local int32_t gUserLevel = 0;
}

namespace {

// Guards the four texts, gFD and the two flags. Keeps each line whole.
std::mutex logMutex;
bool bPathFits;        // gszLogPath holds the whole path
bool bFailureReported; // a failure to write to the open file has been reported

tm localNow() {
    const time_t now = std::time(nullptr);
    tm result{};
    localtime_r(&now, &result);
    return result;
}

// The value of the variable named by the format and the process name; null if there is none.
const char *variable(const char *pFormat) {
    char name[100];
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    const int iLength = std::snprintf(name, sizeof name, pFormat, gszProcessName);
#pragma GCC diagnostic pop
    return iLength < static_cast<int>(sizeof name) ? std::getenv(name) : nullptr;
}

int32_t number(const char *pFormat) {
    const char *pText = variable(pFormat);
    return pText == nullptr ? 0 : std::atoi(pText);
}

// Copies as much as fits. Returns whether everything fitted.
template <size_t Size>
bool copyText(char (&target)[Size], const char *pText) {
    return std::snprintf(target, Size, "%s", pText) < static_cast<int>(Size);
}

// Makes the file name for a date. A name that does not fit becomes empty, and an empty name is never opened.
void nameFile(const tm &date) {
    char day[16] = "";
    std::strftime(day, sizeof day, "%Y-%m-%d.txt", &date);
    const int iLength =
        std::snprintf(gszCurFileName, sizeof gszCurFileName, "%s/%s@%s", gszLogPath, gszProcessName, day);
    if (!bPathFits || iLength >= static_cast<int>(sizeof gszCurFileName)) {
        gszCurFileName[0] = '\0';
    }
}

void closeFile() {
    if (gFD != nullptr) {
        std::fflush(gFD);
        std::fclose(gFD);
        gFD = nullptr;
    }
}

// Everybody may write to /tmp. So this refuses a link, another user's file and anything but a regular file.
FILE *openOwnFile(const char *pName) {
    const int iFile = open(pName, O_RDWR | O_APPEND | O_CREAT | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK, 0600);
    struct stat status {};
    if (iFile < 0) {
        return nullptr;
    }
    FILE *pFile = fstat(iFile, &status) == 0 && S_ISREG(status.st_mode) && status.st_uid == geteuid()
                      ? fdopen(iFile, "a+")
                      : nullptr;
    if (pFile == nullptr) {
        close(iFile);
    }
    return pFile;
}

void openFile() {
    bFailureReported = false;
    if (gszCurFileName[0] != '\0') {
        gFD = openOwnFile(gszCurFileName);
    }
    copyText(gszOldFileName, gszCurFileName);
}

// The caller holds the lock.
void switchFile() {
    nameFile(localNow());
    if (std::strcmp(gszCurFileName, gszOldFileName) == 0) {
        return;
    }
    closeFile();
    openFile();
}

// Returns whether the line has been written.
bool writeLine(FILE *pFile, const char *pStamp, int iLevel, const char *pText) {
    return std::fprintf(pFile, "%s [DEBUG_LEVEL_%d] %s", pStamp, iLevel, pText) >= 0 &&
           std::fflush(pFile) == 0;
}

} // namespace

void initDebug(const char *processName, const char *logDirectory) {
    const std::lock_guard lock(logMutex);
    const tm date = localNow();
    copyText(gszProcessName, processName == nullptr ? "DEFAULT" : processName);
    gPrintStdOut = number("KTDEBUG_STDOUT_%s");
    gFileLog = number("KTDEBUG_FILELOG_%s");
    closeFile();
    if (gFileLog != 0) {
        const char *pDirectory = logDirectory != nullptr ? logDirectory : variable("KTDEBUG_PATH_%s");
        bPathFits = copyText(gszLogPath, pDirectory != nullptr ? pDirectory : "/tmp");
        nameFile(date);
        openFile();
    }
    gDebugLevel = number("KTDEBUG_LEVEL_%s");
}

void initFile(void) {
    const std::lock_guard lock(logMutex);
    switchFile();
}

void DEBUG_LEVEL_COMMON(int level, const char *text) {
    const tm now = localNow();
    char stamp[22] = "";
    if (std::strftime(stamp, sizeof stamp, "[%Y-%m-%d %X]", &now) == 0) {
        stamp[0] = '\0';
    }
    const std::lock_guard lock(logMutex);
    if (gPrintStdOut != 0) {
        writeLine(stdout, stamp, level, text);
    }
    if (gFileLog != 0) {
        switchFile();
        if (gFD != nullptr && !writeLine(gFD, stamp, level, text) && !bFailureReported) {
            std::fprintf(stderr, "the debug log %s loses lines: %s\n", gszCurFileName, std::strerror(errno));
            bFailureReported = true;
        }
    }
}

void INFO_DEBUG(const char *format, ...) {
    const int iLevel = gUserLevel;
    char text[2049] = "";
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    DEBUG_LEVEL_COMMON(iLevel, text);
}

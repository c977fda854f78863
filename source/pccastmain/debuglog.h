// debuglog.h - the process-wide debug log: to standard output, to a daily file, or to both.
//
// Set up from environment variables whose names carry a process name; silent without them. The supervisor
// sets it up before any engine thread runs; any thread may write. One lock keeps the lines of threads apart
// and the file from being switched under a writer.
#ifndef PCCAST_DEBUGLOG_H
#define PCCAST_DEBUGLOG_H

#include <atomic>
#include <cstdint>
#include <cstdio>

extern "C" {

extern char gszProcessName[100];
extern char gszLogPath[100];
extern char gszCurFileName[160];
extern char gszOldFileName[160];
extern FILE *gFD; // the open log file, or null
// Written by initDebug, read by every thread that may have something to say.
extern std::atomic<int32_t> gPrintStdOut;
extern std::atomic<int32_t> gFileLog;
extern std::atomic<int32_t> gDebugLevel;
// The level of the message being written, set just before INFO_DEBUG. Each thread has its own, so that one
// thread's message never takes another's level.
extern constinit thread_local int32_t gUserLevel;

// Reads the variables KTDEBUG_STDOUT_, KTDEBUG_FILELOG_, KTDEBUG_PATH_ and KTDEBUG_LEVEL_ with the process
// name behind them, and opens the day's file when file logging is on. A file that an earlier call opened is
// closed. processName: null for "DEFAULT"; up to 80 characters, so that every variable's name fits its 100
// bytes. logDirectory: null for the variable's, or /tmp. A directory of 100 characters or more, or a file
// name of 160 or more, leaves the file output off. So does a file that is a link, belongs to another user, or
// is no regular one. A new file can be read by its owner alone.
void initDebug(const char *processName, const char *logDirectory);

// Switches to today's file if the date has changed since the file was opened.
void initFile(void);

// Writes one finished message with its prefix to the enabled outputs.
void DEBUG_LEVEL_COMMON(int level, const char *text);

// Formats a message, cut at 2048 characters, and writes it with the level in gUserLevel.
void INFO_DEBUG(const char *format, ...) __attribute__((format(printf, 1, 2)));
}

// Writes a message of a level when that level is wanted.
#define PCCAST_DEBUG(level, ...)                                                                             \
    do {                                                                                                     \
        if (gDebugLevel >= (level) && (gPrintStdOut != 0 || gFileLog != 0)) {                                \
            gUserLevel = (level);                                                                            \
            INFO_DEBUG(__VA_ARGS__);                                                                         \
        }                                                                                                    \
    } while (false)

#endif

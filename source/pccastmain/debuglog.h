// debuglog.h - the debug log of the process: to standard output, to a daily file, or to both.
//
// Environment variables turn it on. Their names end with a process name. Without them the log is silent. The
// supervisor sets the log up before any engine thread runs. Then any thread may write. One lock keeps the
// lines of different threads apart. No thread can change the file while another one writes.
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
// initDebug writes these. Every thread reads them.
extern std::atomic<int32_t> gPrintStdOut;
extern std::atomic<int32_t> gFileLog;
extern std::atomic<int32_t> gDebugLevel;
// The level of the next message. Set it just before INFO_DEBUG. Each thread has its own, so a message never
// takes the level of another thread.
extern constinit thread_local int32_t gUserLevel;

// Reads four variables: KTDEBUG_STDOUT_, KTDEBUG_FILELOG_, KTDEBUG_PATH_ and KTDEBUG_LEVEL_, each with the
// process name behind it. Closes the file of an earlier call. Opens today's file if file logging is on.
// processName: up to 80 characters, so that the names of the variables fit into 100 bytes; null: "DEFAULT".
// logDirectory: null: the directory of the variable, or /tmp without the variable.
//
// There is no file output if the directory has 100 characters or more, or the file name 160 or more. There is
// none either if the file is a link, belongs to another user or is not a regular file. Only its owner can
// read a new file.
void initDebug(const char *processName, const char *logDirectory);

// Changes to today's file if the date has changed since the file was opened.
void initFile(void);

// Writes a prefix and the finished text to each output that is on.
void DEBUG_LEVEL_COMMON(int level, const char *text);

// Formats a message and writes it with the level in gUserLevel. Cuts the message at 2048 characters.
void INFO_DEBUG(const char *format, ...) __attribute__((format(printf, 1, 2)));
}

// Writes a message if its level is not above gDebugLevel and an output is on.
#define PCCAST_DEBUG(level, ...)                                                                             \
    do {                                                                                                     \
        if (gDebugLevel >= (level) && (gPrintStdOut != 0 || gFileLog != 0)) {                                \
            gUserLevel = (level);                                                                            \
            INFO_DEBUG(__VA_ARGS__);                                                                         \
        }                                                                                                    \
    } while (false)

#endif

// report.h - one-line error reports of the framework libraries on standard error.
//
// Called by every module of the framework, on any thread. Remembers the lines that it wrote last.
#ifndef FRAMEWORK_REPORT_H
#define FRAMEWORK_REPORT_H

// Writes "pszWho: " and the formatted text as one line on standard error, in one write. Leaves out a line
// that was written less than ten seconds ago: a thread may retry a failing endpoint many times a second.
// Leaves errno as it was.
void frameworkReport(const char *pszWho, const char *pszFormat, ...) __attribute__((format(printf, 2, 3)));

#endif

// console.cpp - console lines, assertion reports and log records of a host's components; their arguments,
// and stand-ins for texts that are null.
//
// Called by any component, on any thread. Owns nothing between calls.
#include "report.h"

#include <qxapi.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <unistd.h>

namespace {

// Writes all bytes, in one write if the system takes them at once. Returns 0 or an errno.
int writeAll(int iFile, const char *pData, std::size_t ulLength) {
    while (ulLength > 0) {
        const ssize_t lWritten = write(iFile, pData, ulLength);
        if (lWritten < 0 && errno == EINTR) {
            continue;
        }
        if (lWritten <= 0) {
            return lWritten < 0 ? errno : EIO;
        }
        pData += lWritten;
        ulLength -= static_cast<std::size_t>(lWritten);
    }
    return 0;
}

// Formats "[pszTag] text\n" into memory that record then owns. Returns its length; 0 if memory runs out or
// the format is invalid.
__attribute__((format(printf, 3, 0))) std::size_t
formatRecord(std::unique_ptr<char, void (*)(void *)> &record, const char *pszTag, const char *pszFormat,
             va_list arguments) {
    va_list measured;
    va_copy(measured, arguments);
    const int iText = std::vsnprintf(nullptr, 0, pszFormat, measured);
    va_end(measured);
    const int iTag = std::snprintf(nullptr, 0, "[%s] ", pszTag);
    if (iText < 0 || iTag < 0) {
        return 0;
    }
    const auto ulTag = static_cast<std::size_t>(iTag);
    std::size_t ulLength = ulTag + static_cast<std::size_t>(iText);
    record.reset(static_cast<char *>(std::malloc(ulLength + 2)));
    if (!record) {
        return 0;
    }
    std::snprintf(record.get(), ulTag + 1, "[%s] ", pszTag);
    std::vsnprintf(record.get() + ulTag, static_cast<std::size_t>(iText) + 1, pszFormat, arguments);
    if (record.get()[ulLength - 1] != '\n') {
        record.get()[ulLength++] = '\n';
    }
    return ulLength;
}

} // namespace

int qxapi_printf(const char *pszFormat, ...) {
    va_list arguments;
    va_start(arguments, pszFormat);
    const int iWritten = std::vprintf(pszFormat, arguments);
    va_end(arguments);
    return std::fflush(stdout) == 0 ? iWritten : -1;
}

void qxapi_assert_gateway(int iCondition, const char *pszFile, const char *pszFunction, int iLine,
                          const char *pszText) {
    if (iCondition == 0) {
        std::fprintf(stderr, "%s:%d: %s(): assertion does not hold: %s\n", qxapi_check_string(pszFile), iLine,
                     qxapi_check_string(pszFunction), qxapi_check_string(pszText));
    }
}

int qxapi_log_printf(const char *pszTag, const char *pszFormat, ...) {
    std::unique_ptr<char, void (*)(void *)> record(nullptr, std::free);
    va_list arguments;
    va_start(arguments, pszFormat);
    const std::size_t ulLength = formatRecord(record, qxapi_check_string(pszTag), pszFormat, arguments);
    va_end(arguments);
    if (ulLength == 0) {
        frameworkReport("qxapi_log_printf", "a record of [%s] is lost: no memory for it",
                        qxapi_check_string(pszTag));
        return -1;
    }

    // Open the file anew for each record. Records are few, and after a log rotation the next one goes to
    // the new file.
    const char *pszLog = std::getenv("QX_LOG_FILE");
    const bool bFile = pszLog != nullptr && *pszLog != 0;
    if (!bFile) {
        pszLog = "standard output";
        std::fflush(stdout); // what was printed before the record stays before it
    }
    const int iFile =
        bFile ? open(pszLog, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY, 0644) : STDOUT_FILENO;
    const int iErrno = iFile < 0 ? errno : writeAll(iFile, record.get(), ulLength);
    if (bFile && iFile >= 0) {
        close(iFile);
    }
    if (iErrno != 0) {
        frameworkReport("qxapi_log_printf", "a record of [%s] is lost: %s: %s", qxapi_check_string(pszTag),
                        pszLog, std::strerror(iErrno));
        return -1;
    }
    return static_cast<int>(ulLength);
}

int qxapi_get_plugin_argument(const struct ts_qxapi_plugin_argument *pArgument) {
    if (pArgument == nullptr) {
        return 0;
    }
    if (pArgument->iCount < 0 || (pArgument->iCount > 0 && pArgument->ppszText == nullptr)) {
        return -1;
    }
    return pArgument->iCount;
}

const char *qxapi_check_string(const char *pszText) {
    return qxapi_check_string_ex(pszText, "NULL");
}

const char *qxapi_check_string_ex(const char *pszText, const char *pszFallback) {
    return pszText != nullptr ? pszText : pszFallback;
}

// timetext.cpp - the wall clock, calendar fields and text helpers.
#include <qxapi.h>

#include <ctime>

int qxapi_time_ex2(unsigned long *pulSeconds, unsigned long *pulMicroseconds) {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    if (pulSeconds != nullptr) {
        *pulSeconds = static_cast<unsigned long>(now.tv_sec);
    }
    if (pulMicroseconds != nullptr) {
        *pulMicroseconds = static_cast<unsigned long>(now.tv_nsec) / 1000;
    }
    return 1;
}

int qxapi_local_time(unsigned long ulSeconds, struct tm *pLocal) {
    if (pLocal == nullptr) {
        return 0;
    }
    const auto seconds = static_cast<time_t>(ulSeconds);
    if (seconds >= 0 && localtime_r(&seconds, pLocal) != nullptr) {
        return 1;
    }
    *pLocal = {};
    return 0;
}

const char *qxapi_check_string(const char *pszText) {
    return qxapi_check_string_ex(pszText, "NULL");
}

const char *qxapi_check_string_ex(const char *pszText, const char *pszFallback) {
    return pszText != nullptr ? pszText : pszFallback;
}

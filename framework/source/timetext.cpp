// timetext.cpp - the wall clock, calendar fields and text helpers.
#include <qxapi.h>

#include <time.h>

int qxapi_time_ex2(unsigned long *pulSeconds, unsigned long *pulMicroseconds) {
    timespec Now{};
    clock_gettime(CLOCK_REALTIME, &Now);
    if (pulSeconds != nullptr)
        *pulSeconds = static_cast<unsigned long>(Now.tv_sec);
    if (pulMicroseconds != nullptr)
        *pulMicroseconds = static_cast<unsigned long>(Now.tv_nsec) / 1000;
    return 1;
}

int qxapi_local_time(unsigned long ulSeconds, struct tm *pLocal) {
    if (pLocal == nullptr)
        return 0;
    const auto Seconds = static_cast<time_t>(ulSeconds);
    if (Seconds >= 0 && localtime_r(&Seconds, pLocal) != nullptr)
        return 1;
    *pLocal = {};
    return 0;
}

const char *qxapi_check_string(const char *pszText) {
    return qxapi_check_string_ex(pszText, "NULL");
}

const char *qxapi_check_string_ex(const char *pszText, const char *pszFallback) {
    return pszText != nullptr ? pszText : pszFallback;
}

// hosttime.cpp - the wall clock and calendar fields. Safe on any thread; owns nothing.
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

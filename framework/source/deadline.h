// deadline.h - a time-out that bounds several waits as a whole, on the monotonic clock.
#ifndef FRAMEWORK_DEADLINE_H
#define FRAMEWORK_DEADLINE_H

#include <algorithm>
#include <chrono>
#include <climits>

using DEADLINE = std::chrono::steady_clock::time_point;

inline DEADLINE deadlineIn(unsigned int uiTimeoutMs) {
    return std::chrono::steady_clock::now() + std::chrono::milliseconds(uiTimeoutMs);
}

// What is left, in milliseconds as poll() takes them, rounded up so that a wait never spins; 0 when it is
// over.
inline int deadlineLeft(DEADLINE Deadline) {
    const auto Left =
        std::chrono::ceil<std::chrono::milliseconds>(Deadline - std::chrono::steady_clock::now()).count();
    return static_cast<int>(std::clamp<long long>(Left, 0, INT_MAX));
}

#endif

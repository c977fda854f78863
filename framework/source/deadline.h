// deadline.h - a time-out that bounds several waits as a whole, on the monotonic clock.
#ifndef FRAMEWORK_DEADLINE_H
#define FRAMEWORK_DEADLINE_H

#include <algorithm>
#include <chrono>
#include <climits>

using Deadline = std::chrono::steady_clock::time_point;

inline Deadline deadlineIn(unsigned int uiTimeoutMs) {
    return std::chrono::steady_clock::now() + std::chrono::milliseconds(uiTimeoutMs);
}

// What is left, in milliseconds as poll() takes them, rounded up so that a wait never spins; 0 when it is
// over.
inline int deadlineLeft(Deadline deadline) {
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now()).count();
    return static_cast<int>(std::clamp<long long>(left, 0, INT_MAX));
}

#endif

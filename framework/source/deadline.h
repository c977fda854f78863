// deadline.h - one time-out for several waits together, on the monotonic clock.
#ifndef FRAMEWORK_DEADLINE_H
#define FRAMEWORK_DEADLINE_H

#include <algorithm>
#include <chrono>
#include <climits>

using Deadline = std::chrono::steady_clock::time_point;

inline Deadline deadlineIn(unsigned int uiTimeoutMs) {
    return std::chrono::steady_clock::now() + std::chrono::milliseconds(uiTimeoutMs);
}

// Returns the milliseconds left, as poll() takes them; 0 once the deadline is over. Rounds up, so that a
// wait for the last part of a millisecond does not spin.
inline int deadlineLeft(Deadline deadline) {
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now()).count();
    return static_cast<int>(std::clamp<long long>(left, 0, INT_MAX));
}

#endif

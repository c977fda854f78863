// timetext.h - the calendar text of a time, for printed records. It is safe on every thread.
#ifndef PCCAST_TIMETEXT_H
#define PCCAST_TIMETEXT_H

#include <array>
#include <ctime>

// Holds the text that ctime gives. A year too large for ctime gives a question mark.
struct TimeText {
    std::array<char, 32> text;
};

inline TimeText timeText(unsigned long ulSeconds) {
    TimeText result{{'?'}};
    const auto seconds = static_cast<time_t>(ulSeconds);
    if (ctime_r(&seconds, result.text.data()) == nullptr) {
        result = TimeText{{'?'}};
    }
    return result;
}

#endif

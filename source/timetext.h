// timetext.h - the calendar text of a time for the printed records.
#ifndef PCCAST_TIMETEXT_H
#define PCCAST_TIMETEXT_H

#include <array>
#include <ctime>

// Holds a ctime text; a time that has none (a year that does not fit) reads as a question mark.
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

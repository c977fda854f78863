// watchtable.h - the live table of watch: what is on air, what was said, what did not hold.
//
// Fed with every decoded datagram, drawn once a second. No input or output of its own; used by one thread.
#ifndef PCCAST_CLI_WATCHTABLE_H
#define PCCAST_CLI_WATCHTABLE_H

#include "airdecode.h"

#include <deque>

// A cast as its announcements tell it. A service has one cast on air at a time: a newer one of the same
// sender takes its place without an end announcement for the older.
struct WatchCast {
    std::string sSender;
    AirRecord record;
    unsigned long ulHeard; // the last announcement
    unsigned long ulEnded; // when its end was heard or it was replaced; 0 while it is on air
};

struct WatchMessage {
    std::string sSender;
    AirRecord record;
    unsigned long ulHeard;
    unsigned long ulTimes;
};

struct WatchProblem {
    std::string sSender;
    std::string sText;
    unsigned long ulHeard;
};

// Newest first, each list bounded.
struct WatchState {
    std::deque<WatchCast> casts;
    std::deque<WatchMessage> messages;
    std::deque<WatchProblem> problems;
    unsigned long ulDatagrams = 0;
};

void watchNote(WatchState *pState, const AirRecord &record, unsigned long ulNow, const std::string &sSender);

// The table as lines of at most uColumns columns, at most uRows of them. bColour: with colour escapes, which
// do not count as columns.
std::vector<std::string> watchDraw(const WatchState &state, unsigned long ulNow, size_t uColumns,
                                   size_t uRows, bool bColour);

#endif

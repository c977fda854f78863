// watchtable.h - the live table of watch: what is on air, what was said, what did not hold.
//
// Fed with every decoded datagram, drawn once a second. No input or output of its own; used by one thread.
#ifndef PCCAST_CLI_WATCHTABLE_H
#define PCCAST_CLI_WATCHTABLE_H

#include "airdecode.h"

#include <deque>

// A cast as its announcements tell it. A service has one cast on air at a time: a newer one of the same
// sender takes its place without an end announcement for the older.
struct WATCH_CAST {
    std::string sSender;
    AIR_RECORD record;
    unsigned long ulHeard; // the last announcement
    unsigned long ulEnded; // when its end was heard or it was replaced; 0 while it is on air
};

struct WATCH_MESSAGE {
    std::string sSender;
    AIR_RECORD record;
    unsigned long ulHeard;
    unsigned long ulTimes;
};

struct WATCH_PROBLEM {
    std::string sSender;
    std::string sText;
    unsigned long ulHeard;
};

// Newest first, each list bounded.
struct WATCH_STATE {
    std::deque<WATCH_CAST> casts;
    std::deque<WATCH_MESSAGE> messages;
    std::deque<WATCH_PROBLEM> problems;
    unsigned long ulDatagrams = 0;
};

void watchNote(WATCH_STATE *pState, const AIR_RECORD &record, unsigned long ulNow,
               const std::string &sSender);

// The table as lines of at most uColumns columns, at most uRows of them. bColour: with colour escapes, which
// do not count as columns.
std::vector<std::string> watchDraw(const WATCH_STATE &state, unsigned long ulNow, size_t uColumns,
                                   size_t uRows, bool bColour);

#endif

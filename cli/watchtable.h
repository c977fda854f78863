// watchtable.h - the live table of watch: the casts on air, the messages, and what was wrong.
//
// watch hands it every decoded datagram and draws it ten times a second at most. It reads and writes nothing
// itself, and one thread uses it.
#ifndef PCCAST_CLI_WATCHTABLE_H
#define PCCAST_CLI_WATCHTABLE_H

#include "airdecode.h"

#include <deque>

// A cast, known from its announcements. A service has one cast on air at a time. When the same sender
// announces another cast, the older one is over, although its end was not announced. An announcement whose
// CRC is wrong or missing is shown, but ends nothing.
struct WatchCast {
    std::string sSender;
    AirRecord record;
    unsigned long ulHeard; // the last announcement
    unsigned long ulEnded; // when its end was heard or another cast replaced it; 0 while it is on air
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

// Where the table is drawn.
struct WatchWindow {
    size_t uColumns = 80;
    size_t uRows = 24;
    bool bColour = false;          // with colour escapes; they do not count as columns
    const char *pszEnds = nullptr; // how the user ends it, for the first line
};

void watchNote(WatchState *pState, const AirRecord &record, unsigned long ulNow, const std::string &sSender);

// Draws the table as at most uRows lines of at most uColumns columns. A long message goes on in the rows that
// nothing else needs.
std::vector<std::string> watchDraw(const WatchState &state, unsigned long ulNow, const WatchWindow &window);

#endif

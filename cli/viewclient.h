// viewclient.h - asks the running service what it does, at the socket PCCAST_VIEW_SOCKET.
//
// Used by the commands that show the view or wait for an event, in any thread. Each call has a connection of
// its own. The answers are as in docs/view.schema.json.
#ifndef PCCAST_CLI_VIEWCLIENT_H
#define PCCAST_CLI_VIEWCLIENT_H

#include "json.h"
#include "statestore.h"

#include <string>

enum ViewResult {
    VIEW_ANSWERED,
    // Nobody listens: no service runs, or its host has no view.
    VIEW_ABSENT,
    // Somebody listens but gives no answer, or is not to be trusted.
    VIEW_FAILED
};

// The longest wait for events that the service accepts, seconds.
constexpr unsigned int kViewWaitMax = 30;

// Every call leaves its outputs alone unless it returns VIEW_ANSWERED. Else *psProblem says why, as a
// sentence without a full stop.

// What the service does now.
ViewResult getView(Json *pView, std::string *psProblem);

// The events with numbers above ulAfter, at most 256, oldest first: {"last": N, "lost": N, "events": [...]}.
// last: the number to go on from. lost: events above ulAfter that are no longer kept. If there is none yet,
// the call waits up to uiWait seconds for the first. If ulAfter is above the newest number, the service is
// not the one that gave it: the answer comes at once, and last is the newest number.
ViewResult getEvents(unsigned long ulAfter, unsigned int uiWait, Json *pEvents, std::string *psProblem);

// The next entries of the history that the query asks for, as Store::history gives them. VIEW_FAILED also
// when the service keeps no state.
ViewResult getHistory(const HistoryQuery &query, Json *pAnswer, std::string *psProblem);

// The number of the newest event, 0 when there is none.
ViewResult getNewestEvent(unsigned long *pulNumber, std::string *psProblem);

#endif

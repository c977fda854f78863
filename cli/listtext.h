// listtext.h - writes the view and the events for people: the lines of list, status, events and of the audit.
//
// Pure functions. They take the objects of docs/view.schema.json. Texts in them are made safe here.
#ifndef PCCAST_CLI_LISTTEXT_H
#define PCCAST_CLI_LISTTEXT_H

#include "json.h"

#include <string>
#include <vector>

// What the lines are written for.
struct Screen {
    size_t uColumns; // 0: as wide as it takes
    bool bColour;
    bool bBar; // with progress bars
};

// What a line must know of the events before it: since when a relay is silent.
struct EventMemory {
    unsigned long ulRequest = 0;
    unsigned long ulSilentSince = 0;
};

// "started relay 7:2:...  239.0.0.1:4000 -> 239.1.2.3:5000 until 20:00:00". The event, the kind and the
// identity come first, one blank between them.
std::string eventText(const Json &event, EventMemory *pMemory);
// Number and time in front.
std::string eventLine(const Json &event, EventMemory *pMemory);
// Says that so many events are no longer kept.
std::string lostText(unsigned long ulLost);

// The requests of a view, those on air first, then in the order in which things will happen, those over last.
// A request that waits for another one has the key why.
std::vector<Json> listRequests(const Json &view);
std::vector<std::string> listLines(const Json &view, const Screen &screen);

// events: those still kept. The last failures are picked from them.
std::vector<std::string> statusLines(const Json &view, const std::vector<Json> &events, const Screen &screen);

// A bar of uWidth columns, filled up to ulDone of ulAll: "[####----]  50%".
std::string progressBar(unsigned long ulDone, unsigned long ulAll, size_t uWidth);

#endif

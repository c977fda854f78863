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

// "relay of EPG 7"
std::string shortNameOf(const Json &request);
// Why the event has happened, as "the file has ended" or "by stop 7:2:..."; empty when it gives no reason.
std::string reasonText(const Json &event);
// The time of day, with the date when it is not the day of ulNow.
std::string moment(unsigned long ulTime, unsigned long ulNow);
// How the cast on air does, a relay or a file; empty when the request is not on air.
std::string trafficLine(const Json &view, unsigned long ulRequest);
// How far a request that is on air has come: a file in its length, another one in its time. Empty when that
// is not known.
std::string onAirBar(const Json &view, const Json &request);

// A bar of uWidth columns, filled up to ulDone of ulAll: "[####----]  50%".
std::string progressBar(unsigned long ulDone, unsigned long ulAll, size_t uWidth);

#endif

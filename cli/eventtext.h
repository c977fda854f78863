// eventtext.h - writes the events for people: the lines of events, of --follow and of the audit.
//
// Pure functions. They take the events of docs/view.schema.json. Texts in them are made safe here.
#ifndef PCCAST_CLI_EVENTTEXT_H
#define PCCAST_CLI_EVENTTEXT_H

#include "json.h"

#include <string>

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
// Why the event has happened, as "the file has ended" or "by stop 7:2:..."; empty when it gives no reason.
std::string reasonText(const Json &event);
// Says that so many events are no longer kept.
std::string lostText(unsigned long ulLost);

#endif

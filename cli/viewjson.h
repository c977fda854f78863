// viewjson.h - the view and the events of the plug-in as JSON, for the view socket.
//
// Pure functions, used by serve on any thread. docs/view.schema.json describes the objects. A key is left out
// when it has no value. Times are seconds since the epoch. Keys of encryption are never written.
//
// A request, in a view and in an event:
//   request      its number in this run of the service
//   kind         relay, file, message, stop, cancel, or other: a command or type that the service does not
//   know epg, identity, created, start, end source, file, destination, format, encrypted            of a cast
//   priority, repeats, text, text_bytes                     of a message
//
// A view:  time, since, events, lost, passes, requests, threads, relay, playout, announcements, broadcasts.
//   Each request has in front, behind its number: place, filed, started, preempted_by, repeats_left.
// An event: number, time, milliseconds, event, reason, the request, repeats_left, other, traffic.
#ifndef PCCAST_CLI_VIEWJSON_H
#define PCCAST_CLI_VIEWJSON_H

#include "json.h"

#include <pccast/view.h>

// A message's text is written up to this many bytes; text_bytes tells how many it has.
constexpr size_t kViewTextMax = 1024;

// The words of PCCAST_EVENT_... and PCCAST_REASON_...
const char *eventName(unsigned int uiKind);
const char *reasonName(unsigned int uiReason);
// relay, file, message, stop, cancel or other; and what pccast stop or cancel takes.
const char *kindOf(const CASTInfo &cast);
const char *kindOf(const MSGInfo &message);
std::string identityOf(const CASTInfo &cast);
std::string identityOf(const MSGInfo &message);

Json viewJSON(const PCCASTView &view);
Json eventJSON(const PCCASTEvent &event);

#endif

// statustext.h - writes what the service does now for people: the lines of status and of --follow.
//
// Pure functions. They take the view of docs/view.schema.json. Texts in it are made safe here.
#ifndef PCCAST_CLI_STATUSTEXT_H
#define PCCAST_CLI_STATUSTEXT_H

#include "json.h"
#include "viewwords.h"

#include <string>
#include <vector>

// events: those still kept. The last failures are picked from them.
std::vector<std::string> statusLines(const Json &view, const std::vector<Json> &events, const Screen &screen);

// How the cast on air does, a relay or a file; empty when the request is not on air.
std::string trafficLine(const Json &view, unsigned long ulRequest);
// How far a request that is on air has come: a file in its length, another one in its time. Empty when that
// is not known.
std::string onAirBar(const Json &view, const Json &request);

#endif

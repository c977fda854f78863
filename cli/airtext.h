// airtext.h - writes a decoded datagram as a line for people, and as a JSON object for programs.
//
// Pure functions, used by watch. Texts from the network are made safe here.
#ifndef PCCAST_CLI_AIRTEXT_H
#define PCCAST_CLI_AIRTEXT_H

#include "airdecode.h"

// Neither ends in a newline. ulNow: when the datagram was heard, seconds; sSender: its address.
std::string airLine(const AirRecord &record, unsigned long ulNow, const std::string &sSender);
std::string airJSON(const AirRecord &record, unsigned long ulNow, const std::string &sSender);

// The identity that stop takes, as far as an announcement gives it: it tells a relay but not which of the two
// types, so 2 is taken, and a format but not which number of it. Empty when port or times are missing.
std::string airIdentity(const AirRecord &record);

// "address:port", or "the station's group"; empty when the record names no destination.
std::string airDestination(const AirRecord &record);

#endif

// airsocket.h - joins groups: that of the announcements and messages, and those of the casts.
//
// Used by watch, tune and receive. An endpoint belongs to one thread.
#ifndef PCCAST_CLI_AIRSOCKET_H
#define PCCAST_CLI_AIRSOCKET_H

#include <qxapi_ktn.h>

#include <memory>
#include <string>

using AirSocket = std::unique_ptr<KTNET_ENDPOINT, void (*)(KTNET_ENDPOINT *)>;

// Joins sGroup on a port. sInterface: a name, an address, or empty for the routing table's choice. An address
// that is no group is received as unicast. Returns null when that fails; the reason is on standard error.
AirSocket joinGroup(const std::string &sGroup, unsigned short usPort, const std::string &sInterface);

// Leaves the group and joins it again, because an interface that went away takes its memberships with it, and
// switches forget them. Returns 0, or an errno.
int rejoinGroup(const KTNET_ENDPOINT &endpoint);

#endif

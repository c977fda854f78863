// airsocket.h - joins groups: that of the announcements and messages, and those of the casts.
//
// Used by watch, tune and receive. An endpoint belongs to one thread.
#ifndef PCCAST_CLI_AIRSOCKET_H
#define PCCAST_CLI_AIRSOCKET_H

#include <qxapi_ktn.h>
#include <sys/socket.h>

#include <array>
#include <memory>
#include <span>
#include <string>

using AirSocket = std::unique_ptr<KTNET_ENDPOINT, void (*)(KTNET_ENDPOINT *)>;

// Joins sGroup on a port. sInterface: a name, an address, or empty for the routing table's choice. An address
// that is no group is received as unicast. Returns null when that fails; the reason is on standard error.
AirSocket joinGroup(const std::string &sGroup, unsigned short usPort, const std::string &sInterface);

// Leaves a group and joins it again, by new sockets for all of usPorts: an interface that went away takes its
// memberships with it, and switches forget them. All are closed first, because the system tells the network
// only of the last one that leaves and the first one that joins. While there is no such interface, or no
// route, nothing is said. Returns true when all have joined; what has not is null.
bool rejoinGroup(const std::string &sGroup, std::span<const unsigned short> ports,
                 const std::string &sInterface, std::span<AirSocket> sockets);

// Hands each datagram that has come to take(bytes, length), at most so many that a flood keeps nothing else
// waiting.
template <typename Take>
void drainSocket(int iSocket, Take take) {
    std::array<unsigned char, 65536> aBytes;
    for (int i = 0; i < 256; ++i) {
        const ssize_t lLength = recv(iSocket, aBytes.data(), aBytes.size(), MSG_DONTWAIT);
        if (lLength < 0) {
            return;
        }
        take(aBytes.data(), static_cast<size_t>(lLength));
    }
}

#endif

// udpsocket.h - opens IPv4 UDP sockets for multicast groups and plain addresses, and sends on them.
//
// Called by the KTNet endpoints and by the file casters, on any thread; a sender belongs to one thread. Owns
// nothing: the caller closes the socket. A failure to open is reported with frameworkReport.
//
// A send rides out a short fault of the network: no buffers, no route, an interface that is down or gone. It
// tries again for kUdpRideOutMs at most. If the fault lasts, the sends after it fail at once, so that a
// stream is held up once and not at every datagram. All the while the way to the target is looked for anew,
// so that sending goes on when an interface was deleted and has been made again.
#ifndef FRAMEWORK_UDPSOCKET_H
#define FRAMEWORK_UDPSOCKET_H

#include "deadline.h"

#include <netinet/in.h>
#include <sys/socket.h>

constexpr int kUdpRideOutMs = 500;

// A sending socket, and what is needed to find its way again.
struct UdpSender {
    int iSocket = -1;
    sockaddr_in target{};
    char szInterface[64]{}; // as the opener was given it
    bool bFault = false;    // a fault was waited for in vain, and nothing has been sent since
    Deadline nextSearch{};  // during such a fault: when the way is looked for next
};

// Opens a socket connected to pszAddress:usPort. Receivers on this machine get a copy of what is sent to a
// group.
// pszInterface: the interface that sends to a group, by name or address. If null or empty, the environment
// variable KTNET_MULTICAST_IF names it, else the routing table does. For a plain address the routing table
// always decides.
// iHops: multicast hop limit 0 to 255; -1 leaves the system's default.
// Returns the socket, which sender then holds, or a negative errno; sender then holds none.
int udpOpenSender(UdpSender &sender, const char *pszAddress, unsigned short usPort, const char *pszInterface,
                  int iHops);

// Opens a socket that receives what is sent to pszAddress:usPort and nothing else. If the address is a group,
// joins it; other receivers on this machine may join it too. Else binds the address, which must be one of
// this machine. pszInterface: where to join the group, by name or address. If null or empty, the routing
// table decides. Returns the socket, or a negative errno.
int udpOpenReceiver(const char *pszAddress, unsigned short usPort, const char *pszInterface);

// Sends one datagram on a connected socket. An answer to an earlier datagram may have left an error on the
// socket; this one is sent all the same. Returns the bytes sent, or a negative errno. Does not report it:
// the caller knows the target's name.
int udpSend(UdpSender &sender, const void *pData, unsigned long ulLength);

// Sends one datagram that is in pieces. Otherwise as udpSend.
int udpSendMessage(UdpSender &sender, const msghdr &message);

#endif

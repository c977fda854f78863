// udpsocket.h - opening IPv4 UDP sockets, for multicast groups and plain addresses alike, and sending on
// them.
//
// Called by the KTNet endpoints and by the file casters, on any thread. Owns nothing: the socket returned is
// the caller's to close. Failures to open are reported with frameworkReport.
#ifndef FRAMEWORK_UDPSOCKET_H
#define FRAMEWORK_UDPSOCKET_H

#include <sys/socket.h>

// Opens a socket connected to pszAddress:usPort. To a group the datagrams leave through pszInterface (a name
// or an address of this machine; null or empty: the one that the environment variable KTNET_MULTICAST_IF
// names, else the routing table's), and receivers on this machine get a copy; to a plain address they go
// where the routing table says. iHops: multicast hop limit 0 to 255, -1 leaves the system's default. Returns
// the socket, or a negative errno.
int udpOpenSender(const char *pszAddress, unsigned short usPort, const char *pszInterface, int iHops);

// Opens a socket that receives what is sent to pszAddress:usPort and nothing else: a group is joined on
// pszInterface (name or address; null or empty: the routing table's choice), beside other receivers of this
// machine; an address of this machine is bound plainly.
// Returns the socket, or a negative errno.
int udpOpenReceiver(const char *pszAddress, unsigned short usPort, const char *pszInterface);

// Sends one datagram on a connected socket. An error that the answer to an earlier datagram left on the
// socket does not keep this one back. Returns the bytes sent, or a negative errno (not reported: the caller
// knows the target's name).
int udpSend(int iSocket, const void *pData, unsigned long ulLength);

// The same for a datagram in pieces.
int udpSendMessage(int iSocket, const msghdr &message);

#endif

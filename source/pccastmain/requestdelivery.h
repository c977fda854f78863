// requestdelivery.h - how a request gets from a commander's sender to the receiver's local socket.
#ifndef PCCAST_REQUESTDELIVERY_H
#define PCCAST_REQUESTDELIVERY_H

#include "ktnet.h"

// Sends the packet over a client endpoint of its own, on the caller's thread: creates, connects, sends,
// closes. The payload is released; without one (no memory, nothing to say) the endpoint is created and no
// more. iConnected: the least result of the connecting that counts as connected. Returns the result of the
// last step of the network library that was made.
int requestDeliver(KTNET_USE eUse, int iConnected, KTNET_PACKET *pPacket);

#endif

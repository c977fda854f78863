// requestsender.h - sends a request to the local socket of its receiver.
#ifndef PCCAST_REQUESTSENDER_H
#define PCCAST_REQUESTSENDER_H

#include "ktnet.h"

// Sends the packet over a client endpoint of its own, on the caller's thread: creates, connects, sends,
// closes. Releases the payload. Without a payload (no memory, nothing to say) it only creates the endpoint.
// iConnected: the least result of connecting that counts as connected.
// Returns the result of the last step that the network library made.
int sendRequest(KTNET_USE eUse, int iConnected, KTNET_PACKET *pPacket);

#endif

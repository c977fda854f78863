// requestsender.h - sends a request to the local socket of its receiver.
//
// The two senders of commander.h call it on the thread of their caller.
#ifndef PCCAST_REQUESTSENDER_H
#define PCCAST_REQUESTSENDER_H

#include "ktnet.h"

// Creates a client endpoint, connects, sends the packet and closes the endpoint. Releases the payload.
// Without a payload it only creates the endpoint.
// iConnected: the smallest result of connecting that means connected.
// Returns the result of the last step of the network library.
int sendRequest(KTNET_USE eUse, int iConnected, KTNET_PACKET *pPacket);

#endif

// ktnet.h - opens the endpoints of the network library, with one opener for each kind.
//
// The engines and the request sender call the openers. They use the library's calls on the descriptor and
// close it with KTNETClose. Nobody else sets endpoint fields, except that a receiver clears uiError. A
// descriptor belongs to the thread that opened it.
#ifndef PCCAST_KTNET_H
#define PCCAST_KTNET_H

#include <qxapi_ktn.h>

// The endpoints of the system. Each is a row of the settings table in ktnet.cpp.
enum KTNET_USE {
    KTNET_CAST_RECEIVER,    // local server, cast requests
    KTNET_MESSAGE_RECEIVER, // local server, message requests
    KTNET_CAST_SENDER,      // local client, cast requests
    KTNET_MESSAGE_SENDER,   // local client, message requests
    KTNET_ANNOUNCEMENT,     // multicast sender, announcements
    KTNET_BROADCAST,        // multicast sender, message broadcasts
    KTNET_STREAM_RECEIVER,  // multicast receiver, the stream to relay
    KTNET_STREAM_SENDER     // multicast sender, the relayed stream
};

// The step of opening that gave an opener's result.
enum KTNET_STEP { KTNET_STEP_INIT, KTNET_STEP_CONFIGURE, KTNET_STEP_CREATE };

// The openers make a descriptor in *ppDesc, set its fields for eUse and create its socket. After a failure
// *ppDesc may still hold a descriptor: the caller passes it to KTNETClose in any case.
// peStep: may be null; *peStep tells which step gave the result.
// Return the library's result: positive, with a descriptor, means open. Return -1 also for an address that is
// too long (printed) and for a row of another kind.

// Local sockets.
int KTNETOpenServer(KTNET_ENDPOINT **ppDesc, KTNET_USE eUse, KTNET_STEP *peStep);
int KTNETOpenClient(KTNET_ENDPOINT **ppDesc, KTNET_USE eUse, KTNET_STEP *peStep);

// UDP sockets. A sender gets a hop limit of 5.
// pszPeer: where to send to, or what to receive; null: the address of the row.
// usPort: the port, if the row has none.
// pszLocal: address of the interface; null: the library chooses.
int KTNETOpenSender(KTNET_ENDPOINT **ppDesc, KTNET_USE eUse, const char *pszPeer, unsigned short usPort,
                    const char *pszLocal, KTNET_STEP *peStep);
// pInitialised: called after the library has initialised the descriptor, before the next step.
int KTNETOpenReceiver(KTNET_ENDPOINT **ppDesc, KTNET_USE eUse, const char *pszPeer, unsigned short usPort,
                      const char *pszLocal, KTNET_STEP *peStep, void (*pInitialised)());

// Closes the socket, releases the descriptor and sets *ppDesc to null. Does nothing if *ppDesc is null.
void KTNETClose(KTNET_ENDPOINT **ppDesc);

#endif

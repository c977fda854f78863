// ktnet.h - the system's layer over the network endpoint library: one opener per kind of endpoint.
//
// Nobody else sets endpoint fields, but for uiError, which a receiver clears. The engines call the openers,
// use the library's calls on the descriptor, and close it with KTNETClose. A descriptor belongs to the thread
// that opened it.
#ifndef PCCAST_KTNET_H
#define PCCAST_KTNET_H

#include <qxapi_ktn.h>

// The endpoints of the system, rows of the settings table in ktnet.cpp.
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

// The step whose result an opener returned.
enum KTNET_STEP { KTNET_STEP_INIT, KTNET_STEP_CONFIGURE, KTNET_STEP_CREATE };

// Each opener makes a descriptor in *ppDesc, configures it for eUse and creates its socket. *ppDesc receives
// whatever the library left there, also after a failure: the caller passes it to KTNETClose.
// Returns the library's result (positive, with a descriptor: open); -1 for an address that does not fit
// (printed) or a row of another kind. *peStep (may be null) tells which step the result is of.
int KTNETOpenServer(KTNET_ENDPOINT **ppDesc, KTNET_USE eUse, KTNET_STEP *peStep);
int KTNETOpenClient(KTNET_ENDPOINT **ppDesc, KTNET_USE eUse, KTNET_STEP *peStep);
// pszPeer, usPort: where to send, or what to receive, in rows that name none. A sender gets a hop limit
// of 5.
// pszLocal: address of the interface; null: the library's choice.
int KTNETOpenSender(KTNET_ENDPOINT **ppDesc, KTNET_USE eUse, const char *pszPeer, unsigned short usPort,
                    const char *pszLocal, KTNET_STEP *peStep);
// pInitialised: called once the library has initialised the descriptor, before anything else.
int KTNETOpenReceiver(KTNET_ENDPOINT **ppDesc, KTNET_USE eUse, const char *pszPeer, unsigned short usPort,
                      const char *pszLocal, KTNET_STEP *peStep, void (*pInitialised)());

// Closes the descriptor's socket and releases the descriptor; null is ignored.
void KTNETClose(KTNET_ENDPOINT **ppDesc);

#endif

// bypassengine.h - the two endpoints of the relay.
//
// Only the bypass thread and the tests call these.
#ifndef PCCAST_BYPASSENGINE_H
#define PCCAST_BYPASSENGINE_H

#include <qxapi_ktn.h>

extern "C" {

// Close the endpoint in *ppDesc, if any, and open the receiver (Rx) or the sender (Tx) there. After a failure
// *ppDesc may still hold a descriptor: the caller closes it in any case.
// pszPeer: group or address. pszLocal: address of the interface; null: the library chooses.
// Return 1, or the result of the call that failed (0 or less). A failure is written to the debug log.
int initMSTREAMRxNetEx(KTNET_ENDPOINT **ppDesc, const char *pszPeer, unsigned short usPort,
                       const char *pszLocal);
int initSTREAMTxNet(KTNET_ENDPOINT **ppDesc, const char *pszPeer, const char *pszLocal, int iPort);
}

#endif

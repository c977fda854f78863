// bypassengine.h - the two endpoints of the relay.
//
// Used by the bypass thread alone, and by the tests.
#ifndef PCCAST_BYPASSENGINE_H
#define PCCAST_BYPASSENGINE_H

#include <qxapi_ktn.h>

extern "C" {

// Open one endpoint each into *ppDesc. An endpoint that is there is closed first. After a failure *ppDesc
// holds what the library left, and the caller closes that as well. pszPeer: group or address. pszLocal:
// address of the receiving interface; may be null. Return 1, or the failing call's result (0 or less). A
// failure is written to the debug log.
int initMSTREAMRxNetEx(KTNET_ENDPOINT **ppDesc, const char *pszPeer, unsigned short usPort,
                       const char *pszLocal);
int initSTREAMTxNet(KTNET_ENDPOINT **ppDesc, const char *pszPeer, const char *pszLocal, int iPort);
}

#endif

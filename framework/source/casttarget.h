// casttarget.h - the target of a cast as text: an IPv4 address, and a port.
//
// Used by the casters and by the station files. No state.
#ifndef FRAMEWORK_CASTTARGET_H
#define FRAMEWORK_CASTTARGET_H

#include <string>

struct CastTarget {
    std::string sAddress;
    unsigned short usPort = 0;
};

// Whether sAddress is an IPv4 address that can be sent to. Returns false and the reason when it is not.
bool castTargetCheckAddress(const std::string &sAddress, std::string &sReason);

// Reads "address:port" or "address", the port then being uiPort. Returns false and the reason when it is
// none.
bool castTargetParse(const char *pszTarget, unsigned int uiPort, CastTarget &target, std::string &sReason);

#endif

// casttarget.h - reads the target of a cast from text: an IPv4 address and a port.
//
// Used by the casters and by the station files. No state.
#ifndef FRAMEWORK_CASTTARGET_H
#define FRAMEWORK_CASTTARGET_H

#include <string>

struct CastTarget {
    std::string sAddress;
    unsigned short usPort = 0;
};

// Returns whether sAddress is an IPv4 address to which datagrams can go. If not, sReason takes the reason.
bool castTargetCheckAddress(const std::string &sAddress, std::string &sReason);

// Reads "address:port", or "address" with the port uiPort. Returns false and the reason if the text is
// neither.
bool castTargetParse(const char *pszTarget, unsigned int uiPort, CastTarget &target, std::string &sReason);

#endif

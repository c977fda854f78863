// fuzzserver.h - runs a request receiver of the plug-in, its whole thread body, on arbitrary requests.
//
// Called by the fuzz targets on one thread. Takes the place of the network library: each request is one
// connection.
#ifndef FUZZ_FUZZSERVER_H
#define FUZZ_FUZZSERVER_H

#include "engines.h"
#include "promise.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

struct FuzzRequest {
    unsigned int uiCommand;
    std::string sPayload;
};

// Cuts the input into requests. Each is a command byte, a 16-bit length and that many bytes of payload. The
// last one takes what is left.
std::vector<FuzzRequest> fuzzRequests(const std::uint8_t *pData, std::size_t ulSize);

// Runs the receiver pBody on these requests, from its start to its end. Calls after for each request once
// the receiver has handled it.
void fuzzServe(int (*pBody)(KTPLUGIN_INFO_TAG *), void *pWork, const std::vector<FuzzRequest> &requests,
               const std::function<void(const FuzzRequest &)> &after);

// Returns the values of the payload's items up to the first that is not whole, by their tags: the last value
// for each tag.
std::map<unsigned int, std::string> fuzzItems(const std::string &sPayload);

// Returns the number in the first ulBytes of a value, least significant byte first. Missing bytes are 0.
unsigned long fuzzNumber(const std::string &sValue, std::size_t ulBytes);

// Returns whether pszText is the text of the value, up to the value's first NUL.
inline bool fuzzIsText(const char *pszText, const std::string &sValue) {
    return pszText != nullptr && std::string(pszText) == std::string(sValue.c_str());
}

#endif

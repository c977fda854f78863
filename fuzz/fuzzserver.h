// fuzzserver.h - a request receiver of the plug-in, its whole thread body, on arbitrary requests: the network
// library under it is played here, one connection a request.
#ifndef FUZZ_FUZZSERVER_H
#define FUZZ_FUZZSERVER_H

#include "engines.h"
#include "promise.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

struct FuzzRequest {
    unsigned int uiCommand;
    std::string sPayload;
};

// Cuts the input into requests: a command byte, a 16-bit length, and so many bytes of payload, or what is
// left.
std::vector<FuzzRequest> fuzzRequests(const std::uint8_t *pData, std::size_t ulSize);

// Runs the receiver on these requests, from its start to its end; After is told of each once it is dealt
// with.
void fuzzServe(int (*pBody)(KTPLUGIN_INFO_TAG *), void *pWork, const std::vector<FuzzRequest> &requests,
               const std::function<void(const FuzzRequest &)> &after);

// The values by their tags, the last of each tag; none unless the payload is whole items to its end.
std::optional<std::map<unsigned int, std::string>> fuzzItems(const std::string &sPayload);

// The number in the first ulBytes of a value, the missing ones 0.
unsigned long fuzzNumber(const std::string &sValue, std::size_t ulBytes);

// Whether a text was filed as the value says, up to its first NUL.
inline bool fuzzIsText(const char *pszText, const std::string &sValue) {
    return pszText != nullptr && std::string(pszText) == std::string(sValue.c_str());
}

#endif

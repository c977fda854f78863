// request.h - the options that all requests share: the programme and the times, and what is said of them.
//
// Used by relay, file and message in the main thread.
#ifndef PCCAST_CLI_REQUEST_H
#define PCCAST_CLI_REQUEST_H

#include "submit.h"

#include <string>

// Seconds that a cast lasts when neither --end nor --for is given: 1h.
constexpr unsigned long kCastDefaultFor = 3600;

// The options as given. The preset values hold for those that are not.
struct RequestOptions {
    std::string sEPG = "1";
    std::string sStart = "now";
    std::string sEnd;
    std::string sFor;
    ServiceOptions service;
};

// The options as read.
struct RequestTimes {
    unsigned long ulEPGID;
    unsigned long ulCT; // now
    unsigned long ulST;
    unsigned long ulET;
};

// pszDefaultFor: the help's words for how long it lasts when neither --end nor --for is given.
void addRequestOptions(CLI::App *pCommand, RequestOptions &options, const char *pszDefaultFor);

// ulDefaultFor: seconds from start to end when neither --end nor --for is given. Returns EXIT_DONE, or
// EXIT_USAGE or EXIT_BAD_DATA (the end has passed, or is not after the start), said on standard error.
int readRequestOptions(const RequestOptions &options, unsigned long ulDefaultFor, RequestTimes *pTimes);

// Reaches the service, and reads the times once more: "now" has moved if the service had to be waited for.
// Returns what reachService and readRequestOptions return.
int reachForRequest(const RequestOptions &options, unsigned long ulDefaultFor, ServiceKind eKind,
                    Service *pService, RequestTimes *pTimes);

// Says on standard error when the cast is an ASF cast and this machine has no station file.
void warnWithoutStationFile(unsigned long ulFormat);

#endif

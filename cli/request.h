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
    bool bFollow = false;
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
void addRequestOptions(const Command &command, RequestOptions &options, const char *pszDefaultFor);

// ulDefaultFor: seconds from start to end when neither --end nor --for is given. Returns EXIT_DONE, or
// EXIT_USAGE or EXIT_BAD_DATA (the end has passed, or is not after the start), said on standard error.
int readRequestOptions(const RequestOptions &options, unsigned long ulDefaultFor, RequestTimes *pTimes);

// Reaches the service, and reads the times once more: "now" has moved if the service had to be waited for.
// Returns what reachService and readRequestOptions return.
int reachForRequest(const RequestOptions &options, unsigned long ulDefaultFor, ServiceKind eKind,
                    Service *pService, RequestTimes *pTimes);

// Submits the request of a relay or a file, prints its identity and says what becomes of it. sDescription:
// "relay of A to B". Returns what submitCast and tellOutcome return.
int requestCast(const RequestOptions &options, const Service &service, const CastRequest &request,
                const std::string &sDescription);

#endif

// request.h - what the commands that submit a request have in common: the options for programme and times,
// and the sending of a cast or message record.
//
// Called in the main thread. The records are made and released here, by the plug-in's own operations.
#ifndef PCCAST_CLI_REQUEST_H
#define PCCAST_CLI_REQUEST_H

#include "clitext.h"
#include "service.h"

#include <string>
#include <vector>

namespace CLI {
class App;
}

// Seconds that a cast lasts when neither --end nor --for is given: 1h.
constexpr unsigned long kCastDefaultFor = 3600;

// The options as given; addRequestOptions fills in what is not.
struct RequestOptions {
    std::string sEPG = "1";
    std::string sStart = "now";
    std::string sEnd;
    std::string sFor;
    std::string sPlugin;
};

// The options as read.
struct RequestTimes {
    unsigned long ulEPGID;
    unsigned long ulCT; // now
    unsigned long ulST;
    unsigned long ulET;
};

// A cast request before it is one: texts and key are copied into the record.
struct CastRequest {
    CastIdentity identity; // with it the destination port
    unsigned long ulCT;
    std::string sSource;
    unsigned short usSourcePort;
    std::string sDestination;
    std::string sFile;
    unsigned long ulMSID;
    int iEncryptionType;
    std::vector<unsigned char> key;
    int iASFSplit;
};

// pszDefaultFor: the help's words for how long it lasts when neither --end nor --for is given.
void addRequestOptions(CLI::App *pCommand, RequestOptions &options, const char *pszDefaultFor);

// ulDefaultFor: seconds from start to end when neither --end nor --for is given. Returns EXIT_DONE;
// EXIT_USAGE or EXIT_BAD_DATA (an end that has passed or does not follow the start), said on standard error.
int readRequestOptions(const RequestOptions &options, unsigned long ulDefaultFor, RequestTimes *pTimes);

// Loads the plug-in and submits; the exit code, everything but success said on standard error.
int sendCast(const std::string &sPlugin, unsigned long ulCMD, const CastRequest &request);
int sendMessage(const std::string &sPlugin, unsigned long ulCMD, const MessageIdentity &identity,
                unsigned long ulRepeat, const std::string &sText);

// Says on standard error when an ASF cast lacks the host's station file.
void warnWithoutStationFile(unsigned long ulFormat);

#endif

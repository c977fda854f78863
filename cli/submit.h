// submit.h - submits a request to the service.
//
// Called by relay, file, stop, message and cancel in the main thread. The plug-in's own operations make the
// record, submit it and release it. First come the checks that explain a failure: is the service switched on,
// and does anybody listen?
#ifndef PCCAST_CLI_SUBMIT_H
#define PCCAST_CLI_SUBMIT_H

#include "clitext.h"

#include <pccast/castinfo.h>
#include <pccast/msginfo.h>

#include <string>
#include <vector>

// What a cast request is made from. The record gets copies of the texts and the key.
struct CastRequest {
    CastIdentity identity; // its port is the destination's
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

// Both load the plug-in at sPlugin (empty: this program's own) and submit the request with command ulCMD.
// They return EXIT_DONE when the service has taken it. Else the reason is on standard error, and they return
// EXIT_UNAVAILABLE, EXIT_SWITCHED_OFF, EXIT_BAD_DATA (the request is incomplete) or EXIT_INTERNAL (no
// memory).
int submitCast(const std::string &sPlugin, unsigned long ulCMD, const CastRequest &request);
int submitMessage(const std::string &sPlugin, unsigned long ulCMD, const MessageIdentity &identity,
                  unsigned long ulRepeat, const std::string &sText);

#endif

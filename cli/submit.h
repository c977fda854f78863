// submit.h - reaches the service and submits requests to it.
//
// Called by relay, file, stop, message and cancel in the main thread. The plug-in's own operations make the
// record, submit it and release it. First come the checks that explain a failure: is the service switched on,
// does anybody listen, and who is it?
#ifndef PCCAST_CLI_SUBMIT_H
#define PCCAST_CLI_SUBMIT_H

#include "clitext.h"
#include "pluginloader.h"

#include <pccast/castinfo.h>
#include <pccast/msginfo.h>

#include <functional>
#include <string>
#include <vector>

#include <sys/types.h>

// The options of every command that submits something, as given.
struct ServiceOptions {
    std::string sPlugin;
    std::string sWait = "0";
};

void addServiceOptions(const Command &command, ServiceOptions &options);

// Has the command run action when it is called, and keeps its exit code in iExitCode. Whatever the plug-in or
// the framework prints meanwhile goes to standard error; printResult alone writes standard output.
void setRequestAction(const Command &command, std::function<int()> action, int &iExitCode);

enum class ServiceKind { Casts, Messages };

// A service that listens, and that may be believed.
struct Service {
    Plugin plugin;
    uid_t uiUser; // who runs it
};

// Loads the plug-in and looks for the service, for as long as --wait says. Returns EXIT_DONE. Else the reason
// is on standard error, and it returns EXIT_USAGE (--wait), EXIT_UNAVAILABLE or EXIT_SWITCHED_OFF.
int reachService(const ServiceOptions &options, ServiceKind eKind, Service *pService);

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

// Both submit the request with command ulCMD. They return EXIT_DONE when the service has taken it. Else the
// reason is on standard error, and they return EXIT_UNAVAILABLE, EXIT_BAD_DATA (the request is incomplete) or
// EXIT_INTERNAL (no memory).
int submitCast(const Service &service, unsigned long ulCMD, const CastRequest &request);
int submitMessage(const Service &service, unsigned long ulCMD, const MessageIdentity &identity,
                  unsigned long ulRepeat, const std::string &sText);

#endif

// plugin.h - loading the service's plug-in, and what the commands call in it.
//
// Used by serve, which hosts the service, and by every command that submits a request. That goes through the
// senders behind the exported commanders: only they tell whether the request arrived. Called in the main
// thread, before others are started. The library stays loaded to the end.
#ifndef PCCAST_CLI_PLUGIN_H
#define PCCAST_CLI_PLUGIN_H

#include "serviceswitch.h"

#include <pccast/pccast.h>

#include <string>

namespace CLI {
class App;
}

struct Plugin {
    decltype(&QX_PlugIn_Name) pName;
    decltype(&QX_PlugIn_Version) pVersion;
    decltype(&p_qxapi_open_pccast) pOpen;
    decltype(&p_qxapi_close_pccast) pClose;
    decltype(&VALIDATECASTInfo) pValidateCast;
    decltype(&TxCASTInfoToPlugIn) pSendCast;
    decltype(&VALIDATEMSGInfo) pValidateMessage;
    decltype(&TxPCMBCInfoToPlugIn) pSendMessage;
    decltype(&MAKECASTInfo) pMakeCast;
    decltype(&ELIMINATECASTInfo) pEliminateCast;
    decltype(&MAKEMSGInfo) pMakeMessage;
    decltype(&ELIMINATEMSGInfo) pEliminateMessage;
    decltype(&verifyINBTService) pVerifyService;
};

// Adds --plugin PATH to a command.
void addPluginOption(CLI::App *pCommand, std::string &sPath);

// Loads the plug-in at sPath, or, when that is empty, the one that belongs to this program, and checks its
// name, its version and that it publishes both commanders. Returns EXIT_DONE, or EXIT_UNAVAILABLE (the reason
// is on standard error).
int loadPlugin(const std::string &sPath, Plugin *pPlugin);

#endif

// pluginloader.h - loads the service's plug-in and finds what the commands call in it.
//
// Used by serve, which hosts the service, and by every command that submits a request. A request goes to the
// functions behind the exported commanders, because only they tell whether it arrived. Called in the main
// thread before other threads start. The library stays loaded to the end.
#ifndef PCCAST_CLI_PLUGINLOADER_H
#define PCCAST_CLI_PLUGINLOADER_H

#include "pccastmain/serviceswitch.h"

#include <pccast/pccast.h>
#include <pccast/view.h>

#include <string>

class Command;
struct Plugin {
    decltype(&QX_PlugIn_Name) pName;
    decltype(&QX_PlugIn_Version) pVersion;
    decltype(&p_qxapi_open_pccast) pOpen;
    decltype(&p_qxapi_close_pccast) pClose;
    decltype(&VALIDATECASTInfo) pValidateCast;
    decltype(&TxCASTInfoToPlugIn) pSubmitCast;
    decltype(&VALIDATEMSGInfo) pValidateMessage;
    decltype(&TxPCMBCInfoToPlugIn) pSubmitMessage;
    decltype(&MAKECASTInfo) pMakeCast;
    decltype(&ELIMINATECASTInfo) pEliminateCast;
    decltype(&MAKEMSGInfo) pMakeMessage;
    decltype(&ELIMINATEMSGInfo) pEliminateMessage;
    decltype(&verifyINBTService) pVerifyService;
    decltype(&MAKEPCCASTView) pMakeView;
    decltype(&ELIMINATEPCCASTView) pEliminateView;
    decltype(&READPCCASTEvents) pReadEvents;
    decltype(&ELIMINATEPCCASTEvents) pEliminateEvents;
};

// Adds --plugin PATH to a command.
void addPluginOption(const Command &command, std::string &sPath);

// Loads the plug-in at sPath, or this program's own when sPath is empty. Checks its name and version, and
// that it publishes both commanders. Returns EXIT_DONE, or EXIT_UNAVAILABLE with the reason on standard
// error.
int loadPlugin(const std::string &sPath, Plugin *pPlugin);

#endif

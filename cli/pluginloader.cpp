#include "pluginloader.h"
#include "command.h"

#include "commands.h"
#include "localsocket.h"

#include <dlfcn.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <system_error>

namespace {

constexpr const char *kPluginName = "PCCAST Plugin";
constexpr const char *kPluginFile = "libpccast.so." PCCAST_SOVERSION;

// Where the plug-in is, seen from this program's folder: in a build tree, beside the program, installed. The
// run path says the same. But a sanitizer puts itself between dlopen and its caller, and then the run path
// does not count.
constexpr std::array<const char *, 3> kPluginFolders{"/../lib/", "/", "/../" PCCAST_LIBDIR "/"};

constexpr std::array<const char *, 2> kCommanders{"QX_PCCASTSTREAMCommander", "QX_PCCASTMBCCommander"};

// The path of this program's own plug-in. If no folder has it, the bare name: the loader then looks in its
// own places.
std::string ownPlugin() {
    std::error_code error;
    const std::string sProgram =
        std::filesystem::read_symlink("/proc/self/exe", error).parent_path().string();
    for (const char *pszFolder : kPluginFolders) {
        std::string sPath = sProgram + pszFolder + kPluginFile;
        if (access(sPath.c_str(), F_OK) == 0) {
            return sPath;
        }
    }
    return kPluginFile;
}

template <typename Function>
void resolve(void *pHandle, const char *pszName, Function *ppFunction, std::string *psMissing) {
    *ppFunction = reinterpret_cast<Function>(dlsym(pHandle, pszName));
    if (*ppFunction == nullptr && psMissing->empty()) {
        *psMissing = pszName;
    }
}

// Returns what is wrong with the table of command names, empty when nothing is.
std::string checkNameTable(void *pHandle) {
    const auto *const ppszNames =
        static_cast<const char *const *>(dlsym(pHandle, "p_qxapi_name_table_pccast"));
    if (ppszNames == nullptr) {
        return "has no table of command names (p_qxapi_name_table_pccast)";
    }
    for (size_t i = 0; i < kCommanders.size(); ++i) {
        if (ppszNames[i] == nullptr || std::strcmp(ppszNames[i], kCommanders[i]) != 0) {
            return std::string("does not publish the command ") + kCommanders[i];
        }
        if (dlsym(pHandle, ppszNames[i]) == nullptr) {
            return std::string("publishes the command ") + ppszNames[i] + " but does not have it";
        }
    }
    return ppszNames[kCommanders.size()] == nullptr ? "" : "publishes more commands than this program knows";
}

std::string checkPlugin(void *pHandle, Plugin *pPlugin) {
    std::string sMissing;
    resolve(pHandle, "QX_PlugIn_Name", &pPlugin->pName, &sMissing);
    resolve(pHandle, "QX_PlugIn_Version", &pPlugin->pVersion, &sMissing);
    resolve(pHandle, "p_qxapi_open_pccast", &pPlugin->pOpen, &sMissing);
    resolve(pHandle, "p_qxapi_close_pccast", &pPlugin->pClose, &sMissing);
    resolve(pHandle, "VALIDATECASTInfo", &pPlugin->pValidateCast, &sMissing);
    resolve(pHandle, "TxCASTInfoToPlugIn", &pPlugin->pSubmitCast, &sMissing);
    resolve(pHandle, "VALIDATEMSGInfo", &pPlugin->pValidateMessage, &sMissing);
    resolve(pHandle, "TxPCMBCInfoToPlugIn", &pPlugin->pSubmitMessage, &sMissing);
    resolve(pHandle, "MAKECASTInfo", &pPlugin->pMakeCast, &sMissing);
    resolve(pHandle, "ELIMINATECASTInfo", &pPlugin->pEliminateCast, &sMissing);
    resolve(pHandle, "MAKEMSGInfo", &pPlugin->pMakeMessage, &sMissing);
    resolve(pHandle, "ELIMINATEMSGInfo", &pPlugin->pEliminateMessage, &sMissing);
    resolve(pHandle, "verifyINBTService", &pPlugin->pVerifyService, &sMissing);
    resolve(pHandle, "MAKEPCCASTView", &pPlugin->pMakeView, &sMissing);
    resolve(pHandle, "ELIMINATEPCCASTView", &pPlugin->pEliminateView, &sMissing);
    resolve(pHandle, "READPCCASTEvents", &pPlugin->pReadEvents, &sMissing);
    resolve(pHandle, "ELIMINATEPCCASTEvents", &pPlugin->pEliminateEvents, &sMissing);
    if (!sMissing.empty()) {
        return "has no " + sMissing;
    }
    const char *const pszName = pPlugin->pName();
    if (pszName == nullptr || std::strcmp(pszName, kPluginName) != 0) {
        return std::string("is named '") + (pszName == nullptr ? "" : pszName) + "', not '" + kPluginName +
               "'";
    }
    if (pPlugin->pVersion() != PCCAST_PLUGIN_VERSION) {
        std::array<char, 64> aText{};
        std::snprintf(aText.data(), aText.size(), "has version %08X, not %08X", pPlugin->pVersion(),
                      PCCAST_PLUGIN_VERSION);
        return aText.data();
    }
    return checkNameTable(pHandle);
}

} // namespace

void addPluginOption(const Command &command, std::string &sPath) {
    command.option("--plugin", sPath, "the plug-in to load instead of this program's own").type("PATH");
}

int loadPlugin(const std::string &sPath, Plugin *pPlugin) {
    // The library's own check of who serves a socket trusts whom ours trusts.
    const char *const pszUser = std::getenv(kServiceUserVariable);
    setenv("KTNET_PEER_USERS",
           (kServiceUser + std::string(pszUser == nullptr ? "" : "," + std::string(pszUser))).c_str(), 0);
    void *const pHandle = dlopen((sPath.empty() ? ownPlugin() : sPath).c_str(), RTLD_NOW | RTLD_LOCAL);
    if (pHandle == nullptr) {
        return sayAndReturn(EXIT_UNAVAILABLE, std::string("the plug-in cannot be loaded: ") + dlerror());
    }
    const std::string sProblem = checkPlugin(pHandle, pPlugin);
    if (!sProblem.empty()) {
        return sayAndReturn(EXIT_UNAVAILABLE, "the plug-in" + (sPath.empty() ? "" : " " + sPath) + " " +
                                                  sProblem + "; this program cannot use it");
    }
    return EXIT_DONE;
}

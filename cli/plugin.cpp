#include "plugin.h"

#include "commands.h"

#include <CLI/CLI.hpp>
#include <dlfcn.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <system_error>

namespace {

constexpr const char *PLUGIN_NAME = "PCCAST Plugin";
constexpr unsigned int PLUGIN_VERSION = 0x03060502;

constexpr const char *PLUGIN_FILE = "libpccast.so.3";

// Where it lies, seen from the folder of this program: in a build tree, beside the program, installed. The
// run path says the same, but is not looked at under a sanitizer, which puts itself between dlopen and its
// caller.
constexpr std::array<const char *, 3> FOLDERS{"/../lib/", "/", "/../" PCCAST_LIBDIR "/"};

constexpr std::array<const char *, 2> COMMANDERS{"QX_PCCASTSTREAMCommander", "QX_PCCASTMBCCommander"};

// The plug-in that belongs to this program; where none lies, the bare name, which the loader looks up in its
// own places.
std::string ownPlugin() {
    std::error_code error;
    const std::string sProgram =
        std::filesystem::read_symlink("/proc/self/exe", error).parent_path().string();
    for (const char *pszFolder : FOLDERS) {
        const std::string sPath = sProgram + pszFolder + PLUGIN_FILE;
        if (access(sPath.c_str(), F_OK) == 0) {
            return sPath;
        }
    }
    return PLUGIN_FILE;
}

template <typename FUNCTION>
void resolve(void *pHandle, const char *pszName, FUNCTION *ppFunction, std::string *psMissing) {
    *ppFunction = reinterpret_cast<FUNCTION>(dlsym(pHandle, pszName));
    if (*ppFunction == nullptr && psMissing->empty()) {
        *psMissing = pszName;
    }
}

// What is wrong with the table of command names, empty when nothing is.
std::string checkNameTable(void *pHandle) {
    const auto *const ppszNames =
        static_cast<const char *const *>(dlsym(pHandle, "p_qxapi_name_table_pccast"));
    if (ppszNames == nullptr) {
        return "has no table of command names (p_qxapi_name_table_pccast)";
    }
    for (size_t i = 0; i < COMMANDERS.size(); ++i) {
        if (ppszNames[i] == nullptr || strcmp(ppszNames[i], COMMANDERS[i]) != 0) {
            return std::string("does not publish the command ") + COMMANDERS[i];
        }
        if (dlsym(pHandle, ppszNames[i]) == nullptr) {
            return std::string("publishes the command ") + ppszNames[i] + " but does not have it";
        }
    }
    return ppszNames[COMMANDERS.size()] == nullptr ? "" : "publishes more commands than this program knows";
}

std::string checkPlugin(void *pHandle, PLUGIN *pPlugin) {
    std::string sMissing;
    resolve(pHandle, "QX_PlugIn_Name", &pPlugin->pName, &sMissing);
    resolve(pHandle, "QX_PlugIn_Version", &pPlugin->pVersion, &sMissing);
    resolve(pHandle, "p_qxapi_open_pccast", &pPlugin->pOpen, &sMissing);
    resolve(pHandle, "p_qxapi_close_pccast", &pPlugin->pClose, &sMissing);
    resolve(pHandle, "VALIDATECASTInfo", &pPlugin->pValidateCast, &sMissing);
    resolve(pHandle, "TxCASTInfoToPlugIn", &pPlugin->pSendCast, &sMissing);
    resolve(pHandle, "VALIDATEMSGInfo", &pPlugin->pValidateMessage, &sMissing);
    resolve(pHandle, "TxPCMBCInfoToPlugIn", &pPlugin->pSendMessage, &sMissing);
    resolve(pHandle, "MAKECASTInfo", &pPlugin->pMakeCast, &sMissing);
    resolve(pHandle, "ELIMINATECASTInfo", &pPlugin->pEliminateCast, &sMissing);
    resolve(pHandle, "MAKEMSGInfo", &pPlugin->pMakeMessage, &sMissing);
    resolve(pHandle, "ELIMINATEMSGInfo", &pPlugin->pEliminateMessage, &sMissing);
    resolve(pHandle, "verifyINBTService", &pPlugin->pVerifyService, &sMissing);
    if (!sMissing.empty()) {
        return "has no " + sMissing;
    }
    const char *const pszName = pPlugin->pName();
    if (pszName == nullptr || strcmp(pszName, PLUGIN_NAME) != 0) {
        return std::string("is named '") + (pszName == nullptr ? "" : pszName) + "', not '" + PLUGIN_NAME +
               "'";
    }
    if (pPlugin->pVersion() != PLUGIN_VERSION) {
        std::array<char, 64> aText{};
        snprintf(aText.data(), aText.size(), "has version %08X, not %08X", pPlugin->pVersion(),
                 PLUGIN_VERSION);
        return aText.data();
    }
    return checkNameTable(pHandle);
}

} // namespace

void addPluginOption(CLI::App *pCommand, std::string &sPath) {
    pCommand->add_option("--plugin", sPath, "the plug-in to load instead of this program's own")
        ->type_name("PATH");
}

int loadPlugin(const std::string &sPath, PLUGIN *pPlugin) {
    void *const pHandle = dlopen((sPath.empty() ? ownPlugin() : sPath).c_str(), RTLD_NOW | RTLD_LOCAL);
    if (pHandle == nullptr) {
        return sayAndReturn(EXIT_UNAVAILABLE, std::string("the plug-in cannot be loaded: ") + dlerror());
    }
    const std::string sProblem = checkPlugin(pHandle, pPlugin);
    if (!sProblem.empty()) {
        return sayAndReturn(EXIT_UNAVAILABLE, "the plug-in" + (sPath.empty() ? "" : " " + sPath) + " " +
                                                  sProblem + "; it is not one that this program can use");
    }
    return EXIT_DONE;
}

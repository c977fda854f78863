#include "submit.h"

#include "commands.h"
#include "localsocket.h"
#include "pluginloader.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace {

// Returns EXIT_DONE when the service is switched on and listens, else says why not.
int checkService(const Plugin &plugin, const char *pszKeyPath, const char *pszSocket) {
    if (plugin.pVerifyService(pszKeyPath) < 1) {
        return sayAndReturn(EXIT_SWITCHED_OFF, std::string("the registry switches the service off (") +
                                                   pszKeyPath + "=DISABLE); nothing was submitted");
    }
    const int iError = probeSocket(pszSocket);
    switch (iError) {
    case 0:
        return EXIT_DONE;
    case ENOENT:
    case ECONNREFUSED:
        return sayAndReturn(EXIT_UNAVAILABLE, std::string("no service listens on ") + pszSocket +
                                                  "; start one with: pccast serve");
    case EACCES:
        return sayForeignSocket(pszSocket);
    default:
        return sayAndReturn(EXIT_UNAVAILABLE, std::string("the service on ") + pszSocket +
                                                  " cannot be reached: " + std::strerror(iError));
    }
}

// Validates the record as the commander of its kind does, and submits it.
template <typename Record>
int submit(int (*pValidate)(const Record *), int (*pSubmit)(unsigned long, const Record *),
           unsigned long ulCMD, Record *pInfo) {
    pInfo->ulCMD = ulCMD;
    if (pValidate(pInfo) < 1) {
        return sayAndReturn(EXIT_BAD_DATA, "the request is not complete; nothing was submitted");
    }
    const int iResult = pSubmit(ulCMD, pInfo);
    if (iResult > 0) {
        return EXIT_DONE;
    }
    return sayAndReturn(EXIT_UNAVAILABLE,
                        std::string("the service did not take the request") +
                            (iResult < 0 ? std::string(": ") + std::strerror(-iResult) : "") +
                            "; submit it again");
}

} // namespace

int submitCast(const std::string &sPlugin, unsigned long ulCMD, const CastRequest &request) {
    Plugin plugin{};
    const int iLoaded = loadPlugin(sPlugin, &plugin);
    if (iLoaded != EXIT_DONE) {
        return iLoaded;
    }
    const int iCheck = checkService(plugin, PCCAST_CAST_SERVICE, PCCAST_CAST_SOCKET);
    if (iCheck != EXIT_DONE) {
        return iCheck;
    }
    CASTInfo *pInfo = nullptr;
    if (plugin.pMakeCast(&pInfo, request.sSource.c_str(), request.sDestination.c_str(), request.sFile.c_str(),
                         request.identity.ulType) != 1) {
        return sayAndReturn(EXIT_INTERNAL, "no memory for the request");
    }
    const auto release = [&plugin](CASTInfo *pRecord) { plugin.pEliminateCast(&pRecord); };
    const std::unique_ptr<CASTInfo, decltype(release)> guard(pInfo, release);
    pInfo->uliEPGID = request.identity.ulEPGID;
    pInfo->ulCT = request.ulCT;
    pInfo->ulSTREAMFormat = request.identity.ulFormat;
    pInfo->ulST = request.identity.ulST;
    pInfo->ulET = request.identity.ulET;
    pInfo->usSRCPort = request.usSourcePort;
    pInfo->usDSTPort = request.identity.usPort;
    pInfo->ulMSID = request.ulMSID;
    pInfo->iASFSplit = request.iASFSplit;
    if (!request.key.empty()) {
        pInfo->pEncryptionKey = static_cast<unsigned char *>(std::malloc(request.key.size()));
        if (pInfo->pEncryptionKey == nullptr) {
            return sayAndReturn(EXIT_INTERNAL, "no memory for the key");
        }
        std::memcpy(pInfo->pEncryptionKey, request.key.data(), request.key.size());
        pInfo->iEncryptionKeyLen = static_cast<int>(request.key.size());
        pInfo->iEncryptionType = request.iEncryptionType;
    }
    return submit(plugin.pValidateCast, plugin.pSubmitCast, ulCMD, pInfo);
}

int submitMessage(const std::string &sPlugin, unsigned long ulCMD, const MessageIdentity &identity,
                  unsigned long ulRepeat, const std::string &sText) {
    Plugin plugin{};
    const int iLoaded = loadPlugin(sPlugin, &plugin);
    if (iLoaded != EXIT_DONE) {
        return iLoaded;
    }
    const int iCheck = checkService(plugin, PCCAST_MESSAGE_SERVICE, PCCAST_MESSAGE_SOCKET);
    if (iCheck != EXIT_DONE) {
        return iCheck;
    }
    MSGInfo *pInfo = nullptr;
    if (plugin.pMakeMessage(&pInfo, sText.c_str()) != 1) {
        return sayAndReturn(EXIT_INTERNAL, "no memory for the message");
    }
    const auto release = [&plugin](MSGInfo *pRecord) { plugin.pEliminateMessage(&pRecord); };
    const std::unique_ptr<MSGInfo, decltype(release)> guard(pInfo, release);
    pInfo->uliEPGID = identity.ulEPGID;
    pInfo->ulPriority = identity.bPriority ? 1 : 0;
    pInfo->ulCT = identity.ulCT;
    pInfo->ulST = identity.ulST;
    pInfo->ulET = identity.ulET;
    pInfo->ulRepeat = ulRepeat;
    return submit(plugin.pValidateMessage, plugin.pSubmitMessage, ulCMD, pInfo);
}

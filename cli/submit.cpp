#include "submit.h"
#include "command.h"

#include "commands.h"
#include "localsocket.h"

#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <thread>
#include <utility>

namespace {

constexpr std::chrono::milliseconds kRetryInterval{50};

struct ServiceRow {
    const char *pszKeyPath;
    const char *pszSocket;
};

constexpr ServiceRow rowOf(ServiceKind eKind) {
    return eKind == ServiceKind::Casts ? ServiceRow{PCCAST_CAST_SERVICE, PCCAST_CAST_SOCKET}
                                       : ServiceRow{PCCAST_MESSAGE_SERVICE, PCCAST_MESSAGE_SOCKET};
}

// Looks who listens on the socket, again and again for ulWait seconds while nobody does. Returns 0 or the
// errno.
int findServer(const char *pszSocket, unsigned long ulWait, uid_t *puiUser) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(ulWait);
    for (;;) {
        const int iSocket = connectLocal(pszSocket, puiUser);
        if (iSocket >= 0) {
            close(iSocket);
            return 0;
        }
        if ((iSocket != -ENOENT && iSocket != -ECONNREFUSED) || std::chrono::steady_clock::now() >= end) {
            return -iSocket;
        }
        std::this_thread::sleep_for(kRetryInterval);
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

void addServiceOptions(const Command &command, ServiceOptions &options) {
    command.option("--wait", options.sWait, "keep trying for so long when no service listens yet (default 0)")
        .type("DURATION");
    addPluginOption(command, options.sPlugin);
}

void setRequestAction(const Command &command, std::function<int()> action, int &iExitCode) {
    command.action([action = std::move(action), &iExitCode] {
        iExitCode = keepOutputForResults() ? action() : EXIT_INTERNAL;
    });
}

int reachService(const ServiceOptions &options, ServiceKind eKind, Service *pService) {
    unsigned long ulWait = 0;
    int iExit = checkArguments({{"--wait", readDuration(options.sWait, &ulWait)}});
    if (iExit == EXIT_DONE) {
        iExit = loadPlugin(options.sPlugin, &pService->plugin);
    }
    if (iExit != EXIT_DONE) {
        return iExit;
    }
    const ServiceRow row = rowOf(eKind);
    if (pService->plugin.pVerifyService(row.pszKeyPath) < 1) {
        return sayAndReturn(EXIT_SWITCHED_OFF, std::string("the registry switches the service off (") +
                                                   row.pszKeyPath + "=DISABLE); nothing was submitted");
    }
    const int iError = findServer(row.pszSocket, ulWait, &pService->uiUser);
    switch (iError) {
    case 0:
        if (!isTrustedUser(pService->uiUser)) {
            return sayAndReturn(EXIT_UNAVAILABLE, untrustedText(row.pszSocket, pService->uiUser));
        }
        // The plug-in's own sender looks once more. It is to believe the same user and no other one.
        setenv("KTNET_PEER_USERS", std::to_string(pService->uiUser).c_str(), 1);
        return EXIT_DONE;
    case ENOENT:
    case ECONNREFUSED:
        return sayAndReturn(EXIT_UNAVAILABLE, std::string("no service listens on ") + row.pszSocket +
                                                  "; start one with: pccast serve");
    case EACCES:
        return sayAndReturn(EXIT_UNAVAILABLE, foreignSocketText(row.pszSocket));
    case EAGAIN:
        return sayAndReturn(EXIT_UNAVAILABLE, std::string("the service on ") + row.pszSocket +
                                                  " does not take up what waits for it; try again later");
    default:
        return sayAndReturn(EXIT_UNAVAILABLE, std::string("the service on ") + row.pszSocket +
                                                  " cannot be reached: " + std::strerror(iError));
    }
}

int submitCast(const Service &service, unsigned long ulCMD, const CastRequest &request) {
    const Plugin &plugin = service.plugin;
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

int submitMessage(const Service &service, unsigned long ulCMD, const MessageIdentity &identity,
                  unsigned long ulRepeat, const std::string &sText) {
    const Plugin &plugin = service.plugin;
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

#include "request.h"

#include "castformat.h"
#include "commands.h"

#include <CLI/CLI.hpp>
#include <unistd.h>
#include <vexa_pgl.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

void addRequestOptions(CLI::App *pCommand, RequestOptions &options, const char *pszDefaultFor) {
    pCommand->add_option("--epg", options.sEPG, "the programme that it belongs to (default 1)")
        ->type_name("N");
    pCommand->add_option("--start", options.sStart, "when it starts (default now)")->type_name("TIME");
    auto *const pEnd = pCommand->add_option("--end", options.sEnd, "when it ends")->type_name("TIME");
    pCommand
        ->add_option("--for", options.sFor,
                     std::string("how long it lasts, instead of --end (default ") + pszDefaultFor + ")")
        ->type_name("DURATION")
        ->excludes(pEnd);
    addPluginOption(pCommand, options.sPlugin);
}

int readRequestOptions(const RequestOptions &options, unsigned long ulDefaultFor, RequestTimes *pTimes) {
    const unsigned long ulNow = vexa_time(nullptr);
    RequestTimes times{0, ulNow, 0, 0};
    int iExit = checkArgument("--epg", readNumber(options.sEPG, kNumberMax, &times.ulEPGID));
    if (iExit == EXIT_DONE) {
        iExit = checkArgument("--start", readTime(options.sStart, ulNow, &times.ulST));
    }
    if (iExit == EXIT_DONE && !options.sEnd.empty()) {
        iExit = checkArgument("--end", readTime(options.sEnd, ulNow, &times.ulET));
    } else if (iExit == EXIT_DONE) {
        unsigned long ulFor = ulDefaultFor;
        if (!options.sFor.empty()) {
            iExit = checkArgument("--for", readDuration(options.sFor, &ulFor));
        }
        times.ulET = times.ulST + ulFor;
    }
    if (iExit != EXIT_DONE) {
        return iExit;
    }
    if (times.ulET > kNumberMax) {
        return sayAndReturn(EXIT_BAD_DATA,
                            "the end would lie beyond 2106-02-07T06:28:15Z, the last time that fits "
                            "the 32 bits on the wire; give an earlier end or a shorter duration");
    }
    if (times.ulET <= ulNow) {
        return sayAndReturn(EXIT_BAD_DATA, "the end, " + writeTime(times.ulET) +
                                               ", has passed; give an end after " + writeTime(ulNow));
    }
    if (times.ulET <= times.ulST) {
        return sayAndReturn(EXIT_BAD_DATA, "the end, " + writeTime(times.ulET) +
                                               ", does not lie after the start, " + writeTime(times.ulST) +
                                               "; give a later end or a longer duration");
    }
    *pTimes = times;
    return EXIT_DONE;
}

int sendCast(const std::string &sPlugin, unsigned long ulCMD, const CastRequest &request) {
    Plugin plugin{};
    const int iLoaded = loadPlugin(sPlugin, &plugin);
    if (iLoaded != EXIT_DONE) {
        return iLoaded;
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
    return submitCast(plugin, ulCMD, pInfo);
}

int sendMessage(const std::string &sPlugin, unsigned long ulCMD, const MessageIdentity &identity,
                unsigned long ulRepeat, const std::string &sText) {
    Plugin plugin{};
    const int iLoaded = loadPlugin(sPlugin, &plugin);
    if (iLoaded != EXIT_DONE) {
        return iLoaded;
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
    return submitMessage(plugin, ulCMD, pInfo);
}

void warnWithoutStationFile(unsigned long ulFormat) {
    if (isASFFormat(ulFormat) && access(kStationFile, R_OK) != 0) {
        std::fprintf(
            stderr,
            "pccast: note: %s: %s; without it an ASF cast is not announced and a file of it not played "
            "(pccast station writes one)\n",
            kStationFile, std::strerror(errno));
    }
}

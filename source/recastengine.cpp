// The recast engine: plays stored files to their groups, one cast at a time. Runs on a thread of its own.
// Owns the cast on air. Calls the two file cast drivers.

#include "castformat.h"
#include "consoletext.h"
#include "engines.h"
#include "filecast.h"
#include "ktlist.h"
#include "view.h"

#include <qxapi.h>
#include <vexa_pgl.h>

#include <cstdio>
#include <cstdlib>
#include <memory>

namespace {

constexpr unsigned int kHops = 16; // hop limit of the transport stream caster
constexpr int kNotPlayed = 0;      // the result for a request that cannot be played

struct Free {
    void operator()(char *pText) const { std::free(pText); }
};
using Text = std::unique_ptr<char, Free>;

void reportArguments(const CASTInfo *pCast) {
    constexpr const char *kName = "PCCASTRECASTEngine";
    const auto uiMSID = static_cast<unsigned int>(pCast->ulMSID & 0xFFFF);
    std::printf("%s[%d] check the recast arguments:\n", kName, __LINE__);
    std::printf("%s[%d] : FileName = %s\n", kName, __LINE__,
                orQuestion(consoleText(pCast->pCASTFile, "NULL")));
    std::printf("%s[%d] : IP = %s, PORT = %u\n", kName, __LINE__,
                orQuestion(consoleText(pCast->pDSTIP, "NULL")), static_cast<unsigned int>(pCast->usDSTPort));
    std::printf("%s[%d] : MSID = %u[%x]\n", kName, __LINE__, uiMSID, uiMSID);
}

int playASF(KTPLUGIN_INFO_TAG *pBlock, CASTInfo *pCast, const char *pszFile) {
    ASFCASTARG argument{};
    argument.pszFile = pszFile;
    argument.pszNSC = kStationFile;
    argument.pBlock = pBlock;
    argument.pInfo = pCast;
    return qxbox_asfcast(&argument);
}

int playTS(KTPLUGIN_INFO_TAG *pBlock, CASTInfo *pCast, const char *pszFile) {
    char target[256];
    const int iLength = std::snprintf(target, sizeof target, "%s:%d", pCast->pDSTIP, pCast->usDSTPort);
    if (iLength >= static_cast<int>(sizeof target)) {
        std::printf("%s():%d \e[1;41m[destination of %d characters is no address]\e[0m\n",
                    "PCCASTRECASTEngine", __LINE__, iLength);
        return kNotPlayed;
    }
    TSCASTARG argument{};
    argument.pszFile = pszFile;
    argument.pszTarget = target;
    argument.uiCasterParam = kHops;
    argument.pBlock = pBlock;
    argument.pInfo = pCast;
    return qxbox_tscast(&argument);
}

// Plays the cast with the driver of its format. Returns the driver's result; 1 for an unknown format;
// kNotPlayed if no driver was called for another reason.
int play(KTPLUGIN_INFO_TAG *pBlock, CASTInfo *pCast, const char *pszFile) {
    if (pszFile == nullptr) {
        return kNotPlayed; // no memory for the copy of the name
    }
    if (isASFFormat(pCast->ulSTREAMFormat)) {
        return playASF(pBlock, pCast, pszFile);
    }
    if (isH264Format(pCast->ulSTREAMFormat)) {
        return playTS(pBlock, pCast, pszFile);
    }
    std::printf("%s():%d, ALARM, unknown content format[%#lx(%ld)] to re-cast: let it go\n",
                "PCCASTRECASTEngine", __LINE__, pCast->ulSTREAMFormat,
                static_cast<long>(pCast->ulSTREAMFormat));
    return 1;
}

// Why a playout with this result failed.
unsigned int reasonOf(int iResult) {
    switch (iResult) {
    case kNotPlayed:
        return PCCAST_REASON_DESTINATION;
    case -1:
        // The drivers give the same for a file that cannot be played and for a way out that fails.
        return gViewTraffic[VIEW_RECAST].ulDatagrams == 0 ? PCCAST_REASON_FILE : PCCAST_REASON_SEND;
    default:
        return PCCAST_REASON_SEND;
    }
}

// Carries the cast in the slot. Empties the slot only after the state has left idle.
void carryCast(KTPLUGIN_INFO_TAG *pBlock, CASTInfo *pCast) {
    if (pCast->pCASTFile == nullptr || pCast->pDSTIP == nullptr) {
        reportArguments(pCast);
        viewFailed(VIEW_RECAST, PCCAST_REASON_INCOMPLETE);
        engineReport(pBlock, ENGINE_FAILED);
        engineAcknowledge(pBlock);
        ELIMINATECASTInfo(&pCast);
        return;
    }
    char *pCopy = nullptr;
    KTCOPYString(pCast->pCASTFile, &pCopy);
    const Text pszFile(pCopy);
    viewResetTraffic(VIEW_RECAST);
    viewStarted(VIEW_RECAST);
    engineReport(pBlock, ENGINE_RUNNING);
    engineAcknowledge(pBlock);
    const int iResult = play(pBlock, pCast, pszFile.get());
    if (iResult != 1) {
        viewFailed(VIEW_RECAST, reasonOf(iResult));
        engineReport(pBlock, ENGINE_FAILED);
    } else {
        const bool bPlayed = isASFFormat(pCast->ulSTREAMFormat) || isH264Format(pCast->ulSTREAMFormat);
        viewEnded(VIEW_RECAST, pBlock->eState > ENGINE_RUNNING ? PCCAST_REASON_NONE
                               : bPlayed                       ? PCCAST_REASON_FILE_END
                                                               : PCCAST_REASON_FORMAT);
    }
    ELIMINATECASTInfo(&pCast);
    engineReportIdle(pBlock);
}

} // namespace

int PCCASTRECASTEngine(KTPLUGIN_INFO_TAG *pBlock) {
    if (pBlock == nullptr) {
        return 0;
    }
    ++pBlock->iThreadCount;
    pBlock->eState = ENGINE_IDLE;
    while (pBlock->eState <= ENGINE_FINISH) {
        CASTInfo *pCast = enginePeek(pBlock);
        if (pCast != nullptr) {
            carryCast(pBlock, pCast);
        }
        vexa_load_balance();
    }
    engineEnd(pBlock);
    return 0;
}

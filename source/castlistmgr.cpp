// The records of cast requests and their list. The contracts stand in castinfo.h and castlistmgr.h.
#include "castlistmgr.h"

#include "castformat.h"
#include "consoletext.h"
#include "recordlist.h"
#include "timetext.h"

#include <vexa_pgl.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace {

struct Eliminate {
    void operator()(CASTInfo *pInfo) const { ELIMINATECASTInfo(&pInfo); }
};
using OwnedCast = std::unique_ptr<CASTInfo, Eliminate>;

// Returns a copy that the caller owns; null if there is no text or memory runs out.
char *copyText(const char *pText) {
    char *pCopy = nullptr;
    KTCOPYString(pText, &pCopy);
    return pCopy;
}

// The form in which a record's text goes to the console.
ConsoleText orNull(const char *pText) {
    return consoleText(pText, "NULL");
}

} // namespace

int MAKECASTInfo(CASTInfo **ppInfo, const char *pSRCIP, const char *pDSTIP, const char *pCASTFile,
                 unsigned long ulCASTType) {
    if (*ppInfo != nullptr) {
        std::printf("%s(): pInfo is NOT EMPTY\n", "MAKECASTInfo");
        return -1;
    }
    OwnedCast pInfo(static_cast<CASTInfo *>(std::calloc(1, sizeof(CASTInfo))));
    if (pInfo == nullptr) {
        return 0;
    }
    pInfo->ulCASTType = ulCASTType;
    if (isStream(ulCASTType)) {
        pInfo->pSRCIP = copyText(pSRCIP);
        if (pInfo->pSRCIP == nullptr) {
            return -1;
        }
    } else if (ulCASTType == CAST_TYPE_FILE) {
        pInfo->pCASTFile = copyText(pCASTFile);
        if (pInfo->pCASTFile == nullptr) {
            return -1;
        }
    } else {
        std::printf("%s(): INVALID CASTType[%lu]\n", "MAKECASTInfo", ulCASTType);
        return -1;
    }
    if (pDSTIP == nullptr) {
        return -1;
    }
    pInfo->pDSTIP = copyText(pDSTIP);
    if (pInfo->pDSTIP == nullptr) {
        return 0;
    }
    *ppInfo = pInfo.release();
    return 1;
}

int COPYaCASTInfo(const CASTInfo *pSrc, CASTInfo **ppCASTDST) {
    if (pSrc == nullptr) {
        return 0;
    }
    if (*ppCASTDST != nullptr) {
        std::printf("%s(): ppCASTDST is NOT EMPTY\n", "COPYaCASTInfo");
        return -1;
    }
    CASTInfo *pCopy = nullptr;
    if (MAKECASTInfo(&pCopy, pSrc->pSRCIP, pSrc->pDSTIP, pSrc->pCASTFile, pSrc->ulCASTType) != 1) {
        return 0;
    }
    pCopy->ulCMD = pSrc->ulCMD;
    pCopy->uliEPGID = pSrc->uliEPGID;
    pCopy->ulCT = pSrc->ulCT;
    pCopy->ulST = pSrc->ulST;
    pCopy->ulET = pSrc->ulET;
    pCopy->usSRCPort = pSrc->usSRCPort;
    pCopy->usDSTPort = pSrc->usDSTPort;
    pCopy->ulSTREAMFormat = pSrc->ulSTREAMFormat;
    pCopy->ulMSID = pSrc->ulMSID;
    if (pSrc->iEncryptionType > 0) {
        pCopy->iEncryptionType = pSrc->iEncryptionType;
        pCopy->iEncryptionKeyLen = pSrc->iEncryptionKeyLen;
        if (pSrc->iEncryptionKeyLen > 0 && pSrc->pEncryptionKey != nullptr) {
            const auto ulLength = static_cast<size_t>(pSrc->iEncryptionKeyLen);
            pCopy->pEncryptionKey = static_cast<unsigned char *>(std::malloc(ulLength));
            if (pCopy->pEncryptionKey != nullptr) {
                std::memcpy(pCopy->pEncryptionKey, pSrc->pEncryptionKey, ulLength);
            }
        }
    }
    pCopy->iASFSplit = pSrc->iASFSplit;
    *ppCASTDST = pCopy;
    return 1;
}

int ELIMINATECASTInfo(CASTInfo **ppInfo) {
    if (*ppInfo == nullptr) {
        return 0;
    }
    std::free((*ppInfo)->pSRCIP);
    std::free((*ppInfo)->pDSTIP);
    std::free((*ppInfo)->pCASTFile);
    std::free((*ppInfo)->pEncryptionKey);
    std::free(*ppInfo);
    *ppInfo = nullptr;
    return 1;
}

int VALIDATECASTInfo(const CASTInfo *pInfo) {
    if (pInfo == nullptr || pInfo->usDSTPort == 0 || pInfo->pDSTIP == nullptr) {
        return -1;
    }
    if (isStream(pInfo->ulCASTType)) {
        return pInfo->pSRCIP != nullptr && pInfo->usSRCPort != 0 ? 1 : 0;
    }
    return pInfo->ulCASTType == CAST_TYPE_FILE && pInfo->pCASTFile != nullptr ? 1 : 0;
}

int COMPARECASTInfo(const CASTInfo *pA, const CASTInfo *pB, int iMode) {
    if (pA == nullptr || pB == nullptr) {
        return -1;
    }
    if (pA->uliEPGID != pB->uliEPGID) {
        return 1;
    }
    if (iMode == 1) {
        return 0;
    }
    if (iMode != 0) {
        return 1;
    }
    return pA->ulCASTType == pB->ulCASTType && pA->ulST == pB->ulST && pA->ulET == pB->ulET &&
                   pA->usDSTPort == pB->usDSTPort
               ? 0
               : 1;
}

int PRINTCASTInfo(const CASTInfo *pInfo, const char *pCaller) {
    std::printf("%s: Caller[%s]\n", "PRINTCASTInfo", pCaller == nullptr ? "UNKNOWN" : pCaller);
    if (pInfo == nullptr) {
        std::puts("\tpInfo is NULL");
        return 0;
    }
    std::printf("\t ulCMD:%lu\n\t ulCASTType:%lu\n\t uliEPGID:%lu\n\t ulCT:%.24s\n", pInfo->ulCMD,
                pInfo->ulCASTType, pInfo->uliEPGID, timeText(pInfo->ulCT).text.data());
    std::printf("\t ulST:%.24s\n", timeText(pInfo->ulST).text.data());
    std::printf("\t ulET:%.24s\n", timeText(pInfo->ulET).text.data());
    std::printf("\t pDSTIP:Port = %s:%d\n", orQuestion(orNull(pInfo->pDSTIP)), pInfo->usDSTPort);
    std::printf("\t ulSTREAMFormat:%lu\n", pInfo->ulSTREAMFormat);
    std::printf("\t iEncryptionType:%d\n", pInfo->iEncryptionType);
    if (pInfo->ulCASTType == CAST_TYPE_FILE) {
        std::printf("\t pCASTFile =  %s\n", orQuestion(orNull(pInfo->pCASTFile)));
        std::printf("\t ulMSID =  %lu\n", pInfo->ulMSID);
    } else if (isStream(pInfo->ulCASTType)) {
        std::printf("\t pSRCIP:Port =  %s:%d\n", orQuestion(orNull(pInfo->pSRCIP)), pInfo->usSRCPort);
    } else {
        std::printf("\t---> INVALID CASTType[%lu]\n", pInfo->ulCASTType);
    }
    return 0;
}

template <>
struct RecordKind<CASTList> {
    using Record = CASTInfo;
    static constexpr const char *kHandle = "ppCASTList", *kSlot = "ppCASTInfo";

    static int eliminate(CASTInfo **ppInfo) { return ELIMINATECASTInfo(ppInfo); }
    static int copy(const CASTInfo *pSrc, CASTInfo **ppCASTDST) { return COPYaCASTInfo(pSrc, ppCASTDST); }
    static int compare(const CASTInfo *pA, const CASTInfo *pB, int iMode) {
        return COMPARECASTInfo(pA, pB, iMode);
    }
    static KTMUTEXHold lock(const CASTList *pCASTList, int) { return KTMUTEXLock(pCASTList->pMutex); }
    static void print(const CASTInfo *pInfo) { PRINTCASTInfo(pInfo, "PRINTCASTList"); }
};

int CREATECASTList(CASTList *pCASTList) {
    return createRecordList(pCASTList, "CREATECASTList");
}

int DESTROYCASTList(CASTList *pCASTList) {
    if (pCASTList == nullptr || pCASTList->pMutex == nullptr) {
        if (pCASTList != nullptr) {
            releaseRecords(pCASTList); // without a mutex nothing was ever filed
        }
        return 0;
    }
    int iResult = 0;
    {
        // Nobody else uses the list any more. So its records are released even without the lock.
        const KTMUTEXHold hold = KTMUTEXLock(pCASTList->pMutex);
        iResult = releaseRecords(pCASTList);
    }
    KTMUTEXDelete(&pCASTList->pMutex);
    return iResult;
}

int INSERTCASTInfo(CASTList *pCASTList, CASTInfo *pInfo) {
    if (!isUsable(pCASTList) || pInfo == nullptr) {
        return 0;
    }
    Removed<CASTList> cancelled;
    KTMUTEXHold hold = KTMUTEXLock(pCASTList->pMutex);
    if (hold == nullptr) {
        return 0;
    }
    // A stop request with no equal goes to the head. There the supervisor finds it first and ends the cast on
    // air.
    bool bLast = true;
    const bool bTaken = pInfo->ulCMD == CAST_CMD_STOP ? insertRevocation(pCASTList, pInfo, &cancelled)
                                                      : insertInOrder(pCASTList, pInfo, &bLast);
    if (!bTaken) {
        return 0;
    }
    pCASTList->iFLAGChange = bLast ? 1 : pCASTList->iFLAGChange + 1;
    hold.reset();
    if (cancelled.pFirst != nullptr) {
        releaseRemoved<CASTList>(&cancelled, [=](const CASTInfo *pRecord) { viewCancelled(pRecord, pInfo); });
        viewDone(pInfo);
        ELIMINATECASTInfo(&pInfo);
    }
    return 1;
}

int PATCHaNode(CASTList *pCASTList, unsigned long ulOnAirCT, unsigned long ulDueTime, CASTInfo **ppCASTInfo) {
    const auto isDue = [=](const CASTInfo *pInfo) {
        // A stop request made in the same second as the cast on air must still end it.
        if (pInfo->ulCMD == CAST_CMD_STOP) {
            return pInfo->ulST <= ulDueTime && ulOnAirCT <= pInfo->ulCT;
        }
        return (pInfo->ulST <= vexa_time(nullptr) || pInfo->ulST <= ulDueTime) && ulOnAirCT < pInfo->ulCT;
    };
    return takeDueRecord(pCASTList, isDue, ppCASTInfo, "PATCHaNode");
}

int PATCHaCASTInfo(CASTList *pCASTList, CASTInfo **ppCASTInfo) {
    return takeHeadRecord(pCASTList, ppCASTInfo, "PATCHaCASTInfo");
}

int GETCOPYaCASTInfo(CASTList *pCASTList, CASTInfo **ppCASTInfo) {
    return copyHeadRecord(pCASTList, ppCASTInfo, "GETCOPYaCASTInfo");
}

int REMOVECASTInfo(CASTList *pCASTList, const CASTInfo *pInfo) {
    return removeEqualRecords(pCASTList, pInfo);
}

int castlistRemoveRequest(CASTList *pCASTList, const CASTInfo *pInfo) {
    bool bFound = false;
    return removeRecords(
        pCASTList,
        [&](const CASTInfo *pRecord) {
            const bool bThis =
                !bFound && COMPARECASTInfo(pInfo, pRecord, 0) == 0 && pInfo->ulCT == pRecord->ulCT;
            bFound = bFound || bThis;
            return bThis;
        },
        viewReleased);
}

int REMOVEHeadCASTList(CASTList *pCASTList) {
    return removeHeadRecord(pCASTList);
}

void PRINTCASTList(CASTList *pCASTList, const char *pCaller) {
    printRecordList(pCASTList, pCaller);
}

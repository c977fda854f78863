#include "castlistmgr.h"

#include "timetext.h"

#include <vexa_pgl.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace {

constexpr unsigned long kNodeSize = 100; // what every entry is filed with; nothing reads it

struct Eliminate {
    void operator()(CASTInfo *pInfo) const { ELIMINATECASTInfo(&pInfo); }
};
using OwnedCast = std::unique_ptr<CASTInfo, Eliminate>;

bool isStream(unsigned long ulCASTType) {
    return ulCASTType == CAST_TYPE_STREAM || ulCASTType == CAST_TYPE_STREAM_2;
}

// An owned copy; null for a missing text, and when memory runs out.
char *copyText(const char *pText) {
    char *pCopy = nullptr;
    KTCOPYString(pText, &pCopy);
    return pCopy;
}

const char *orNull(const char *pText) {
    return pText == nullptr ? "NULL" : pText;
}

bool isUsable(const CASTList *pCASTList) {
    return pCASTList != nullptr && pCASTList->pMutex != nullptr && pCASTList->pList != nullptr;
}

// Whether an output slot may be filled; a full one is refused in the name of the operation.
bool isEmptySlot(CASTInfo *const *ppCASTInfo, const char *pOperation) {
    if (*ppCASTInfo != nullptr) {
        std::printf("%s(): ppCASTInfo is NOT NULL\n", pOperation);
        return false;
    }
    return true;
}

CASTInfo *recordOf(const KTLIST_NODE *pNode) {
    return static_cast<CASTInfo *>(pNode->pData);
}

// The head's record; null when there is no entry, or none in it.
CASTInfo *headRecord(const KTLIST *pList) {
    return pList->pHead == nullptr ? nullptr : recordOf(pList->pHead);
}

// Takes out the record behind the place in the list; it is the caller's.
CASTInfo *take(KTLIST *pList, KTLIST_NODE *pPlace) {
    return static_cast<CASTInfo *>(ktlistRemoveAfter(pList, pPlace));
}

void drop(KTLIST *pList, KTLIST_NODE *pPlace) {
    CASTInfo *pInfo = take(pList, pPlace);
    ELIMINATECASTInfo(&pInfo);
}

// A stop request cancels the first equal waiting request; without one it goes to the head, so that the
// supervisor meets it first and ends the cast on air with it. Returns whether the list has taken it.
bool insertStop(CASTList *pCASTList, CASTInfo *pInfo) {
    KTLIST *pList = pCASTList->pList;
    KTLIST_NODE *pPlace = nullptr;
    KTLIST_NODE *pNode = nullptr;
    while ((pNode = ktlistAfter(pList, pPlace)) != nullptr && // no record is equal to none
           COMPARECASTInfo(pInfo, recordOf(pNode), 0) != 0) {
        pPlace = pNode;
    }
    if (pNode != nullptr) {
        drop(pList, pPlace);
        ELIMINATECASTInfo(&pInfo);
    } else if (KTLISTpInsertHead(pList, pInfo, kNodeSize) < 1) {
        return false;
    }
    pCASTList->iFLAGChange = 1;
    return true;
}

// Returns whether the list has taken the record.
bool insertInOrder(CASTList *pCASTList, CASTInfo *pInfo) {
    KTLIST *pList = pCASTList->pList;
    KTLIST_NODE *pPrevious = nullptr;
    KTLIST_NODE *pNode = pList->pHead;
    while (pNode != nullptr && (recordOf(pNode) == nullptr || recordOf(pNode)->ulCT >= pInfo->ulCT)) {
        pPrevious = pNode;
        pNode = pNode->pNext;
    }
    const int iResult = pPrevious == nullptr ? KTLISTpInsertHead(pList, pInfo, kNodeSize)
                                             : KTLISTpInsert(pList, pInfo, kNodeSize, pPrevious);
    if (iResult < 1) {
        return false;
    }
    if (pNode == nullptr) {
        pCASTList->iFLAGChange = 1;
    } else {
        ++pCASTList->iFLAGChange;
    }
    return true;
}

bool isDue(const CASTInfo *pInfo, unsigned long ulOnAirCT, unsigned long ulDueTime) {
    if (pInfo->ulCMD == CAST_CMD_STOP) {
        return pInfo->ulST <= ulDueTime && ulOnAirCT <= pInfo->ulCT;
    }
    return (pInfo->ulST <= vexa_time(nullptr) || pInfo->ulST <= ulDueTime) && ulOnAirCT < pInfo->ulCT;
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
    std::printf("\t pDSTIP:Port = %s:%d\n", orNull(pInfo->pDSTIP), pInfo->usDSTPort);
    std::printf("\t ulSTREAMFormat:%lu\n", pInfo->ulSTREAMFormat);
    std::printf("\t iEncryptionType:%d\n", pInfo->iEncryptionType);
    if (pInfo->ulCASTType == CAST_TYPE_FILE) {
        std::printf("\t pCASTFile =  %s\n", orNull(pInfo->pCASTFile));
        std::printf("\t ulMSID =  %lu\n", pInfo->ulMSID);
    } else if (isStream(pInfo->ulCASTType)) {
        std::printf("\t pSRCIP:Port =  %s:%d\n", orNull(pInfo->pSRCIP), pInfo->usSRCPort);
    } else {
        std::printf("\t---> INVALID CASTType[%lu]\n", pInfo->ulCASTType);
    }
    return 0;
}

int CREATECASTList(CASTList *pCASTList) {
    if (pCASTList == nullptr) {
        return 0;
    }
    pCASTList->iFLAGChange = 0;
    if (pCASTList->pMutex != nullptr || pCASTList->pList != nullptr) {
        std::printf("%s(): ppCASTList is NOT NULL: maybe uninitialized\n", "CREATECASTList");
        return -1;
    }
    KTMUTEXCreate(&pCASTList->pMutex);
    KTLISTCreate(&pCASTList->pList);
    return pCASTList->pMutex != nullptr && pCASTList->pList != nullptr ? 1 : 0;
}

int DESTROYCASTList(CASTList *pCASTList) {
    if (pCASTList == nullptr || pCASTList->pMutex == nullptr) {
        if (pCASTList != nullptr && pCASTList->pList != nullptr) {
            KTLISTpDelete(&pCASTList->pList); // the mutex could not be made, so nothing was ever filed
        }
        return 0;
    }
    int iResult = 0;
    {
        // Nobody else uses the list any more: what it holds is released whether or not the lock is had.
        const KTMUTEXHold hold = KTMUTEXLock(pCASTList->pMutex);
        if (pCASTList->pList != nullptr) {
            for (const KTLIST_NODE *pNode = pCASTList->pList->pHead; pNode != nullptr; pNode = pNode->pNext) {
                CASTInfo *pInfo = recordOf(pNode);
                iResult |= ELIMINATECASTInfo(&pInfo);
            }
            KTLISTpDelete(&pCASTList->pList);
        }
    }
    KTMUTEXDelete(&pCASTList->pMutex);
    return iResult;
}

int INSERTCASTInfo(CASTList *pCASTList, CASTInfo *pInfo) {
    if (!isUsable(pCASTList) || pInfo == nullptr) {
        return 0;
    }
    const KTMUTEXHold hold = KTMUTEXLock(pCASTList->pMutex);
    if (hold == nullptr) {
        return 0;
    }
    const bool bTaken =
        pInfo->ulCMD == CAST_CMD_STOP ? insertStop(pCASTList, pInfo) : insertInOrder(pCASTList, pInfo);
    return bTaken ? 1 : 0;
}

int PATCHaNode(CASTList *pCASTList, unsigned long ulOnAirCT, unsigned long ulDueTime, CASTInfo **ppCASTInfo) {
    if (!isUsable(pCASTList)) {
        return 0;
    }
    if (!isEmptySlot(ppCASTInfo, "PATCHaNode")) {
        return -1;
    }
    const KTMUTEXHold hold = KTMUTEXLock(pCASTList->pMutex);
    if (hold == nullptr) {
        return 0;
    }
    KTLIST *pList = pCASTList->pList;
    KTLIST_NODE *pPlace = nullptr;
    while (KTLIST_NODE *pNode = ktlistAfter(pList, pPlace)) {
        const CASTInfo *pInfo = recordOf(pNode);
        if (pInfo != nullptr && pInfo->ulET <= vexa_time(nullptr)) {
            drop(pList, pPlace);
        } else if (pInfo != nullptr && isDue(pInfo, ulOnAirCT, ulDueTime)) {
            *ppCASTInfo = take(pList, pPlace);
            return 1;
        } else {
            pPlace = pNode;
        }
    }
    return 0;
}

int PATCHaCASTInfo(CASTList *pCASTList, CASTInfo **ppCASTInfo) {
    if (!isUsable(pCASTList)) {
        return 0;
    }
    if (!isEmptySlot(ppCASTInfo, "PATCHaCASTInfo")) {
        return -1;
    }
    const KTMUTEXHold hold = KTMUTEXLock(pCASTList->pMutex);
    if (hold == nullptr || headRecord(pCASTList->pList) == nullptr) {
        return 0;
    }
    *ppCASTInfo = take(pCASTList->pList, nullptr);
    pCASTList->iFLAGChange = 1;
    return 1;
}

int GETCOPYaCASTInfo(CASTList *pCASTList, CASTInfo **ppCASTInfo) {
    if (!isUsable(pCASTList)) {
        return 0;
    }
    if (!isEmptySlot(ppCASTInfo, "GETCOPYaCASTInfo")) {
        return -1;
    }
    const KTMUTEXHold hold = KTMUTEXLock(pCASTList->pMutex);
    if (hold == nullptr || headRecord(pCASTList->pList) == nullptr) {
        return 0;
    }
    COPYaCASTInfo(headRecord(pCASTList->pList), ppCASTInfo);
    return 1;
}

int REMOVECASTInfo(CASTList *pCASTList, const CASTInfo *pInfo) {
    if (!isUsable(pCASTList)) {
        return 0;
    }
    const KTMUTEXHold hold = KTMUTEXLock(pCASTList->pMutex);
    if (hold == nullptr) {
        return 0;
    }
    int iResult = 0;
    KTLIST_NODE *pPlace = nullptr;
    while (KTLIST_NODE *pNode = ktlistAfter(pCASTList->pList, pPlace)) {
        if (COMPARECASTInfo(pInfo, recordOf(pNode), 0) == 0) {
            drop(pCASTList->pList, pPlace);
            pCASTList->iFLAGChange = 1;
            iResult = 1;
        } else {
            pPlace = pNode;
        }
    }
    return iResult;
}

int REMOVEHeadCASTList(CASTList *pCASTList) {
    if (!isUsable(pCASTList)) {
        return 0;
    }
    const KTMUTEXHold hold = KTMUTEXLock(pCASTList->pMutex);
    if (hold == nullptr || headRecord(pCASTList->pList) == nullptr) {
        return 0;
    }
    drop(pCASTList->pList, nullptr);
    pCASTList->iFLAGChange = 1;
    return 1;
}

void PRINTCASTList(CASTList *pCASTList, const char *pCaller) {
    if (pCASTList == nullptr || pCASTList->pMutex == nullptr) {
        return;
    }
    {
        const KTMUTEXHold hold = KTMUTEXLock(pCASTList->pMutex);
        if (hold == nullptr) {
            return;
        }
        std::printf("-----------------[ SHOW LIST: Caller::%s()\n", pCaller == nullptr ? "UNKNOWN" : pCaller);
        if (pCASTList->pList != nullptr) {
            for (const KTLIST_NODE *pNode = pCASTList->pList->pHead; pNode != nullptr; pNode = pNode->pNext) {
                PRINTCASTInfo(recordOf(pNode), "PRINTCASTList");
            }
        }
    }
    std::printf("SHOW LIST: %d total, iFLAGChange:%d ]------------------\n",
                pCASTList->pList == nullptr ? 0 : pCASTList->pList->iCount.load(),
                pCASTList->iFLAGChange.load());
}

#include "msglistmgr.h"

#include "timetext.h"

#include <vexa_pgl.h>

#include <cstdio>
#include <cstdlib>
#include <memory>

namespace {

constexpr const char *kModule = "msglistmgr";
constexpr unsigned long kNodeSize = 100; // what every node is filed with; nothing reads it

bool isUsable(const MSGList *pMSGList) {
    return pMSGList != nullptr && pMSGList->pMutex != nullptr && pMSGList->pList != nullptr;
}

bool isEmptySlot(MSGInfo *const *ppMSGInfo, const char *pOperation) {
    if (*ppMSGInfo != nullptr) {
        std::printf("%s(): ppMSGInfo is NOT NULL\n", pOperation);
        return false;
    }
    return true;
}

// Takes the list's lock; one that cannot be had is printed with the line of the attempt.
KTMUTEXHold lockList(const MSGList *pMSGList, int iLine = __builtin_LINE()) {
    KTMUTEXHold hold = KTMUTEXLock(pMSGList->pMutex);
    if (hold == nullptr) {
        std::printf("[%s:%d] \e[2;31m can NOT LOCK \e[1;41m[ERROR]\e[0m\n", kModule, iLine);
    }
    return hold;
}

MSGInfo *recordOf(const KTLIST_NODE *pNode) {
    return static_cast<MSGInfo *>(pNode->pData);
}

// Takes out the record behind the place in the list; it is the caller's.
MSGInfo *take(KTLIST *pList, KTLIST_NODE *pPlace) {
    return static_cast<MSGInfo *>(ktlistRemoveAfter(pList, pPlace));
}

void drop(KTLIST *pList, KTLIST_NODE *pPlace) {
    MSGInfo *pInfo = take(pList, pPlace);
    ELIMINATEMSGInfo(&pInfo);
}

// Returns whether the list has taken the request.
bool insertCancel(KTLIST *pList, MSGInfo *pInfo) {
    KTLIST_NODE *pPlace = nullptr;
    while (KTLIST_NODE *pNode = ktlistAfter(pList, pPlace)) {
        if (COMPAREMSGInfo(pInfo, recordOf(pNode), 0) == 0) {
            drop(pList, pPlace);
            ELIMINATEMSGInfo(&pInfo);
            return true;
        }
        pPlace = pNode;
    }
    return KTLISTpInsertHead(pList, pInfo, kNodeSize) > 0;
}

// Returns whether the list has taken the record.
bool insertInOrder(KTLIST *pList, MSGInfo *pInfo) {
    KTLIST_NODE *pPrevious = nullptr;
    KTLIST_NODE *pNode = pList->pHead;
    while (pNode != nullptr && recordOf(pNode)->ulCT >= pInfo->ulCT) {
        pPrevious = pNode;
        pNode = pNode->pNext;
    }
    return (pPrevious == nullptr ? KTLISTpInsertHead(pList, pInfo, kNodeSize)
                                 : KTLISTpInsert(pList, pInfo, kNodeSize, pPrevious)) > 0;
}

} // namespace

int MAKEMSGInfo(MSGInfo **ppInfo, const char *pText) {
    if (*ppInfo != nullptr) {
        std::printf("%s(): pInfo is NOT EMPTY\n", "MAKEMSGInfo");
        return -1;
    }
    if (pText == nullptr) {
        return -1;
    }
    auto *pInfo = static_cast<MSGInfo *>(std::calloc(1, sizeof(MSGInfo)));
    if (pInfo == nullptr) {
        return 0;
    }
    if (KTCOPYString(pText, &pInfo->pMSGSTR) != 1) {
        std::free(pInfo);
        return -1;
    }
    *ppInfo = pInfo;
    return 1;
}

int COPYaMSGInfo(const MSGInfo *pSrc, MSGInfo **ppMSGDST) {
    if (pSrc == nullptr) {
        return 0;
    }
    if (*ppMSGDST != nullptr) {
        std::printf("%s(): ppMSGDST is NOT EMPTY\n", "COPYaMSGInfo");
        return -1;
    }
    MSGInfo *pCopy = nullptr;
    if (MAKEMSGInfo(&pCopy, pSrc->pMSGSTR) != 1) {
        return 0;
    }
    char *pText = pCopy->pMSGSTR;
    *pCopy = *pSrc;
    pCopy->pMSGSTR = pText;
    *ppMSGDST = pCopy;
    return 1;
}

int ELIMINATEMSGInfo(MSGInfo **ppInfo) {
    if (*ppInfo == nullptr) {
        return 0;
    }
    std::free((*ppInfo)->pMSGSTR);
    std::free(*ppInfo);
    *ppInfo = nullptr;
    return 1;
}

int COMPAREMSGInfo(const MSGInfo *pA, const MSGInfo *pB, int iMode) {
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
    return pA->ulCT == pB->ulCT && pA->ulST == pB->ulST && pA->ulET == pB->ulET ? 0 : 1;
}

int VALIDATEMSGInfo(const MSGInfo *pInfo) {
    return pInfo == nullptr || (pInfo->ulCMD == PCMBC_CMD_MSG && pInfo->pMSGSTR == nullptr) ? -1 : 1;
}

int PRINTMSGInfo(const MSGInfo *pInfo, const char *pCaller) {
    std::printf("%s: Caller[%s]\n", "PRINTMSGInfo", pCaller == nullptr ? "UNKNOWN" : pCaller);
    if (pInfo == nullptr) {
        std::puts("\tpInfo is NULL");
        return 0;
    }
    std::printf("\t ulCMD:%lu\n\t uliEPGID:%lu\n\t ulCT:%.24s\n", pInfo->ulCMD, pInfo->uliEPGID,
                timeText(pInfo->ulCT).text.data());
    std::printf("\t ulPriority:%lu\n", pInfo->ulPriority);
    std::printf("\t ulST:%.24s\n", timeText(pInfo->ulST).text.data());
    std::printf("\t ulET:%.24s\n", timeText(pInfo->ulET).text.data());
    std::printf("\t ulRepeat:%lu\n", pInfo->ulRepeat);
    std::printf("\t pMSGSTR =  %s\n", pInfo->pMSGSTR == nullptr ? "NULL" : pInfo->pMSGSTR);
    return 0;
}

int CREATEMSGList(MSGList *pMSGList) {
    if (pMSGList == nullptr) {
        return 0;
    }
    pMSGList->iFLAGChange = 0;
    if (pMSGList->pMutex != nullptr || pMSGList->pList != nullptr) {
        std::printf("%s(): ppMSGList is NOT NULL: maybe uninitialized\n", "CREATEMSGList");
        return -1;
    }
    KTMUTEXCreate(&pMSGList->pMutex);
    KTLISTCreate(&pMSGList->pList);
    return pMSGList->pMutex != nullptr && pMSGList->pList != nullptr ? 1 : 0;
}

int DESTROYMSGList(MSGList *pMSGList) {
    if (pMSGList == nullptr) {
        return 0;
    }
    int iResult = 0;
    {
        const KTMUTEXHold hold = lockList(pMSGList);
        // Without a mutex nothing was ever filed: the list alone is released.
        if ((hold != nullptr || pMSGList->pMutex == nullptr) && pMSGList->pList != nullptr) {
            for (const KTLIST_NODE *pNode = pMSGList->pList->pHead; pNode != nullptr; pNode = pNode->pNext) {
                MSGInfo *pInfo = recordOf(pNode);
                iResult |= ELIMINATEMSGInfo(&pInfo);
            }
            KTLISTpDelete(&pMSGList->pList);
        }
    }
    if (pMSGList->pMutex != nullptr) {
        KTMUTEXDelete(&pMSGList->pMutex);
    }
    return iResult;
}

int INSERTMSGInfo(MSGList *pMSGList, MSGInfo *pInfo) {
    if (!isUsable(pMSGList) || pInfo == nullptr) {
        return 0;
    }
    const KTMUTEXHold hold = lockList(pMSGList);
    if (hold == nullptr) {
        return 0;
    }
    const bool bTaken = pInfo->ulCMD == PCMBC_CMD_CANCEL ? insertCancel(pMSGList->pList, pInfo)
                                                         : insertInOrder(pMSGList->pList, pInfo);
    if (!bTaken) {
        return 0;
    }
    pMSGList->iFLAGChange = 1;
    return 1;
}

int REMOVEMSGInfo(MSGList *pMSGList, const MSGInfo *pKey) {
    if (!isUsable(pMSGList)) {
        return 0;
    }
    const KTMUTEXHold hold = lockList(pMSGList);
    if (hold == nullptr) {
        return 0;
    }
    int iResult = 0;
    KTLIST_NODE *pPlace = nullptr;
    while (KTLIST_NODE *pNode = ktlistAfter(pMSGList->pList, pPlace)) {
        if (COMPAREMSGInfo(pKey, recordOf(pNode), 0) == 0) {
            drop(pMSGList->pList, pPlace);
            pMSGList->iFLAGChange = 1;
            iResult = 1;
        } else {
            pPlace = pNode;
        }
    }
    return iResult;
}

int REMOVEHeadMSGList(MSGList *pMSGList) {
    if (!isUsable(pMSGList)) {
        return 0;
    }
    const KTMUTEXHold hold = lockList(pMSGList);
    if (hold == nullptr || pMSGList->pList->pHead == nullptr) {
        return 0;
    }
    drop(pMSGList->pList, nullptr);
    pMSGList->iFLAGChange = 1;
    return 1;
}

int PATCHaMSGInfo(MSGList *pMSGList, MSGInfo **ppMSGInfo) {
    if (!isUsable(pMSGList)) {
        return 0;
    }
    if (!isEmptySlot(ppMSGInfo, "PATCHaMSGInfo")) {
        return -1;
    }
    const KTMUTEXHold hold = lockList(pMSGList);
    if (hold == nullptr || pMSGList->pList->pHead == nullptr) {
        return 0;
    }
    *ppMSGInfo = take(pMSGList->pList, nullptr);
    pMSGList->iFLAGChange = 1;
    return 1;
}

int PATCHaMSGNode(MSGList *pMSGList, unsigned long ulOnAirCT, unsigned long ulDueTime, MSGInfo **ppMSGInfo) {
    if (!isUsable(pMSGList)) {
        return 0;
    }
    if (!isEmptySlot(ppMSGInfo, "PATCHaMSGNode")) {
        return -1;
    }
    const KTMUTEXHold hold = lockList(pMSGList);
    if (hold == nullptr) {
        return 0;
    }
    KTLIST *pList = pMSGList->pList;
    KTLIST_NODE *pPlace = nullptr;
    while (KTLIST_NODE *pNode = ktlistAfter(pList, pPlace)) {
        const MSGInfo *pInfo = recordOf(pNode);
        if (pInfo->ulET <= vexa_time(nullptr)) {
            drop(pList, pPlace);
        } else if (pInfo->ulST <= ulDueTime && ulOnAirCT <= pInfo->ulCT) {
            *ppMSGInfo = take(pList, pPlace);
            return 1;
        } else {
            pPlace = pNode;
        }
    }
    return 0;
}

int GETCOPYaMSGInfo(MSGList *pMSGList, MSGInfo **ppMSGInfo) {
    if (!isUsable(pMSGList)) {
        return 0;
    }
    if (!isEmptySlot(ppMSGInfo, "GETCOPYaMSGInfo")) {
        return -1;
    }
    const KTMUTEXHold hold = lockList(pMSGList);
    if (hold == nullptr || pMSGList->pList->pHead == nullptr) {
        return 0;
    }
    COPYaMSGInfo(recordOf(pMSGList->pList->pHead), ppMSGInfo);
    return 1;
}

void PRINTMSGList(MSGList *pMSGList, const char *pCaller) {
    if (pMSGList == nullptr || pMSGList->pMutex == nullptr) {
        return;
    }
    {
        const KTMUTEXHold hold = lockList(pMSGList);
        if (hold == nullptr) {
            return;
        }
        std::printf("-----------------[ SHOW LIST: Caller::%s()\n", pCaller == nullptr ? "UNKNOWN" : pCaller);
        if (pMSGList->pList != nullptr) {
            for (const KTLIST_NODE *pNode = pMSGList->pList->pHead; pNode != nullptr; pNode = pNode->pNext) {
                PRINTMSGInfo(recordOf(pNode), "PRINTMSGList");
            }
        }
    }
    std::printf("SHOW LIST: %d total, iFLAGChange:%d ]------------------\n",
                pMSGList->pList == nullptr ? 0 : pMSGList->pList->iCount.load(),
                pMSGList->iFLAGChange.load());
}

namespace {

void trace(int iLine) {
    std::printf("%s:%s():%d\n", kModule, "diagMSGListMain", iLine);
}

// Files a copy of the template with the given times and EPG id. Returns the insertion's result.
int diagInsert(MSGList *pMSGList, const MSGInfo *pTemplate, unsigned long ulTime, unsigned long uliEPGID) {
    MSGInfo *pInfo = nullptr;
    if (COPYaMSGInfo(pTemplate, &pInfo) != 1) {
        return 0;
    }
    pInfo->ulCT = ulTime;
    pInfo->ulST = ulTime;
    pInfo->uliEPGID = uliEPGID;
    const int iResult = INSERTMSGInfo(pMSGList, pInfo);
    if (iResult < 1) {
        ELIMINATEMSGInfo(&pInfo);
    }
    std::printf("%2dth INSERTED[%d]\n", static_cast<int>(ulTime), iResult);
    return iResult;
}

} // namespace

int diagMSGListMain(void) {
    MSGList list{};
    trace(__LINE__);
    int iResult = CREATEMSGList(&list);
    if (iResult < 1) {
        DESTROYMSGList(&list); // one of mutex and list may have been made
        return iResult;
    }
    MSGInfo *pTemplate = nullptr;
    trace(__LINE__);
    iResult = MAKEMSGInfo(&pTemplate, "MSGFILE.asf");
    if (iResult < 1) {
        DESTROYMSGList(&list);
        return iResult;
    }
    trace(__LINE__);
    pTemplate->uliEPGID = 1;
    pTemplate->ulCT = 2;
    pTemplate->ulST = 3;
    pTemplate->ulET = 4;
    PRINTMSGInfo(pTemplate, "diagMSGListMain");
    trace(__LINE__);

    for (unsigned long i = 1; i <= 4; ++i) {
        iResult = diagInsert(&list, pTemplate, i, i - 1);
    }
    PRINTMSGList(&list, "diagMSGListMain");
    for (unsigned long i = 5; i >= 2; --i) {
        iResult = diagInsert(&list, pTemplate, i, 9 - i);
    }
    PRINTMSGList(&list, "diagMSGListMain");

    MSGInfo *pTaken = nullptr;
    while (PATCHaMSGInfo(&list, &pTaken) >= 1) {
        if (pTaken == nullptr) {
            trace(__LINE__);
            continue;
        }
        PRINTMSGInfo(pTaken, "diagMSGListMain");
        ELIMINATEMSGInfo(&pTaken);
    }
    ELIMINATEMSGInfo(&pTemplate);
    DESTROYMSGList(&list);
    return iResult;
}

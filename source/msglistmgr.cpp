// The records of PC messages and their list. The contracts stand in msginfo.h and msglistmgr.h.
#include "msglistmgr.h"

#include "consoletext.h"
#include "recordlist.h"
#include "timetext.h"

#include <vexa_pgl.h>

#include <cstdio>
#include <cstdlib>
#include <memory>

namespace {

constexpr const char *kModule = "msglistmgr";

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
    std::printf("\t pMSGSTR =  %s\n", orQuestion(consoleText(pInfo->pMSGSTR, "NULL")));
    return 0;
}

template <>
struct RecordKind<MSGList> {
    using Record = MSGInfo;
    static constexpr const char *kHandle = "ppMSGList", *kSlot = "ppMSGInfo";

    static int eliminate(MSGInfo **ppInfo) { return ELIMINATEMSGInfo(ppInfo); }
    static int copy(const MSGInfo *pSrc, MSGInfo **ppMSGDST) { return COPYaMSGInfo(pSrc, ppMSGDST); }
    static int compare(const MSGInfo *pA, const MSGInfo *pB, int iMode) {
        return COMPAREMSGInfo(pA, pB, iMode);
    }
    // Prints a failure to get the lock.
    static KTMUTEXHold lock(const MSGList *pMSGList, int iLine) {
        KTMUTEXHold hold = KTMUTEXLock(pMSGList->pMutex);
        if (hold == nullptr) {
            std::printf("[%s:%d] \e[2;31m can NOT LOCK \e[1;41m[ERROR]\e[0m\n", kModule, iLine);
        }
        return hold;
    }
    static void print(const MSGInfo *pInfo) { PRINTMSGInfo(pInfo, "PRINTMSGList"); }
};

int CREATEMSGList(MSGList *pMSGList) {
    return createRecordList(pMSGList, "CREATEMSGList");
}

int DESTROYMSGList(MSGList *pMSGList) {
    if (pMSGList == nullptr) {
        return 0;
    }
    int iResult = 0;
    {
        const KTMUTEXHold hold = RecordKind<MSGList>::lock(pMSGList, __LINE__);
        // Without a mutex nothing was ever filed. Then no lock is needed to release the list.
        if (hold != nullptr || pMSGList->pMutex == nullptr) {
            iResult = releaseRecords(pMSGList);
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
    Removed<MSGList> cancelled;
    KTMUTEXHold hold = RecordKind<MSGList>::lock(pMSGList, __LINE__);
    if (hold == nullptr) {
        return 0;
    }
    bool bLast = false;
    const bool bTaken = pInfo->ulCMD == PCMBC_CMD_CANCEL ? insertRevocation(pMSGList, pInfo, &cancelled)
                                                         : insertInOrder(pMSGList, pInfo, &bLast);
    if (!bTaken) {
        return 0;
    }
    pMSGList->iFLAGChange = 1;
    hold.reset();
    if (cancelled.pFirst != nullptr) {
        releaseRemoved<MSGList>(&cancelled, [=](const MSGInfo *pRecord) { viewCancelled(pRecord, pInfo); });
        viewDone(pInfo);
        ELIMINATEMSGInfo(&pInfo);
    }
    return 1;
}

int REMOVEMSGInfo(MSGList *pMSGList, const MSGInfo *pKey) {
    return removeEqualRecords(pMSGList, pKey);
}

int REMOVEHeadMSGList(MSGList *pMSGList) {
    return removeHeadRecord(pMSGList);
}

int PATCHaMSGInfo(MSGList *pMSGList, MSGInfo **ppMSGInfo) {
    return takeHeadRecord(pMSGList, ppMSGInfo, "PATCHaMSGInfo");
}

int PATCHaMSGNode(MSGList *pMSGList, unsigned long ulOnAirCT, unsigned long ulDueTime, MSGInfo **ppMSGInfo) {
    const auto isDue = [=](const MSGInfo *pInfo) {
        return pInfo->ulST <= ulDueTime && ulOnAirCT <= pInfo->ulCT;
    };
    return takeDueRecord(pMSGList, isDue, ppMSGInfo, "PATCHaMSGNode");
}

int GETCOPYaMSGInfo(MSGList *pMSGList, MSGInfo **ppMSGInfo) {
    return copyHeadRecord(pMSGList, ppMSGInfo, "GETCOPYaMSGInfo");
}

void PRINTMSGList(MSGList *pMSGList, const char *pCaller) {
    printRecordList(pMSGList, pCaller);
}

namespace {

void trace(int iLine) {
    std::printf("%s:%s():%d\n", kModule, "diagMSGListMain", iLine);
}

// Files a copy of the template with creation and start time ulTime. Returns the insertion's result.
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
        DESTROYMSGList(&list); // the mutex or the list may exist
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

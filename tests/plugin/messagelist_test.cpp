// The message record, the message list, and its exercise.
#include "plugintest.h"

namespace {

using script::START;

MSGInfo *message(unsigned long ulEPGID, unsigned long ulCT, unsigned long ulCMD = PCMBC_CMD_MSG,
                 unsigned long ulST = START, unsigned long ulET = START + 100) {
    MSGInfo *pInfo = nullptr;
    EXPECT_EQ(MAKEMSGInfo(&pInfo, "text"), 1);
    pInfo->ulCMD = ulCMD;
    pInfo->uliEPGID = ulEPGID;
    pInfo->ulCT = ulCT;
    pInfo->ulST = ulST;
    pInfo->ulET = ulET;
    return pInfo;
}

const char *const LOCK_LINE = "[msglistmgr:#] \033[2;31m can NOT LOCK \033[1;41m[ERROR]\033[0m\n";

class MessageListTest : public PluginTest {
protected:
    MessageListTest() { EXPECT_EQ(CREATEMSGList(&list), 1); }
    ~MessageListTest() override { DESTROYMSGList(&list); }

    int file(MSGInfo *pInfo) { return INSERTMSGInfo(&list, pInfo); }
    std::string order() const {
        std::string text;
        for (const KTLIST_NODE *pNode = list.pList->pHead; pNode != nullptr; pNode = pNode->pNext) {
            text += std::to_string(static_cast<const MSGInfo *>(pNode->pData)->uliEPGID) + " ";
        }
        return text;
    }
    unsigned long take(unsigned long ulOnAirCT, unsigned long ulDueTime) {
        MSGInfo *pInfo = nullptr;
        const int iResult = PATCHaMSGNode(&list, ulOnAirCT, ulDueTime, &pInfo);
        EXPECT_EQ(iResult, pInfo != nullptr ? 1 : 0);
        const unsigned long ulEPGID = pInfo == nullptr ? 0 : pInfo->uliEPGID;
        ELIMINATEMSGInfo(&pInfo);
        return ulEPGID;
    }
    MSGList list{};
};

TEST_F(MessageListTest, CopyHoldsEveryFieldAndNeedsAText) {
    MSGInfo *pInfo = message(1, 2), *pCopy = nullptr;
    *pInfo = MSGInfo{1, 2, 3, 4, 5, 6, 7, 8, 9, pInfo->pMSGSTR};
    ASSERT_EQ(COPYaMSGInfo(pInfo, &pCopy), 1);
    EXPECT_STREQ(pCopy->pMSGSTR, "text");
    EXPECT_NE(pCopy->pMSGSTR, pInfo->pMSGSTR);
    EXPECT_EQ(memcmp(pCopy, pInfo, offsetof(MSGInfo, pMSGSTR)), 0);
    EXPECT_EQ(COPYaMSGInfo(pInfo, &pCopy), -1);
    EXPECT_EQ(MAKEMSGInfo(&pCopy, "x"), -1);
    EXPECT_EQ(out(), "COPYaMSGInfo(): ppMSGDST is NOT EMPTY\nMAKEMSGInfo(): pInfo is NOT EMPTY\n");
    ELIMINATEMSGInfo(&pCopy);
    EXPECT_EQ(ELIMINATEMSGInfo(&pCopy), 0);
    const MSGInfo bare{};
    EXPECT_EQ(COPYaMSGInfo(&bare, &pCopy), 0);
    EXPECT_EQ(COPYaMSGInfo(nullptr, &pCopy), 0);
    EXPECT_EQ(MAKEMSGInfo(&pCopy, nullptr), -1);
    for (const long lNth : {1l, 2l}) { // the record; its text
        EXPECT_EQ(withoutAllocation(lNth, [&] { return MAKEMSGInfo(&pCopy, "x"); }), lNth == 1 ? 0 : -1);
        EXPECT_EQ(withoutAllocation(lNth, [&] { return COPYaMSGInfo(pInfo, &pCopy); }), 0);
        EXPECT_EQ(pCopy, nullptr);
    }
    ELIMINATEMSGInfo(&pInfo);
}

TEST_F(MessageListTest, ComparingAndValidating) {
    const MSGInfo same{};
    MSGInfo other{1, 0, 1, 0, 0, 0, 1, 1, 1, nullptr};
    EXPECT_EQ(COMPAREMSGInfo(&same, &other, 0), 0);
    EXPECT_EQ(COMPAREMSGInfo(&same, &other, 3), 1);
    EXPECT_EQ(COMPAREMSGInfo(&same, nullptr, 0), -1);
    for (unsigned long MSGInfo::*pField : {&MSGInfo::ulCT, &MSGInfo::ulST, &MSGInfo::ulET}) {
        MSGInfo differs = same;
        differs.*pField = 1;
        EXPECT_EQ(COMPAREMSGInfo(&same, &differs, 0), 1);
        EXPECT_EQ(COMPAREMSGInfo(&same, &differs, 1), 0);
    }
    other.uliEPGID = 1;
    EXPECT_EQ(COMPAREMSGInfo(&same, &other, 1), 1);
    EXPECT_EQ(VALIDATEMSGInfo(nullptr), -1);
    other.ulCMD = PCMBC_CMD_MSG;
    EXPECT_EQ(VALIDATEMSGInfo(&other), -1);
    other.ulCMD = PCMBC_CMD_CANCEL;
    EXPECT_EQ(VALIDATEMSGInfo(&other), 1);
}

TEST_F(MessageListTest, FilingKeepsNewestFirstAndCancelsOne) {
    for (unsigned long ul = 1; ul <= 4; ++ul) {
        file(message(ul, ul));
    }
    EXPECT_EQ(order(), "4 3 2 1 ");
    for (unsigned long ul = 5; ul >= 2; --ul) {
        file(message(ul * 10, ul));
    }
    EXPECT_EQ(order(), "50 4 40 3 30 2 20 1 ");
    EXPECT_EQ(list.iFLAGChange, 1);
    file(message(3, 3));
    list.iFLAGChange = 0;
    EXPECT_EQ(file(message(3, 3, PCMBC_CMD_CANCEL)), 1);
    EXPECT_EQ(order(), "50 4 40 30 3 2 20 1 ");
    EXPECT_EQ(list.iFLAGChange, 1);
    EXPECT_EQ(file(message(3, 1, PCMBC_CMD_CANCEL)), 1); // another creation time: nothing equal
    EXPECT_EQ(order(), "3 50 4 40 30 3 2 20 1 ");
    file(message(30, 3, 77));
    MSGInfo *pKey = message(30, 3);
    EXPECT_EQ(REMOVEMSGInfo(&list, pKey), 1);
    EXPECT_EQ(REMOVEMSGInfo(&list, pKey), 0);
    EXPECT_EQ(order(), "3 50 4 40 3 2 20 1 ");
    EXPECT_EQ(REMOVEHeadMSGList(&list), 1);
    MSGInfo *pHead = nullptr;
    EXPECT_EQ(GETCOPYaMSGInfo(&list, &pHead), 1);
    EXPECT_EQ(pHead->uliEPGID, 50u);
    EXPECT_EQ(GETCOPYaMSGInfo(&list, &pHead), -1);
    EXPECT_EQ(PATCHaMSGInfo(&list, &pHead), -1);
    EXPECT_EQ(PATCHaMSGNode(&list, 0, START, &pHead), -1);
    ELIMINATEMSGInfo(&pHead);
    EXPECT_EQ(PATCHaMSGInfo(&list, &pHead), 1);
    EXPECT_EQ(pHead->uliEPGID, 50u);
    EXPECT_EQ(order(), "4 40 3 2 20 1 ");
    EXPECT_EQ(CREATEMSGList(&list), -1);
    EXPECT_EQ(list.iFLAGChange, 0);
    EXPECT_EQ(out(), "GETCOPYaMSGInfo(): ppMSGInfo is NOT NULL\nPATCHaMSGInfo(): ppMSGInfo is NOT NULL\n"
                     "PATCHaMSGNode(): ppMSGInfo is NOT NULL\n"
                     "CREATEMSGList(): ppMSGList is NOT NULL: maybe uninitialized\n");
    ELIMINATEMSGInfo(&pHead);
    ELIMINATEMSGInfo(&pKey);
}

TEST_F(MessageListTest, TakingDropsTheExpiredOnItsWay) {
    file(message(1, 9, PCMBC_CMD_MSG, START, START));
    file(message(2, 8, PCMBC_CMD_MSG, START + 5));
    file(message(3, 7));
    file(message(4, 6, PCMBC_CMD_MSG, START, START));
    list.iFLAGChange = 0;
    EXPECT_EQ(take(7, START + 2), 3u); // as old as the one on air
    EXPECT_EQ(order(), "2 4 ");
    EXPECT_EQ(take(9, START + 5), 0u);
    EXPECT_EQ(order(), "2 ");
    EXPECT_EQ(take(0, START + 4), 0u);
    EXPECT_EQ(take(0, START + 5), 2u);
    file(message(5, 5, PCMBC_CMD_CANCEL, START, START));
    EXPECT_EQ(take(0, START + 5), 0u); // a list of expired ones alone is left empty
    EXPECT_EQ(order(), "");
    EXPECT_EQ(list.iFLAGChange, 1); // of the filing
}

TEST_F(MessageListTest, LostLockIsPrintedAndChangesNothing) {
    file(message(1, 1));
    MSGInfo *pInfo = message(2, 2), *pNone = nullptr;
    list.iFLAGChange = 0;
    pthread_mutex_lock(list.pMutex);
    EXPECT_EQ(INSERTMSGInfo(&list, pInfo), 0);
    EXPECT_EQ(REMOVEMSGInfo(&list, pInfo), 0);
    EXPECT_EQ(REMOVEHeadMSGList(&list), 0);
    EXPECT_EQ(PATCHaMSGInfo(&list, &pNone), 0);
    EXPECT_EQ(PATCHaMSGNode(&list, 0, START, &pNone), 0);
    EXPECT_EQ(GETCOPYaMSGInfo(&list, &pNone), 0);
    PRINTMSGList(&list, "x");
    pthread_mutex_unlock(list.pMutex);
    EXPECT_EQ(count(out(), LOCK_LINE), 7u);
    EXPECT_EQ(out().size(), 7 * strlen(LOCK_LINE));
    EXPECT_EQ(order(), "1 ");
    EXPECT_EQ(list.iFLAGChange, 0);
    for (const unsigned long ulCMD :
         {PCMBC_CMD_MSG, PCMBC_CMD_CANCEL}) { // no memory: the record stays the caller's
        pInfo->ulCMD = ulCMD;
        EXPECT_EQ(withoutAllocation(1, [&] { return INSERTMSGInfo(&list, pInfo); }), 0);
    }
    ELIMINATEMSGInfo(&pInfo);
    MSGList empty{};
    for (MSGList *pList : {static_cast<MSGList *>(nullptr), &empty}) { // nothing to lock: silent
        EXPECT_EQ(INSERTMSGInfo(pList, pInfo), 0);
        EXPECT_EQ(PATCHaMSGNode(pList, 0, START, &pNone), 0);
        PRINTMSGList(pList, "x");
    }
    EXPECT_EQ(CREATEMSGList(nullptr), 0);
    EXPECT_EQ(DESTROYMSGList(nullptr), 0);
    EXPECT_EQ(count(out(), LOCK_LINE), 7u);
    const int results[] = {0, 0, 1};
    for (long lNth = 1; lNth <= 3; ++lNth) {
        MSGList other{};
        EXPECT_EQ(withoutAllocation(lNth, [&] { return CREATEMSGList(&other); }), results[lNth - 1]);
        DESTROYMSGList(&other);
    }
}

// The whole output of the exercise, written out by hand.
TEST_F(MessageListTest, ExercisePrintsBothListings) {
    const auto record = [](const char *pszCaller, int iEPGID, int iCT, int iST) {
        char szText[512];
        snprintf(szText, sizeof szText,
                 "PRINTMSGInfo: Caller[%s]\n\t ulCMD:0\n\t uliEPGID:%d\n\t ulCT:Thu Jan  1 00:00:%02d 1970\n"
                 "\t ulPriority:0\n\t ulST:Thu Jan  1 00:00:%02d 1970\n\t ulET:Thu Jan  1 00:00:04 1970\n"
                 "\t ulRepeat:0\n\t pMSGSTR =  MSGFILE.asf\n",
                 pszCaller, iEPGID, iCT, iST);
        return std::string(szText);
    };
    const std::string head = "-----------------[ SHOW LIST: Caller::diagMSGListMain()\n",
                      tail = " total, iFLAGChange:1 ]------------------\n", listed = "PRINTMSGList";
    std::string expected = record("diagMSGListMain", 1, 2, 3);
    expected += " 1th INSERTED[1]\n 2th INSERTED[1]\n 3th INSERTED[1]\n 4th INSERTED[1]\n" + head;
    for (int i = 4; i >= 1; --i) {
        expected += record("PRINTMSGList", i - 1, i, i);
    }
    expected +=
        "SHOW LIST: 4" + tail + " 5th INSERTED[1]\n 4th INSERTED[1]\n 3th INSERTED[1]\n 2th INSERTED[1]\n";
    const int sorted[8][2] = {{4, 5}, {3, 4}, {5, 4}, {2, 3}, {6, 3}, {1, 2}, {7, 2}, {0, 1}};
    expected += head;
    for (const auto &row : sorted) {
        expected += record("PRINTMSGList", row[0], row[1], row[1]);
    }
    expected += "SHOW LIST: 8" + tail;
    for (const auto &row : sorted) {
        expected += record("diagMSGListMain", row[0], row[1], row[1]);
    }
    EXPECT_EQ(diagMSGListMain(), 1);
    // The trace lines carry the file's name in whatever form; they come out, and are counted.
    std::string text = out();
    size_t ulTraces = 0;
    for (size_t ul = text.find(":diagMSGListMain():"); ul != std::string::npos;
         ul = text.find(":diagMSGListMain():")) {
        const size_t ulStart = text.rfind('\n', ul) == std::string::npos ? 0 : text.rfind('\n', ul) + 1;
        text.erase(ulStart, text.find('\n', ul) + 1 - ulStart);
        ++ulTraces;
    }
    EXPECT_EQ(text, expected);
    EXPECT_EQ(ulTraces, 4u);
    for (long lNth = 1; lNth < 40; ++lNth) { // without memory it ends, and leaves nothing
        withoutAllocation(lNth, diagMSGListMain);
    }
}

} // namespace

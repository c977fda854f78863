// The cast record and the cast list.
#include "plugintest.h"

#include <cerrno>

namespace {

using script::START;

class CastListTest : public PluginTest {
protected:
    CastListTest() { EXPECT_EQ(CREATECASTList(&list), 1); }
    ~CastListTest() override { DESTROYCASTList(&list); }

    int file(const CastFields &fields) { return INSERTCASTInfo(&list, cast(fields)); }
    // The EPG ids from head to tail.
    std::string order() const {
        std::string text;
        for (const KTLIST_NODE *pNode = list.pList->pHead; pNode != nullptr; pNode = pNode->pNext) {
            text += std::to_string(static_cast<const CASTInfo *>(pNode->pData)->uliEPGID) + " ";
        }
        return text;
    }
    // The EPG id of what PATCHaNode takes; 0 for none.
    unsigned long take(unsigned long ulOnAirCT, unsigned long ulDueTime) {
        CASTInfo *pInfo = nullptr;
        const int iResult = PATCHaNode(&list, ulOnAirCT, ulDueTime, &pInfo);
        EXPECT_EQ(iResult, pInfo != nullptr ? 1 : 0);
        const unsigned long ulEPGID = pInfo == nullptr ? 0 : pInfo->uliEPGID;
        ELIMINATECASTInfo(&pInfo);
        return ulEPGID;
    }
    CASTList list{};
};

TEST_F(CastListTest, MakingRefusesWhatItsTypeNeeds) {
    struct Case {
        const char *pszSource, *pszTarget, *pszFile;
        unsigned long ulType;
        int iResult;
        const char *pszOut;
    };
    const Case cases[] = {{nullptr, "d", "f", 1, 1, ""},
                          {"s", "d", nullptr, 2, 1, ""},
                          {"s", "d", nullptr, 3, 1, ""},
                          {nullptr, "d", "f", 2, -1, ""},
                          {"s", "d", nullptr, 1, -1, ""},
                          {"s", nullptr, "f", 1, -1, ""},
                          {"s", nullptr, "f", 3, -1, ""},
                          {"s", "d", "f", 4, -1, "MAKECASTInfo(): INVALID CASTType[4]\n"},
                          {"s", "d", "f", 0x100000001, -1, "MAKECASTInfo(): INVALID CASTType[4294967297]\n"}};
    std::string expected;
    for (const Case &row : cases) {
        CASTInfo *pInfo = nullptr;
        EXPECT_EQ(MAKECASTInfo(&pInfo, row.pszSource, row.pszTarget, row.pszFile, row.ulType), row.iResult)
            << row.ulType;
        EXPECT_EQ(pInfo != nullptr, row.iResult == 1);
        EXPECT_EQ(out(), expected += row.pszOut);
        if (pInfo != nullptr) { // only what the type uses
            EXPECT_EQ(pInfo->pSRCIP == nullptr, row.ulType == 1);
            EXPECT_EQ(pInfo->pCASTFile == nullptr, row.ulType != 1);
            CASTInfo *const pSame = pInfo;
            EXPECT_EQ(MAKECASTInfo(&pInfo, "s", "d", "f", 1), -1);
            EXPECT_EQ(COPYaCASTInfo(pSame, &pInfo), -1);
            EXPECT_EQ(pInfo, pSame);
            expected += "MAKECASTInfo(): pInfo is NOT EMPTY\nCOPYaCASTInfo(): ppCASTDST is NOT EMPTY\n";
        }
        EXPECT_EQ(ELIMINATECASTInfo(&pInfo), row.iResult == 1 ? 1 : 0);
        EXPECT_EQ(ELIMINATECASTInfo(&pInfo), 0);
    }
    EXPECT_EQ(COPYaCASTInfo(nullptr, nullptr), 0);
}

TEST_F(CastListTest, CopyHoldsEveryFieldAndTheKeyOnlyWithEncryption) {
    struct Case {
        int iEncryption;
        Bytes key, copied;
    };
    for (const Case &row : {Case{2, {1, 0, 3}, {1, 0, 3}}, Case{5, {9}, {9}}, Case{1, {}, {}},
                            Case{0, {1, 2}, {}}, Case{-2, {1, 2}, {}}}) {
        CastFields fields{.ulCMD = 7, .ulEPGID = 0x1122334455, .iEncryption = row.iEncryption, .iSplit = 1};
        fields.key = row.key;
        CASTInfo *pInfo = cast(fields), *pCopy = nullptr;
        pInfo->ulMSID = 34742;
        ASSERT_EQ(COPYaCASTInfo(pInfo, &pCopy), 1);
        EXPECT_EQ(COMPARECASTInfo(pInfo, pCopy, 0), 0);
        EXPECT_EQ(pCopy->ulCMD, 7u);
        EXPECT_EQ(pCopy->ulCT, 100u);
        EXPECT_EQ(pCopy->ulSTREAMFormat, CAST_FORMAT_TS);
        EXPECT_EQ(pCopy->ulMSID, 34742u);
        EXPECT_EQ(pCopy->usSRCPort, 9100);
        EXPECT_EQ(pCopy->usDSTPort, 5000);
        EXPECT_STREQ(pCopy->pSRCIP, "224.1.1.1");
        EXPECT_STREQ(pCopy->pDSTIP, "224.2.2.2");
        EXPECT_EQ(pCopy->iASFSplit, 1);
        EXPECT_EQ(pCopy->iEncryptionType, row.iEncryption > 0 ? row.iEncryption : 0);
        ASSERT_EQ(pCopy->iEncryptionKeyLen, static_cast<int>(row.copied.size()));
        EXPECT_EQ(pCopy->pEncryptionKey == nullptr, row.copied.empty());
        EXPECT_EQ(Bytes(pCopy->pEncryptionKey, pCopy->pEncryptionKey + row.copied.size()), row.copied);
        ELIMINATECASTInfo(&pCopy);
        ELIMINATECASTInfo(&pInfo);
    }
}

// Every allocation of a make and of a copy is refused once.
TEST_F(CastListTest, RecordsWithoutMemoryAreNotHalfMade) {
    const long lBlocks = script::liveBlocks();
    const int results[] = {0, -1, 0}; // the record; its source or file; its destination
    for (const unsigned long ulType : {1ul, 2ul}) {
        for (long lNth = 1; lNth <= 3; ++lNth) {
            CASTInfo *pInfo = nullptr;
            EXPECT_EQ(withoutAllocation(lNth, [&] { return MAKECASTInfo(&pInfo, "s", "d", "f", ulType); }),
                      results[lNth - 1]);
            EXPECT_EQ(pInfo, nullptr);
        }
    }
    CastFields fields{.iEncryption = 2};
    fields.key = {1, 2, 3};
    CASTInfo *pInfo = cast(fields);
    const long lOne = script::liveBlocks() - lBlocks;
    for (long lNth = 1; lNth <= 4; ++lNth) {
        CASTInfo *pCopy = nullptr;
        EXPECT_EQ(withoutAllocation(lNth, [&] { return COPYaCASTInfo(pInfo, &pCopy); }), lNth == 4 ? 1 : 0);
        EXPECT_TRUE(script::allocationFailed());
        EXPECT_EQ(pCopy != nullptr, lNth == 4);
        if (pCopy != nullptr) { // the key is the one thing that a copy can do without
            EXPECT_EQ(pCopy->pEncryptionKey, nullptr);
            EXPECT_EQ(pCopy->iEncryptionKeyLen, 3);
            EXPECT_EQ(pCopy->iEncryptionType, 2);
            EXPECT_EQ(script::liveBlocks() - lBlocks, 2 * lOne - 1);
        }
        ELIMINATECASTInfo(&pCopy);
    }
    ELIMINATECASTInfo(&pInfo);
    EXPECT_EQ(script::liveBlocks(), lBlocks);
}

TEST_F(CastListTest, ValidationAsksForWhatTheTypeNeeds) {
    struct Case {
        unsigned long ulType;
        bool bTarget;
        unsigned short usTarget;
        bool bSource;
        unsigned short usSource;
        bool bFile;
        int iResult;
    };
    for (const Case &row : {Case{1, true, 1, false, 0, true, 1}, Case{1, true, 1, true, 1, false, 0},
                            Case{1, true, 0, true, 1, true, -1}, Case{2, true, 1, true, 1, false, 1},
                            Case{2, true, 1, false, 1, true, 0}, Case{3, true, 1, true, 0, true, 0},
                            Case{3, false, 1, true, 1, true, -1}, Case{9, true, 1, true, 1, true, 0},
                            Case{9, true, 0, true, 1, true, -1}, Case{0, true, 1, true, 1, true, 0}}) {
        char szText[] = "x";
        CASTInfo info{};
        info.ulCASTType = row.ulType;
        info.pDSTIP = row.bTarget ? szText : nullptr;
        info.usDSTPort = row.usTarget;
        info.pSRCIP = row.bSource ? szText : nullptr;
        info.usSRCPort = row.usSource;
        info.pCASTFile = row.bFile ? szText : nullptr;
        EXPECT_EQ(VALIDATECASTInfo(&info), row.iResult) << row.ulType << row.usTarget << row.usSource;
    }
    EXPECT_EQ(VALIDATECASTInfo(nullptr), -1);
}

TEST_F(CastListTest, EqualityLooksAtTheIdentityAlone) {
    char szOther[] = "other";
    CASTInfo info{};
    const CASTInfo same = info;
    info.ulCMD = info.ulCT = info.ulSTREAMFormat = info.ulMSID = 9;
    info.usSRCPort = 9;
    info.pDSTIP = info.pSRCIP = info.pCASTFile = szOther;
    EXPECT_EQ(COMPARECASTInfo(&same, &info, 0), 0);
    EXPECT_EQ(COMPARECASTInfo(&same, &info, 2), 1);
    EXPECT_EQ(COMPARECASTInfo(&same, &info, -1), 1);
    EXPECT_EQ(COMPARECASTInfo(nullptr, &info, 0), -1);
    EXPECT_EQ(COMPARECASTInfo(&info, nullptr, 1), -1);
    for (unsigned long CASTInfo::*pField : {&CASTInfo::ulCASTType, &CASTInfo::ulST, &CASTInfo::ulET}) {
        CASTInfo other = same;
        other.*pField = 1;
        EXPECT_EQ(COMPARECASTInfo(&same, &other, 0), 1);
        EXPECT_EQ(COMPARECASTInfo(&same, &other, 1), 0);
    }
    CASTInfo other = same;
    other.usDSTPort = 1;
    EXPECT_EQ(COMPARECASTInfo(&same, &other, 0), 1);
    other.uliEPGID = 1;
    EXPECT_EQ(COMPARECASTInfo(&same, &other, 1), 1);
}

TEST_F(CastListTest, PrintingSaysEachFieldOfItsType) {
    PRINTCASTInfo(nullptr, nullptr);
    EXPECT_EQ(out(), "PRINTCASTInfo: Caller[UNKNOWN]\n\tpInfo is NULL\n");
    CASTInfo *pFile = cast({.ulType = 1, .ulEPGID = 7, .ulET = START + 61}), *pStream = cast({.ulType = 3});
    file({.ulType = 2, .ulEPGID = 8});
    pFile->ulMSID = 5;
    PRINTCASTInfo(pFile, "me");
    pStream->ulCASTType = 6;
    PRINTCASTInfo(pStream, "me");
    PRINTCASTList(&list, "you");
    PRINTCASTList(&list, nullptr);
    const std::string head = "\t ulCMD:1\n\t ulCASTType:",
                      start = "\n\t ulCT:Thu Jan  1 00:01:40 1970\n"
                              "\t ulST:Sun Sep  9 01:46:40 2001\n",
                      rest =
                          "\t pDSTIP:Port = 224.2.2.2:5000\n\t ulSTREAMFormat:8225\n\t iEncryptionType:0\n";
    const std::string listed = "PRINTCASTInfo: Caller[PRINTCASTList]\n" + head + "2\n\t uliEPGID:8" + start +
                               "\t ulET:Sun Sep  9 01:48:20 2001\n" + rest +
                               "\t pSRCIP:Port =  224.1.1.1:9100\n" +
                               "SHOW LIST: 1 total, iFLAGChange:1 ]------------------\n";
    EXPECT_THAT(out(),
                HasSubstr("PRINTCASTInfo: Caller[me]\n" + head + "1\n\t uliEPGID:7" + start +
                          "\t ulET:Sun Sep  9 01:47:41 2001\n" + rest +
                          "\t pCASTFile =  /a.ts\n\t ulMSID =  5\n" + "PRINTCASTInfo: Caller[me]\n" + head +
                          "6\n\t uliEPGID:1" + start + "\t ulET:Sun Sep  9 01:48:20 2001\n" + rest +
                          "\t---> INVALID CASTType[6]\n" + "-----------------[ SHOW LIST: Caller::you()\n" +
                          listed + "-----------------[ SHOW LIST: Caller::UNKNOWN()\n" + listed));
    ELIMINATECASTInfo(&pFile);
    ELIMINATECASTInfo(&pStream);
}

TEST_F(CastListTest, FilingKeepsNewestFirstAndCountsChanges) {
    struct Case {
        unsigned long ulEPGID, ulCT;
        const char *pszOrder;
        int iFlag;
    };
    for (const Case &row :
         {Case{1, 5, "1 ", 1}, Case{2, 7, "2 1 ", 2}, Case{3, 6, "2 3 1 ", 3}, Case{4, 6, "2 3 4 1 ", 4},
          Case{5, 1, "2 3 4 1 5 ", 1}, Case{6, 9, "6 2 3 4 1 5 ", 2}}) {
        EXPECT_EQ(file({.ulEPGID = row.ulEPGID, .ulCT = row.ulCT}), 1);
        EXPECT_EQ(order(), row.pszOrder);
        EXPECT_EQ(list.iFLAGChange, row.iFlag) << row.pszOrder;
    }
    CASTInfo *pCopy = nullptr;
    EXPECT_EQ(GETCOPYaCASTInfo(&list, &pCopy), 1);
    EXPECT_EQ(pCopy->uliEPGID, 6u);
    ELIMINATECASTInfo(&pCopy);
    EXPECT_EQ(list.iFLAGChange, 2);
    EXPECT_EQ(PATCHaCASTInfo(&list, &pCopy), 1);
    EXPECT_EQ(pCopy->uliEPGID, 6u);
    ELIMINATECASTInfo(&pCopy);
    EXPECT_EQ(list.iFLAGChange, 1);
    EXPECT_EQ(REMOVEHeadCASTList(&list), 1);
    EXPECT_EQ(order(), "3 4 1 5 ");
}

TEST_F(CastListTest, StopCancelsTheFirstEqualOrGoesToTheHead) {
    file({.ulEPGID = 1, .ulCT = 9});
    file({.ulEPGID = 2, .ulCT = 8});
    file({.ulEPGID = 2, .ulCT = 7});
    EXPECT_EQ(file({.ulCMD = 2, .ulEPGID = 2, .ulCT = 3}), 1);
    EXPECT_EQ(order(), "1 2 ");
    EXPECT_EQ(list.iFLAGChange, 1);
    EXPECT_EQ(file({.ulCMD = 2, .ulEPGID = 2, .ulCT = 1, .usTargetPort = 1}),
              1); // another port: nothing equal
    EXPECT_EQ(order(), "2 1 2 ");
    EXPECT_EQ(list.iFLAGChange, 1);
    file({.ulEPGID = 3, .ulCT = 5}); // newer than the stop at the head
    EXPECT_EQ(order(), "3 2 1 2 ");
    CASTInfo *pKey = cast({.ulEPGID = 2});
    file({.ulEPGID = 2, .ulCT = 2});
    EXPECT_EQ(REMOVECASTInfo(&list, pKey), 1); // both that are equal
    EXPECT_EQ(order(), "3 2 1 ");
    EXPECT_EQ(REMOVECASTInfo(&list, pKey), 0);
    ELIMINATECASTInfo(&pKey);
}

TEST_F(CastListTest, TakingFollowsTimeAgeAndCommand) {
    file({.ulEPGID = 1, .ulCT = 30, .ulET = START});     // expired
    file({.ulEPGID = 2, .ulCT = 20, .ulST = START + 3}); // not due yet
    file({.ulEPGID = 3, .ulCT = 10, .ulST = START + 2}); // due with the horizon
    file({.ulEPGID = 4, .ulCT = 5, .ulET = START});      // expired, behind what is taken
    EXPECT_EQ(take(10, START + 2), 0u);                  // no start request as old as the one on air
    EXPECT_EQ(order(), "2 3 ");                          // the walk went to the end
    file({.ulEPGID = 4, .ulCT = 5, .ulET = START});
    EXPECT_EQ(take(9, START + 2), 3u);
    EXPECT_EQ(order(), "2 4 "); // what stands behind the taken one is not looked at
    EXPECT_EQ(take(0, START + 2), 0u);
    script::advance(1);
    EXPECT_EQ(take(0, script::now() + 2), 2u);
    file({.ulCMD = 2, .ulEPGID = 5, .ulCT = 10, .ulST = START + 4});
    file({.ulCMD = 3, .ulEPGID = 6, .ulCT = 10});
    EXPECT_EQ(take(11, START + 4), 0u);
    EXPECT_EQ(take(10, START + 3), 0u);
    EXPECT_EQ(take(10, START + 4), 5u); // a stop request as old as the one on air
    EXPECT_EQ(take(10, START + 4), 0u);
    EXPECT_EQ(take(9, 0), 6u); // begun already, whatever the due time
    const int iFlag = list.iFLAGChange;
    EXPECT_EQ(take(0, START), 0u);
    EXPECT_EQ(list.iFLAGChange, iFlag);
}

TEST_F(CastListTest, RefusedCallsChangeNothing) {
    CASTInfo *pFull = cast({}), *pSame = pFull;
    file({.ulEPGID = 2});
    EXPECT_EQ(PATCHaNode(&list, 0, START, &pFull), -1);
    EXPECT_EQ(PATCHaCASTInfo(&list, &pFull), -1);
    EXPECT_EQ(GETCOPYaCASTInfo(&list, &pFull), -1);
    EXPECT_EQ(CREATECASTList(&list), -1);
    EXPECT_EQ(list.iFLAGChange, 0);
    EXPECT_EQ(pFull, pSame);
    EXPECT_EQ(order(), "2 ");
    EXPECT_EQ(out(), "PATCHaNode(): ppCASTInfo is NOT NULL\nPATCHaCASTInfo(): ppCASTInfo is NOT NULL\n"
                     "GETCOPYaCASTInfo(): ppCASTInfo is NOT NULL\n"
                     "CREATECASTList(): ppCASTList is NOT NULL: maybe uninitialized\n");
    CASTList empty{};
    CASTInfo *pNone = nullptr;
    for (CASTList *pList : {static_cast<CASTList *>(nullptr), &empty}) {
        EXPECT_EQ(INSERTCASTInfo(pList, pFull), 0);
        EXPECT_EQ(PATCHaNode(pList, 0, START, &pNone), 0);
        EXPECT_EQ(PATCHaCASTInfo(pList, &pNone), 0);
        EXPECT_EQ(GETCOPYaCASTInfo(pList, &pNone), 0);
        EXPECT_EQ(REMOVECASTInfo(pList, pFull), 0);
        EXPECT_EQ(REMOVEHeadCASTList(pList), 0);
        EXPECT_EQ(DESTROYCASTList(pList), 0);
        PRINTCASTList(pList, "x");
    }
    EXPECT_EQ(CREATECASTList(nullptr), 0);
    ELIMINATECASTInfo(&pFull);
}

TEST_F(CastListTest, LostLockLeavesRecordAndListAlone) {
    file({.ulEPGID = 2});
    const int iFlag = list.iFLAGChange;
    CASTInfo *pInfo = cast({}), *pNone = nullptr;
    pthread_mutex_lock(list.pMutex);
    const unsigned long ulPauses = script::pauses();
    EXPECT_EQ(INSERTCASTInfo(&list, pInfo), 0);
    EXPECT_EQ(script::pauses() - ulPauses, 1001u); // about ten seconds
    EXPECT_EQ(PATCHaNode(&list, 0, START, &pNone), 0);
    EXPECT_EQ(REMOVECASTInfo(&list, pInfo), 0);
    EXPECT_EQ(REMOVEHeadCASTList(&list), 0);
    PRINTCASTList(&list, "x");
    EXPECT_EQ(out(), "");
    pthread_mutex_unlock(list.pMutex);
    // An unusual error of the mutex is not a lock either: nothing may be unlocked that was not locked.
    script::fail(Step::TRYLOCK, "", EAGAIN);
    EXPECT_EQ(REMOVEHeadCASTList(&list), 0);
    EXPECT_EQ(order(), "2 ");
    EXPECT_EQ(list.iFLAGChange, iFlag);
    ELIMINATECASTInfo(&pInfo);
}

TEST_F(CastListTest, ListWithoutMemoryIsNotCreatedAndFilingLeavesTheRecord) {
    const int results[] = {0, 0, 1};
    for (long lNth = 1; lNth <= 3; ++lNth) { // the mutex; the list; nothing
        CASTList other{};
        EXPECT_EQ(withoutAllocation(lNth, [&] { return CREATECASTList(&other); }), results[lNth - 1]);
        DESTROYCASTList(&other);
    }
    for (const unsigned long ulCMD : {CAST_CMD_START, CAST_CMD_STOP}) {
        CASTInfo *pInfo = cast({.ulCMD = ulCMD});
        EXPECT_EQ(withoutAllocation(1, [&] { return INSERTCASTInfo(&list, pInfo); }), 0);
        EXPECT_EQ(list.pList->iCount, 0);
        EXPECT_EQ(ELIMINATECASTInfo(&pInfo), 1);
    }
    EXPECT_EQ(file({}), 1);
    CASTInfo *pCopy = nullptr;
    // There is a head, but no copy.
    EXPECT_EQ(withoutAllocation(1, [&] { return GETCOPYaCASTInfo(&list, &pCopy); }), 1);
    EXPECT_EQ(pCopy, nullptr);
}

} // namespace

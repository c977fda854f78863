// The cast record and the message record.
#include "plugintest.h"

namespace {

using script::START;

class RecordTest : public PluginTest {};

TEST_F(RecordTest, MakingRefusesWhatItsTypeNeeds) {
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

TEST_F(RecordTest, CopyHoldsEveryFieldAndTheKeyOnlyWithEncryption) {
    struct Case {
        int iEncryption;
        Bytes key, copied;
    };
    for (const Case &row : {Case{2, {1, 0, 3}, {1, 0, 3}}, Case{5, {9}, {9}}, Case{1, {}, {}},
                            Case{0, {1, 2}, {}}, Case{-2, {1, 2}, {}}}) {
        CASTInfo *pInfo = cast({.ulCMD = 7,
                                .ulEPGID = 0x1122334455,
                                .iEncryption = row.iEncryption,
                                .iSplit = 1,
                                .key = row.key}),
                 *pCopy = nullptr;
        pInfo->ulMSID = 34742;
        ASSERT_EQ(COPYaCASTInfo(pInfo, &pCopy), 1);
        EXPECT_STREQ(pCopy->pSRCIP, "224.1.1.1");
        EXPECT_STREQ(pCopy->pDSTIP, "224.2.2.2");
        ASSERT_EQ(pCopy->iEncryptionKeyLen, static_cast<int>(row.copied.size()));
        EXPECT_EQ(pCopy->pEncryptionKey == nullptr, row.copied.empty());
        EXPECT_EQ(Bytes(pCopy->pEncryptionKey, pCopy->pEncryptionKey + row.copied.size()), row.copied);
        CASTInfo expected = *pInfo; // in all that it does not own
        expected.iEncryptionType = row.iEncryption > 0 ? row.iEncryption : 0;
        expected.iEncryptionKeyLen = pCopy->iEncryptionKeyLen;
        expected.pSRCIP = pCopy->pSRCIP;
        expected.pDSTIP = pCopy->pDSTIP;
        expected.pEncryptionKey = pCopy->pEncryptionKey;
        EXPECT_EQ(memcmp(pCopy, &expected, sizeof expected), 0);
        ELIMINATECASTInfo(&pCopy);
        ELIMINATECASTInfo(&pInfo);
    }
}

TEST_F(RecordTest, ValidationAsksForWhatTheTypeNeeds) {
    struct Case {
        unsigned long ulType;
        const char *pszHas; // d, s: addresses; D, S: ports; f: file
        int iResult;
    };
    for (const Case &row : {Case{1, "dDf", 1}, Case{1, "dDsS", 0}, Case{1, "dsSf", -1}, Case{2, "dDsS", 1},
                            Case{2, "dDSf", 0}, Case{3, "dDsf", 0}, Case{3, "DsSf", -1}, Case{9, "dDsSf", 0},
                            Case{9, "dsSf", -1}, Case{0, "dDsSf", 0}}) {
        char szText[] = "x";
        const auto has = [&row](char c) { return strchr(row.pszHas, c) != nullptr; };
        CASTInfo info{};
        info.ulCASTType = row.ulType;
        info.pDSTIP = has('d') ? szText : nullptr;
        info.usDSTPort = has('D');
        info.pSRCIP = has('s') ? szText : nullptr;
        info.usSRCPort = has('S');
        info.pCASTFile = has('f') ? szText : nullptr;
        EXPECT_EQ(VALIDATECASTInfo(&info), row.iResult) << row.ulType << row.pszHas;
    }
    EXPECT_EQ(VALIDATECASTInfo(nullptr), -1);
    MSGInfo message{};
    for (const unsigned long ulCMD : {PCMBC_CMD_MSG, PCMBC_CMD_CANCEL}) { // which needs no text
        message.ulCMD = ulCMD;
        EXPECT_EQ(VALIDATEMSGInfo(&message), ulCMD == PCMBC_CMD_MSG ? -1 : 1);
    }
    EXPECT_EQ(VALIDATEMSGInfo(nullptr), -1);
}

// Every allocation of a make and of a copy is refused once.
TEST_F(RecordTest, RecordsWithoutMemoryAreNotHalfMade) {
    const int results[] = {0, -1, 0}; // the record; its source or file; its destination
    for (const unsigned long ulType : {1ul, 2ul}) {
        for (long lNth = 1; lNth <= 3; ++lNth) {
            CASTInfo *pInfo = nullptr;
            EXPECT_EQ(withoutAllocation(lNth, [&] { return MAKECASTInfo(&pInfo, "s", "d", "f", ulType); }),
                      results[lNth - 1]);
            EXPECT_EQ(pInfo, nullptr);
        }
    }
    CASTInfo *pInfo = cast({.iEncryption = 2, .key = {1, 2, 3}});
    for (long lNth = 1; lNth <= 4; ++lNth) {
        CASTInfo *pCopy = nullptr;
        EXPECT_EQ(withoutAllocation(lNth, [&] { return COPYaCASTInfo(pInfo, &pCopy); }), lNth == 4 ? 1 : 0);
        EXPECT_TRUE(script::allocationFailed());
        ASSERT_EQ(pCopy != nullptr, lNth == 4);
        if (pCopy != nullptr) { // the key is the one thing that a copy can do without
            EXPECT_EQ(pCopy->pEncryptionKey, nullptr);
            EXPECT_EQ(pCopy->iEncryptionKeyLen, 3);
            EXPECT_EQ(pCopy->iEncryptionType, 2);
        }
        ELIMINATECASTInfo(&pCopy);
    }
    ELIMINATECASTInfo(&pInfo);
}

} // namespace

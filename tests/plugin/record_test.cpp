// The cast record and the message record: making, copying, validating, printing.
#include "plugintest.h"

namespace {

using script::kStart;

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
    MSGInfo message{}, *pMessage = nullptr; // which has no text
    EXPECT_EQ(MAKEMSGInfo(&pMessage, nullptr), -1);
    EXPECT_EQ(COPYaMSGInfo(&message, &pMessage), 0);
    EXPECT_EQ(COPYaMSGInfo(nullptr, &pMessage), 0);
    EXPECT_EQ(pMessage, nullptr);
    pMessage = &message;
    EXPECT_EQ(MAKEMSGInfo(&pMessage, "text"), -1);
    EXPECT_EQ(COPYaMSGInfo(&message, &pMessage), -1);
    EXPECT_EQ(pMessage, &message);
    expected += "MAKEMSGInfo(): pInfo is NOT EMPTY\nCOPYaMSGInfo(): ppMSGDST is NOT EMPTY\n";
    EXPECT_EQ(out(), expected);
}

TEST_F(RecordTest, CopyHoldsEveryFieldAndTheKeyOnlyWithEncryption) {
    struct Case {
        int iEncryption;
        Bytes key;
        const char *pszCopied;
    };
    for (const Case &row : {Case{2, {1, 0, 3}, "2/3 1 0 3"}, Case{5, {9}, "5/1 9"}, Case{1, {}, "1/0"},
                            Case{0, {1, 2}, "0/0"}, Case{-2, {1, 2}, "0/0"}}) {
        CASTInfo *pCopy = nullptr, *pInfo = cast({.ulCMD = 7,
                                                  .ulEPGID = 0x1122334455,
                                                  .iEncryption = row.iEncryption,
                                                  .iSplit = 1,
                                                  .key = row.key});
        pInfo->ulMSID = 34742;
        ASSERT_EQ(COPYaCASTInfo(pInfo, &pCopy), 1);
        EXPECT_EQ(shown(*pCopy), std::string("7 2 73588229205 100 1000000000 1000000100 224.1.1.1:9100 "
                                             "224.2.2.2:5000 - 2021 34742 ") +
                                     row.pszCopied + " split 1");
        ELIMINATECASTInfo(&pCopy);
        ELIMINATECASTInfo(&pInfo);
    }
}

// The whole output, with the text and without it, and with a time that has no calendar date.
TEST_F(RecordTest, PrintedRecordsShowEveryField) {
    const unsigned long ulNever = ~0ul >> 1;
    // $: the caller; @: the text
    const std::string
        head = "PRINTCASTInfo: Caller[$]\n\t ulCMD:3\n\t ulCASTType:",
        rest =
            "\n\t uliEPGID:4\n\t ulCT:Thu Jan  1 00:00:05 1970\n\t ulST:Thu Jan  1 00:00:06 1970\n\t ulET:?\n"
            "\t pDSTIP:Port = @:5000\n\t ulSTREAMFormat:8225\n\t iEncryptionType:7\n",
        all =
            head + "1" + rest + "\t pCASTFile =  @\n\t ulMSID =  8\n" + head + "2" + rest +
            "\t pSRCIP:Port =  @:9100\n" + head + "9" + rest +
            "\t---> INVALID CASTType[9]\n"
            "PRINTMSGInfo: Caller[$]\n\t ulCMD:1\n\t uliEPGID:2\n\t ulCT:Thu Jan  1 00:00:04 1970\n"
            "\t ulPriority:3\n\t ulST:Thu Jan  1 00:00:05 1970\n\t ulET:?\n\t ulRepeat:7\n\t pMSGSTR =  @\n";
    const auto filled = [&all](const char *pszCaller, const char *pszText) {
        return std::regex_replace(std::regex_replace(all, std::regex("@"), pszText), std::regex("\\$"),
                                  pszCaller);
    };
    char szText[] = "text";
    for (char *const pszText : {szText, static_cast<char *>(nullptr)}) {
        for (const unsigned long ulType : {1ul, 2ul, 9ul}) {
            const CASTInfo info{3,    4,    5,       ulType, 8225, 6, ulNever, pszText, pszText,
                                9100, 5000, pszText, 8,      7,    0, nullptr, 0};
            EXPECT_EQ(PRINTCASTInfo(&info, pszText), 0);
        }
        const MSGInfo message{1, 2, 3, 4, 5, ulNever, 7, 8, 9, pszText};
        EXPECT_EQ(PRINTMSGInfo(&message, pszText), 0);
    }
    PRINTCASTInfo(nullptr, "x");
    PRINTMSGInfo(nullptr, "x");
    EXPECT_EQ(out(),
              filled("text", "text") + filled("UNKNOWN", "NULL") +
                  "PRINTCASTInfo: Caller[x]\n\tpInfo is NULL\nPRINTMSGInfo: Caller[x]\n\tpInfo is NULL\n");
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
        const auto has = [&row](char c) { return std::strchr(row.pszHas, c) != nullptr; };
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
    for (const unsigned long ulCMD : {PCMBC_CMD_MSG, PCMBC_CMD_CANCEL}) { // a cancel needs no text
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
    for (long lNth = 1; lNth <= 2; ++lNth) { // the record; its text
        MSGInfo *pMessage = nullptr;
        EXPECT_EQ(withoutAllocation(lNth, [&] { return MAKEMSGInfo(&pMessage, "m"); }), 1 - lNth);
        EXPECT_EQ(pMessage, nullptr);
    }
    CASTInfo *pInfo = cast({.iEncryption = 2, .key = {1, 2, 3}});
    for (long lNth = 1; lNth <= 4; ++lNth) {
        CASTInfo *pCopy = nullptr;
        EXPECT_EQ(withoutAllocation(lNth, [&] { return COPYaCASTInfo(pInfo, &pCopy); }), lNth == 4 ? 1 : 0);
        EXPECT_TRUE(script::allocationFailed());
        ASSERT_EQ(pCopy != nullptr, lNth == 4);
        if (pCopy != nullptr) { // a copy can do without the key alone
            EXPECT_EQ(pCopy->pEncryptionKey, nullptr);
            EXPECT_EQ(pCopy->iEncryptionKeyLen, 3);
            EXPECT_EQ(pCopy->iEncryptionType, 2);
        }
        ELIMINATECASTInfo(&pCopy);
    }
    ELIMINATECASTInfo(&pInfo);
}

} // namespace

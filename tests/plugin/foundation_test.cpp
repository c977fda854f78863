// What the engines stand on: the pointer list, its mutex, the text copy, the item packets, the endpoint
// openers.
#include "plugintest.h"

#include "ktlist.h"
#include "ktnet.h"
#include "ktpacket.h"

#include <cerrno>
#include <climits>

namespace {

class FoundationTest : public PluginTest {
protected:
    // The payloads from head to tail, and "!" behind them if the tail or the count is wrong.
    static std::string order(const KTLIST *pList) {
        std::string text;
        int iCount = 0;
        const KTLIST_NODE *pLast = nullptr;
        for (const KTLIST_NODE *pNode = pList->pHead; pNode != nullptr; pNode = pNode->pNext, ++iCount) {
            text += static_cast<const char *>(pNode->pData);
            pLast = pNode;
        }
        return text + (pLast == pList->pTail && iCount == pList->iCount ? "" : "!");
    }
    char a[2] = "a", b[2] = "b", c[2] = "c", d[2] = "d";
};

TEST_F(FoundationTest, PlacingKeepsHeadTailCountAndPayloads) {
    KTLIST *pList = nullptr;
    const auto becomes = [&pList](int iResult, int iExpected, const char *pszOrder) {
        EXPECT_EQ(iResult, iExpected) << pszOrder;
        EXPECT_EQ(order(pList), pszOrder);
    };
    ASSERT_EQ(KTLISTCreate(&pList), 1);
    EXPECT_EQ(KTLISTCreate(&pList), -1);
    becomes(KTLISTpInsert(pList, a, 5, nullptr), 1, "a"); // on an empty list: head and tail
    becomes(KTLISTpAInsert(pList, b, 6, pList->pTail), 2, "ab");
    becomes(KTLISTpInsert(pList, c, 7, pList->pHead), 3, "acb");
    becomes(KTLISTpInsertHead(pList, d, 8), 4, "dacb");
    EXPECT_EQ(pList->ulTotalSize, 26u);
    EXPECT_EQ(KTLISTpInsert(nullptr, a, 1, nullptr), -1);
    EXPECT_EQ(KTLISTpInsertHead(pList, nullptr, 1), -1);
    becomes(KTLISTpRemove(pList, pList->pTail), 1, "dac");
    becomes(KTLISTpRemove(pList, pList->pHead->pNext), 1, "dc");
    KTLIST_NODE stranger{};
    EXPECT_EQ(KTLISTpRemove(pList, &stranger), -1);
    EXPECT_EQ(out(), "");
    EXPECT_EQ(KTLISTmRemove(pList, &stranger), -1);
    EXPECT_EQ(out(), "[ktlist:#] \033[2;31m can NOT found NODE to REMOVE \033[1;41m[ERROR]\033[0m\n");
    becomes(KTLISTpRemove(pList, pList->pHead), 1, "c");
    becomes(KTLISTpRemove(pList, pList->pHead), 1, "");
    pList->iCount = INT_MAX; // full
    EXPECT_EQ(KTLISTpInsert(pList, a, 1, nullptr), -1);
    EXPECT_EQ(pList->pHead, nullptr);
    EXPECT_EQ(KTLISTpDelete(&pList), 1);
    pList = nullptr;
    EXPECT_EQ(KTLISTpDelete(&pList), -1);
    EXPECT_EQ(KTLISTmDelete(&pList), -1);
    ASSERT_EQ(KTLISTCreate(&pList), 1); // the m family owns its payloads
    EXPECT_EQ(KTLISTmInsert(pList, b, 2, nullptr), 1);
    EXPECT_EQ(KTLISTmAInsert(pList, c, 2, nullptr), 2);
    EXPECT_EQ(KTLISTmInsertHead(pList, a, 2), 3);
    a[0] = b[0] = c[0] = 'x';
    EXPECT_EQ(order(pList), "abc");
    for (const long lNth : {1, 2}) { // neither the node nor the payload is left
        const int iNone = lNth == 1 ? -1 : 0;
        EXPECT_EQ(withoutAllocation(lNth, [&] { return KTLISTmInsert(pList, d, 2, nullptr); }), iNone);
        EXPECT_EQ(withoutAllocation(lNth, [&] { return KTLISTmAInsert(pList, d, 2, nullptr); }), -1);
        becomes(withoutAllocation(lNth, [&] { return KTLISTmInsertHead(pList, d, 2); }), iNone, "abc");
    }
    becomes(KTLISTmRemove(pList, pList->pHead->pNext), 1, "ac");
    EXPECT_EQ(pList->ulTotalSize, 4u);
    EXPECT_EQ(KTLISTmDelete(&pList), 1);
}

TEST_F(FoundationTest, TryLockMapsEachOutcomeAndPausesAfterEachAttempt) {
    KTMUTEX pMutex = nullptr;
    EXPECT_EQ(KTMUTEXTryLock(nullptr, 1000), -1);
    EXPECT_EQ(KTMUTEXUnLock(nullptr), -1);
    EXPECT_EQ(KTMUTEXDelete(&pMutex), -1);
    EXPECT_EQ(script::pausedMicroseconds(), 0u);
    EXPECT_EQ(withoutAllocation(1, [&] { return KTMUTEXCreate(&pMutex); }), -1);
    ASSERT_EQ(KTMUTEXCreate(&pMutex), 1);
    const KTMUTEX pSame = pMutex;
    EXPECT_EQ(KTMUTEXCreate(&pMutex), -1);
    EXPECT_EQ(pMutex, pSame);
    EXPECT_EQ(KTMUTEXTryLock(pMutex, 5), 1);
    EXPECT_EQ(script::pausedMicroseconds(), 10000u);
    EXPECT_EQ(KTMUTEXUnLock(pMutex), 0);
    {
        script::Taken taken(pMutex);
        EXPECT_EQ(KTMUTEXTryLock(pMutex, 2), 0); // three attempts
    }
    EXPECT_EQ(script::pausedMicroseconds(), 40000u);
    EXPECT_EQ(KTMUTEXTryLock(pMutex, 0), 1);
    EXPECT_EQ(KTMUTEXUnLock(pMutex), 0);
    struct Case {
        int iErrno, iTimes, iRetries, iResult;
        unsigned long ulAttempts;
    };
    for (const Case &row :
         {Case{EINVAL, 3, 2, -1, 3}, Case{EBUSY, 2, 9, 1, 3}, Case{EAGAIN, 1, 9, EAGAIN, 1}}) {
        const unsigned long ulBefore = script::pausedMicroseconds();
        script::fail(Step::TryLock, "", row.iErrno, row.iTimes);
        EXPECT_EQ(KTMUTEXTryLock(pMutex, row.iRetries), row.iResult) << std::strerror(row.iErrno);
        EXPECT_EQ(script::pausedMicroseconds() - ulBefore, 10000 * row.ulAttempts)
            << std::strerror(row.iErrno);
        if (row.iResult == 1) {
            KTMUTEXUnLock(pMutex);
        }
    }
    EXPECT_EQ(KTMUTEXDelete(&pMutex), 0);
    EXPECT_EQ(KTuSleep(2'500'000), 0);
    EXPECT_EQ(KTuSleep(-1), -1);
}

TEST_F(FoundationTest, AddressThatDoesNotFitIsRefused) {
    for (const unsigned long ulLength : {127ul, 128ul}) { // with its NUL, 128 fit
        const std::string address(ulLength, 'a');
        for (const bool bPeer : {true, false}) {
            KTNET_ENDPOINT *pDesc = nullptr;
            EXPECT_EQ(KTNETOpenReceiver(&pDesc, KTNET_STREAM_RECEIVER, bPeer ? address.c_str() : "p", 1,
                                        bPeer ? "l" : address.c_str(), nullptr, nullptr),
                      ulLength == 127 ? 1 : -1);
            KTNETClose(&pDesc);
        }
    }
    const std::string line =
        "[ktnet:#] \033[2;31m address of 128 characters, 127 fit: " + std::string(32, 'a') +
        "... \033[1;41m[ERROR]\033[0m\n";
    EXPECT_EQ(out(), line + line);
}

TEST_F(FoundationTest, TextCopyReusesOnlyALongerBlock) {
    char *pText = nullptr;
    EXPECT_EQ(KTCOPYString("abcdef", &pText), 1);
    const char *pBlock = pText;
    EXPECT_EQ(KTCOPYString("abc", &pText), 1);
    EXPECT_EQ(pText, pBlock);
    EXPECT_STREQ(pText, "abc");
    const long lBefore = script::liveBlocks();
    // An equally long text needs a new block.
    EXPECT_EQ(withoutAllocation(1, [&] { return KTCOPYString("xyz", &pText); }), 0);
    EXPECT_EQ(pText, nullptr);
    EXPECT_EQ(script::liveBlocks(), lBefore - 1);
    EXPECT_EQ(KTCOPYString("", &pText), 1);
    EXPECT_STREQ(pText, "");
    EXPECT_EQ(KTCOPYString(nullptr, &pText), 0);
    EXPECT_EQ(pText, nullptr);
}

Bytes built(KTPacket *pPacket) {
    unsigned char *pBuffer = nullptr;
    const int iLength = KTPacketBuild(pPacket, &pBuffer);
    EXPECT_EQ(static_cast<unsigned long>(iLength), pPacket->ulSize);
    Bytes result(pBuffer, pBuffer + iLength);
    std::free(pBuffer);
    return result;
}

TEST_F(FoundationTest, PacketIsLaidOutItemByItem) {
    KTPacket packet;
    const unsigned int uiOne = 1, uiTwo = 2;
    KTPacketInit(&packet);
    unsigned char ucUntouched = 0, *pBuffer = &ucUntouched;
    EXPECT_EQ(KTPacketBuild(&packet, &pBuffer), 0);
    EXPECT_EQ(pBuffer, &ucUntouched);
    EXPECT_EQ(KTPacketBuild(nullptr, &pBuffer), 0);
    EXPECT_EQ(KTPacketCleanUp(nullptr), 0);
    EXPECT_EQ(KTPacketInsertItem(&packet, 1, 1, 4, nullptr), 0);
    EXPECT_EQ(KTPacketInsertItem(nullptr, 1, 1, 4, &uiOne), 0);
    EXPECT_EQ(KTPacketInsertItem(&packet, 1, 1, 0x100000000ul, &uiOne), -1);
    EXPECT_EQ(packet.ulSize, 0u);
    EXPECT_EQ(KTPacketInsertItem(&packet, 1, 1, 4, &uiOne), 8);
    EXPECT_EQ(KTPacketInsertItem(&packet, 1, 2, 4, &uiTwo), 16);
    EXPECT_EQ(built(&packet), bytes("01 00 04 00 01 00 00 00 02 00 04 00 02 00 00 00"));
    EXPECT_EQ(KTPacketInsertItem(&packet, 0, 0x0807, 0, &uiTwo), 20); // before the first, and built again
    EXPECT_EQ(built(&packet), bytes("07 08 00 00 01 00 04 00 01 00 00 00 02 00 04 00 02 00 00 00"));
    for (const long lNth : {1l, 2l}) {
        EXPECT_EQ(withoutAllocation(lNth, [&] { return KTPacketInsertItem(&packet, 1, 3, 4, &uiOne); }), -1);
    }
    EXPECT_EQ(packet.ulSize, 20u);
    EXPECT_EQ(withoutAllocation(1, [&] { return KTPacketBuild(&packet, &pBuffer); }), 0);
    EXPECT_EQ(pBuffer, nullptr);
    EXPECT_EQ(KTPacketCleanUp(&packet), 0);
}

TEST_F(FoundationTest, LengthsAroundTheLongFormRoundTrip) {
    struct Case {
        unsigned long ulLength;
        const char *pszHeader;
    };
    for (const Case &row : {Case{0, "34 12 00 00"}, Case{65534, "34 12 FE FF"},
                            Case{65535, "34 12 FF FF FF FF 00 00"}, Case{70000, "34 12 FF FF 70 11 01 00"}}) {
        const Bytes value(row.ulLength + 1, 0xAB), header = bytes(row.pszHeader);
        KTPacket packet;
        KTPacketInit(&packet);
        EXPECT_EQ(KTPacketInsertItem(&packet, 1, 0x1234, row.ulLength, value.data()),
                  static_cast<int>(header.size() + row.ulLength));
        const Bytes wire = built(&packet);
        ASSERT_EQ(wire.size(), header.size() + row.ulLength);
        EXPECT_EQ(Bytes(wire.begin(), wire.begin() + static_cast<long>(header.size())), header);
        KTPacketItem item{};
        EXPECT_EQ(KTPacketGetAnItem(wire.data(), &item), static_cast<int>(wire.size()));
        EXPECT_EQ(item.usTag, 0x1234);
        EXPECT_EQ(item.ulLength, row.ulLength);
        EXPECT_EQ(item.pValue, wire.data() + header.size());
        EXPECT_EQ(reinterpret_cast<unsigned char *>(item.pNext), wire.data() + wire.size());
        KTPacketCleanUp(&packet);
    }
    const Bytes words = bytes("01 00 00 80");
    EXPECT_EQ(ktpacketGetDWORD(words.data()), 0x80000001u);
    EXPECT_EQ(ktpacketGetWORD(words.data() + 2), 0x8000u);
}

// The walk stops at the first item that does not fit. It reads nothing behind the data: the sanitizer would
// see it, since each block has exactly the size of its row.
TEST_F(FoundationTest, WalkStopsAtALyingItem) {
    struct Case {
        const char *pszData;
        int iItems;
    };
    for (const Case &row :
         {Case{"", 0}, Case{"01", 0}, Case{"01 00 01", 0}, Case{"01 00 01 00", 0}, Case{"01 00 01 00 55", 1},
          Case{"01 00 00 00 02 00 05 00 01 02 03 04", 1}, Case{"01 00 FF FF", 0},
          Case{"01 00 FF FF 01 00 00", 0}, Case{"01 00 FF FF FF FF FF FF", 0},
          Case{"01 00 FF FF 01 00 00 00 55 02 00 00 00", 2}}) {
        const Bytes data = bytes(row.pszData);
        unsigned long ulOffset = 0;
        KTPacketItem item{};
        int iItems = 0;
        while (ktpacketNextItem(data.data(), data.size(), &ulOffset, &item)) {
            ++iItems;
        }
        EXPECT_EQ(iItems, row.iItems) << row.pszData;
    }
}

} // namespace

// The cast list and the message list. Both have the same operations. The constants of each kind say where
// they differ.
#include "plugintest.h"

#include <cerrno>

namespace {

using script::kStart;

// The records and operations of a kind. NODE is the one name that does not follow from the kind.
#define PCCAST_LIST(KIND, NODE)                                                                              \
    using Info = KIND##Info;                                                                                 \
    using List = KIND##List;                                                                                 \
    static constexpr auto create = CREATE##KIND##List;                                                       \
    static constexpr auto destroy = DESTROY##KIND##List;                                                     \
    static constexpr auto insert = INSERT##KIND##Info;                                                       \
    static constexpr auto takeDue = NODE;                                                                    \
    static constexpr auto takeHead = PATCHa##KIND##Info;                                                     \
    static constexpr auto copyHead = GETCOPYa##KIND##Info;                                                   \
    static constexpr auto remove = REMOVE##KIND##Info;                                                       \
    static constexpr auto removeHead = REMOVEHead##KIND##List;                                               \
    static constexpr auto print = PRINT##KIND##List;                                                         \
    static constexpr auto compare = COMPARE##KIND##Info;                                                     \
    static constexpr auto eliminate = ELIMINATE##KIND##Info;                                                 \
    static constexpr const char *kRefused =                                                                  \
        #NODE "(): pp" #KIND "Info is NOT NULL\nPATCHa" #KIND "Info(): pp" #KIND "Info is NOT NULL\n"        \
              "GETCOPYa" #KIND "Info(): pp" #KIND "Info is NOT NULL\n"                                       \
              "CREATE" #KIND "List(): pp" #KIND "List is NOT NULL: maybe uninitialized\n";

struct Casts {
    PCCAST_LIST(CAST, PATCHaNode)
    static constexpr unsigned long kCommand = CAST_CMD_START, kCancel = CAST_CMD_STOP;
    static constexpr unsigned long Info::*kIdentity[] = {&Info::ulCASTType, &Info::ulST, &Info::ulET};
    static constexpr unsigned long Info::*kRest[] = {&Info::ulCMD, &Info::ulCT, &Info::ulSTREAMFormat,
                                                     &Info::ulMSID};
    static constexpr bool kCountsChanges = true;
    static constexpr bool kTakesEqualAge = false;   // a record as old as the one on air
    static constexpr bool kTakesBegun = true;       // a record whose time has come, whatever the due time
    static constexpr bool kDestroysUnlocked = true; // although the lock was not had
    static constexpr const char *kLostLock = "";
    static Info *make() { return cast({}); }
    static void makeAnother(Info *pInfo) { pInfo->usDSTPort = 1; }
};

struct Messages {
    PCCAST_LIST(MSG, PATCHaMSGNode)
    static constexpr unsigned long kCommand = PCMBC_CMD_MSG, kCancel = PCMBC_CMD_CANCEL;
    static constexpr unsigned long Info::*kIdentity[] = {&Info::ulCT, &Info::ulST, &Info::ulET};
    static constexpr unsigned long Info::*kRest[] = {&Info::ulCMD, &Info::ulPriority, &Info::ulRepeat,
                                                     &Info::ulAttr1, &Info::ulAttr3};
    static constexpr bool kCountsChanges = false, kTakesEqualAge = true, kTakesBegun = false,
                          kDestroysUnlocked = false;
    static constexpr const char *kLostLock =
        "[msglistmgr:#] \033[2;31m can NOT LOCK \033[1;41m[ERROR]\033[0m\n";
    static Info *make() {
        Info *pInfo = nullptr;
        EXPECT_EQ(MAKEMSGInfo(&pInfo, "text"), 1);
        return pInfo;
    }
    static void makeAnother(Info *pInfo) { pInfo->ulCT = 1; }
};

template <typename Kind>
class ListTest : public PluginTest {
protected:
    using Info = typename Kind::Info;
    ListTest() { EXPECT_EQ(Kind::create(&list), 1); }
    ~ListTest() override { Kind::destroy(&list); }

    // Times count from kStart.
    static Info *record(unsigned long ulEPGID, unsigned long ulCT, unsigned long ulST = 0,
                        unsigned long ulET = 100, unsigned long ulCMD = Kind::kCommand) {
        Info *pInfo = Kind::make();
        pInfo->ulCMD = ulCMD;
        pInfo->uliEPGID = ulEPGID;
        pInfo->ulCT = ulCT;
        pInfo->ulST = kStart + ulST;
        pInfo->ulET = kStart + ulET;
        return pInfo;
    }
    int file(Info *pInfo) { return Kind::insert(&list, pInfo); }
    // The EPG ids from head to tail.
    std::string order() const {
        std::string text;
        for (const KTLIST_NODE *pNode = list.pList->pHead; pNode != nullptr; pNode = pNode->pNext) {
            text += std::to_string(static_cast<const Info *>(pNode->pData)->uliEPGID) + " ";
        }
        return text;
    }
    // The EPG id of the record that the operation brings, 0 for none.
    template <typename Operation>
    static unsigned long got(Operation operation) {
        Info *pInfo = nullptr;
        const int iResult = operation(&pInfo);
        EXPECT_EQ(iResult, pInfo != nullptr ? 1 : 0);
        const unsigned long ulEPGID = pInfo == nullptr ? 0 : pInfo->uliEPGID;
        Kind::eliminate(&pInfo);
        return ulEPGID;
    }
    unsigned long take(unsigned long ulOnAirCT, unsigned long ulDue) {
        return got([&](Info **pp) { return Kind::takeDue(&list, ulOnAirCT, kStart + ulDue, pp); });
    }
    // Tries every operation, on a list that is not there or locked.
    static void nothingIsDone(typename Kind::List *pList, Info *pInfo) {
        Info *pNone = nullptr;
        EXPECT_EQ(Kind::insert(pList, pInfo), 0);
        EXPECT_EQ(Kind::takeDue(pList, 0, kStart, &pNone), 0);
        EXPECT_EQ(Kind::takeHead(pList, &pNone), 0);
        EXPECT_EQ(Kind::copyHead(pList, &pNone), 0);
        EXPECT_EQ(Kind::remove(pList, pInfo), 0);
        EXPECT_EQ(Kind::removeHead(pList), 0);
        Kind::print(pList, "x");
        EXPECT_EQ(pNone, nullptr);
    }
    typename Kind::List list{};
};
using Kinds = testing::Types<Casts, Messages>;
TYPED_TEST_SUITE(ListTest, Kinds);

TYPED_TEST(ListTest, EqualityLooksAtTheIdentityAlone) {
    typename TypeParam::Info same{}, other{};
    for (const auto pField : TypeParam::kRest) {
        other.*pField = 9;
    }
    EXPECT_EQ(TypeParam::compare(&same, &other, 0), 0);
    EXPECT_EQ(TypeParam::compare(&same, &other, 2), 1);
    EXPECT_EQ(TypeParam::compare(nullptr, &other, 0), -1);
    EXPECT_EQ(TypeParam::compare(&other, nullptr, 1), -1);
    for (const auto pField : TypeParam::kIdentity) {
        other = same;
        other.*pField = 1;
        EXPECT_EQ(TypeParam::compare(&same, &other, 0), 1);
        EXPECT_EQ(TypeParam::compare(&same, &other, 1), 0);
    }
    other.uliEPGID = 1;
    EXPECT_EQ(TypeParam::compare(&same, &other, 1), 1);
}

TYPED_TEST(ListTest, FilingKeepsNewestFirstAndCountsChanges) {
    struct Case {
        unsigned long ulEPGID, ulCT;
        const char *pszOrder;
        int iFlag;
    };
    for (const Case &row :
         {Case{1, 5, "1 ", 1}, Case{2, 7, "2 1 ", 2}, Case{3, 6, "2 3 1 ", 3}, Case{4, 6, "2 3 4 1 ", 4},
          Case{5, 1, "2 3 4 1 5 ", 1}, Case{6, 9, "6 2 3 4 1 5 ", 2}}) {
        EXPECT_EQ(this->file(this->record(row.ulEPGID, row.ulCT)), 1);
        EXPECT_EQ(this->order(), row.pszOrder);
        EXPECT_EQ(this->list.iFLAGChange, TypeParam::kCountsChanges ? row.iFlag : 1) << row.pszOrder;
    }
    this->list.iFLAGChange = 3;
    EXPECT_EQ(this->got([&](auto pp) { return TypeParam::copyHead(&this->list, pp); }), 6u);
    EXPECT_EQ(this->list.iFLAGChange, 3);
    EXPECT_EQ(this->got([&](auto pp) { return TypeParam::takeHead(&this->list, pp); }), 6u);
    EXPECT_EQ(this->list.iFLAGChange, 1);
    this->list.iFLAGChange = 3;
    EXPECT_EQ(TypeParam::removeHead(&this->list), 1);
    EXPECT_EQ(this->list.iFLAGChange, 1);
    EXPECT_EQ(this->order(), "3 4 1 5 ");
}

TYPED_TEST(ListTest, CancellingTakesTheFirstEqualOrGoesToTheHead) {
    const auto cancel = [&] { return this->record(2, 8, 0, 100, TypeParam::kCancel); };
    this->file(this->record(1, 9));
    this->file(this->record(2, 8));
    this->file(this->record(2, 8));
    const KTLIST_NODE *const pSecond = this->list.pList->pTail;
    this->list.iFLAGChange = 3;
    EXPECT_EQ(this->file(cancel()), 1);
    EXPECT_EQ(this->order(), "1 2 ");
    EXPECT_EQ(this->list.pList->pTail, pSecond);
    EXPECT_EQ(this->list.iFLAGChange, 1);
    auto *pOther = cancel();
    TypeParam::makeAnother(pOther);
    pOther->ulCT = 1;
    EXPECT_EQ(this->file(pOther), 1); // nothing equal
    EXPECT_EQ(this->order(), "2 1 2 ");
    this->file(this->record(3, 5)); // newer than the one at the head
    this->file(this->record(2, 8));
    EXPECT_EQ(this->order(), "2 3 2 1 2 ");
    auto *pKey = this->record(2, 8);
    this->list.iFLAGChange = 3;
    EXPECT_EQ(TypeParam::remove(&this->list, pKey), 1); // both that are equal
    EXPECT_EQ(this->order(), "3 2 1 ");
    EXPECT_EQ(this->list.iFLAGChange, 1);
    EXPECT_EQ(TypeParam::remove(&this->list, pKey), 0);
    TypeParam::eliminate(&pKey);
}

TYPED_TEST(ListTest, TakingFollowsTimeAgeAndCommand) {
    this->file(this->record(1, 30, 0, 0)); // expired
    this->file(this->record(2, 20, 3));    // not due yet
    this->file(this->record(3, 10, 2));    // due with the horizon
    this->file(this->record(4, 5, 0, 0));  // expired, behind the other
    EXPECT_EQ(this->take(11, 2), 0u);
    EXPECT_EQ(this->order(), "2 3 "); // the walk went to the end
    EXPECT_EQ(this->take(10, 1), 0u);
    this->file(this->record(4, 5, 0, 0));
    if (TypeParam::kTakesEqualAge) {
        EXPECT_EQ(this->take(10, 2), 3u);
    } else {
        EXPECT_EQ(this->take(10, 2), 0u);
        this->file(this->record(4, 5, 0, 0));
        EXPECT_EQ(this->take(9, 2), 3u);
    }
    EXPECT_EQ(this->order(), "2 4 "); // what stands behind the taken one is not looked at
    EXPECT_EQ(this->take(0, 2), 0u);
    script::advance(3);
    EXPECT_EQ(this->take(0, 2), TypeParam::kTakesBegun ? 2u : 0u);
    EXPECT_EQ(this->take(0, 3), TypeParam::kTakesBegun ? 0u : 2u);
    this->file(this->record(5, 10, 6, 100, TypeParam::kCancel));
    EXPECT_EQ(this->take(11, 6), 0u);
    EXPECT_EQ(this->take(10, 5), 0u);
    EXPECT_EQ(this->take(10, 6), 5u); // a request to cancel that is as old as the one on air
    this->file(this->record(6, 10, 0, 3, TypeParam::kCancel));
    this->list.iFLAGChange = 7;
    EXPECT_EQ(this->take(0, 5), 0u);
    EXPECT_EQ(this->order(), ""); // a list of expired ones alone is left empty
    EXPECT_EQ(this->list.iFLAGChange, 7);
}

TYPED_TEST(ListTest, RefusedCallsChangeNothing) {
    auto *pFull = TypeParam::make(), *pSame = pFull;
    this->file(this->record(2, 8));
    EXPECT_EQ(TypeParam::takeDue(&this->list, 0, kStart, &pFull), -1);
    EXPECT_EQ(TypeParam::takeHead(&this->list, &pFull), -1);
    EXPECT_EQ(TypeParam::copyHead(&this->list, &pFull), -1);
    EXPECT_EQ(TypeParam::create(&this->list), -1);
    EXPECT_EQ(this->list.iFLAGChange, 0);
    EXPECT_EQ(pFull, pSame);
    EXPECT_EQ(this->order(), "2 ");
    EXPECT_EQ(TypeParam::insert(&this->list, nullptr), 0);
    typename TypeParam::List empty{};
    this->nothingIsDone(nullptr, pFull);
    this->nothingIsDone(&empty, pFull);
    EXPECT_EQ(TypeParam::create(nullptr), 0);
    EXPECT_EQ(TypeParam::destroy(nullptr), 0);
    EXPECT_EQ(this->out(), TypeParam::kRefused);
    EXPECT_EQ(TypeParam::destroy(&empty), 0); // a list that was never made
    EXPECT_EQ(TypeParam::create(&empty), 1);
    EXPECT_EQ(TypeParam::destroy(&empty), 0); // a list without a record
    TypeParam::eliminate(&pFull);
}

TYPED_TEST(ListTest, LostLockLeavesRecordAndListAlone) {
    this->file(this->record(2, 8));
    this->list.iFLAGChange = 3;
    auto *pInfo = this->record(2, 8);
    const unsigned long ulPaused = script::pausedMicroseconds();
    {
        script::Taken taken(this->list.pMutex);
        this->nothingIsDone(&this->list, pInfo);
    }
    EXPECT_EQ(script::pausedMicroseconds() - ulPaused, 7 * 10'010'000u); // about ten seconds each
    // Any other error of the mutex is no lock either, so nothing may be unlocked.
    script::fail(Step::TryLock, "", EAGAIN);
    EXPECT_EQ(TypeParam::removeHead(&this->list), 0);
    const std::string line = TypeParam::kLostLock;
    EXPECT_EQ(this->out(), line + line + line + line + line + line + line + line);
    EXPECT_EQ(this->order(), "2 ");
    EXPECT_EQ(this->list.iFLAGChange, 3);
    typename TypeParam::List other{};
    EXPECT_EQ(TypeParam::create(&other), 1);
    EXPECT_EQ(TypeParam::insert(&other, pInfo), 1);
    script::fail(Step::TryLock, "", EAGAIN);
    EXPECT_EQ(TypeParam::destroy(&other), TypeParam::kDestroysUnlocked ? 1 : 0);

    if (!TypeParam::kDestroysUnlocked) {
        other.pMutex = nullptr; // which is gone
        EXPECT_EQ(TypeParam::destroy(&other), 1);
    }
}

TYPED_TEST(ListTest, ListWithoutMemoryIsNotCreatedAndFilingLeavesTheRecord) {
    const int results[] = {0, 0, 1};
    for (long lNth = 1; lNth <= 3; ++lNth) { // the mutex; the list; nothing
        typename TypeParam::List other{};
        EXPECT_EQ(withoutAllocation(lNth, [&] { return TypeParam::create(&other); }), results[lNth - 1]);
        TypeParam::destroy(&other);
    }
    for (const unsigned long ulCMD : {TypeParam::kCommand, TypeParam::kCancel}) {
        auto *pInfo = this->record(1, 1, 0, 100, ulCMD);
        EXPECT_EQ(withoutAllocation(1, [&] { return this->file(pInfo); }), 0);
        EXPECT_EQ(this->list.pList->iCount, 0);
        EXPECT_EQ(TypeParam::eliminate(&pInfo), 1);
    }
    EXPECT_EQ(this->file(this->record(1, 1)), 1);
    typename TypeParam::Info *pCopy = nullptr; // there is a head, but no copy
    EXPECT_EQ(withoutAllocation(1, [&] { return TypeParam::copyHead(&this->list, &pCopy); }), 1);
    EXPECT_EQ(pCopy, nullptr);
}

TEST_F(PluginTest, RequestIsTakenBackOnceAndByItsAge) {
    CASTList list{};
    ASSERT_EQ(CREATECASTList(&list), 1);
    for (const unsigned long ulCT : {3ul, 4ul, 4ul}) {
        ASSERT_EQ(INSERTCASTInfo(&list, cast({.ulCT = ulCT})), 1);
    }
    CASTInfo *pKey = cast({.ulCT = 4});
    for (const int iExpected : {1, 1, 0}) {
        EXPECT_EQ(castlistRemoveRequest(&list, pKey), iExpected);
    }
    EXPECT_EQ(list.pList->iCount, 1);
    ELIMINATECASTInfo(&pKey);
    DESTROYCASTList(&list);
}

// The exercise's whole output, with each printed record as "CALLER EPGID:", the creation and the start.
TEST_F(PluginTest, MessageListExercisePrintsBothListings) {
    EXPECT_EQ(diagMSGListMain(), 1);
    const std::regex record(R"(PRINTMSGInfo: Caller\[(\w+)\]\n\t ulCMD:0\n\t uliEPGID:(\d)\n)"
                            R"(\t ulCT:.*(\d) 1970\n\t.*\n\t ulST:.*(\d) 1970\n(\t.*\n){3})");
    EXPECT_EQ(
        std::regex_replace(out(), record, "$1 $2:$3$4 "),
        "msglistmgr:diagMSGListMain():#\nmsglistmgr:diagMSGListMain():#\nmsglistmgr:diagMSGListMain():#\n"
        "diagMSGListMain 1:23 msglistmgr:diagMSGListMain():#\n"
        " 1th INSERTED[1]\n 2th INSERTED[1]\n 3th INSERTED[1]\n 4th INSERTED[1]\n"
        "-----------------[ SHOW LIST: Caller::diagMSGListMain()\n"
        "PRINTMSGList 3:44 PRINTMSGList 2:33 PRINTMSGList 1:22 PRINTMSGList 0:11 "
        "SHOW LIST: 4 total, iFLAGChange:1 ]------------------\n"
        " 5th INSERTED[1]\n 4th INSERTED[1]\n 3th INSERTED[1]\n 2th INSERTED[1]\n"
        "-----------------[ SHOW LIST: Caller::diagMSGListMain()\n"
        "PRINTMSGList 4:55 PRINTMSGList 3:44 PRINTMSGList 5:44 PRINTMSGList 2:33 "
        "PRINTMSGList 6:33 PRINTMSGList 1:22 PRINTMSGList 7:22 PRINTMSGList 0:11 "
        "SHOW LIST: 8 total, iFLAGChange:1 ]------------------\n"
        "diagMSGListMain 4:55 diagMSGListMain 3:44 diagMSGListMain 5:44 diagMSGListMain 2:33 "
        "diagMSGListMain 6:33 diagMSGListMain 1:22 diagMSGListMain 7:22 diagMSGListMain 0:11 ");
    for (long lNth = 1; lNth < 40; ++lNth) { // without memory it ends and leaks nothing
        withoutAllocation(lNth, diagMSGListMain);
    }
}

} // namespace

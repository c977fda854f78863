// The cast list and the message list: the same operations on the records of either kind, and what sets the
// two apart; and the message list's exercise.
#include "plugintest.h"

#include <cerrno>

namespace {

using script::START;

// The records and operations of a kind. NODE: the one name that is not formed like the others.
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
    static constexpr const char *REFUSED =                                                                   \
        #NODE "(): pp" #KIND "Info is NOT NULL\nPATCHa" #KIND "Info(): pp" #KIND "Info is NOT NULL\n"        \
              "GETCOPYa" #KIND "Info(): pp" #KIND "Info is NOT NULL\n"                                       \
              "CREATE" #KIND "List(): pp" #KIND "List is NOT NULL: maybe uninitialized\n";

struct Casts {
    PCCAST_LIST(CAST, PATCHaNode)
    static constexpr unsigned long COMMAND = CAST_CMD_START, CANCEL = CAST_CMD_STOP;
    static constexpr unsigned long Info::*identity[] = {&Info::ulCASTType, &Info::ulST, &Info::ulET};
    static constexpr unsigned long Info::*rest[] = {&Info::ulCMD, &Info::ulCT, &Info::ulSTREAMFormat,
                                                    &Info::ulMSID};
    static constexpr bool COUNTS_CHANGES = true;
    static constexpr bool TAKES_EQUAL_AGE = false; // as old as the one on air
    static constexpr bool TAKES_BEGUN = true;      // whatever the due time
    static constexpr const char *LOST_LOCK = "";
    static Info *make() { return cast({}); }
    static void makeAnother(Info *pInfo) { pInfo->usDSTPort = 1; }
};

struct Messages {
    PCCAST_LIST(MSG, PATCHaMSGNode)
    static constexpr unsigned long COMMAND = PCMBC_CMD_MSG, CANCEL = PCMBC_CMD_CANCEL;
    static constexpr unsigned long Info::*identity[] = {&Info::ulCT, &Info::ulST, &Info::ulET};
    static constexpr unsigned long Info::*rest[] = {&Info::ulCMD, &Info::ulPriority, &Info::ulRepeat,
                                                    &Info::ulAttr1, &Info::ulAttr3};
    static constexpr bool COUNTS_CHANGES = false, TAKES_EQUAL_AGE = true, TAKES_BEGUN = false;
    static constexpr const char *LOST_LOCK =
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

    // Times count from START.
    static Info *record(unsigned long ulEPGID, unsigned long ulCT, unsigned long ulST = 0,
                        unsigned long ulET = 100, unsigned long ulCMD = Kind::COMMAND) {
        Info *pInfo = Kind::make();
        pInfo->ulCMD = ulCMD;
        pInfo->uliEPGID = ulEPGID;
        pInfo->ulCT = ulCT;
        pInfo->ulST = START + ulST;
        pInfo->ulET = START + ulET;
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
    // The EPG id of what the operation brings; 0 for nothing.
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
        return got([&](Info **pp) { return Kind::takeDue(&list, ulOnAirCT, START + ulDue, pp); });
    }
    // Every operation on a list that cannot be had.
    static void nothingIsDone(typename Kind::List *pList, Info *pInfo) {
        Info *pNone = nullptr;
        EXPECT_EQ(Kind::insert(pList, pInfo), 0);
        EXPECT_EQ(Kind::takeDue(pList, 0, START, &pNone), 0);
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
    for (const auto pField : TypeParam::rest) {
        other.*pField = 9;
    }
    EXPECT_EQ(TypeParam::compare(&same, &other, 0), 0);
    EXPECT_EQ(TypeParam::compare(&same, &other, 2), 1);
    EXPECT_EQ(TypeParam::compare(nullptr, &other, 0), -1);
    EXPECT_EQ(TypeParam::compare(&other, nullptr, 1), -1);
    for (const auto pField : TypeParam::identity) {
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
        EXPECT_EQ(this->list.iFLAGChange, TypeParam::COUNTS_CHANGES ? row.iFlag : 1) << row.pszOrder;
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
    const auto cancel = [&] { return this->record(2, 8, 0, 100, TypeParam::CANCEL); };
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
    if (TypeParam::TAKES_EQUAL_AGE) {
        EXPECT_EQ(this->take(10, 2), 3u);
    } else {
        EXPECT_EQ(this->take(10, 2), 0u);
        this->file(this->record(4, 5, 0, 0));
        EXPECT_EQ(this->take(9, 2), 3u);
    }
    EXPECT_EQ(this->order(), "2 4 "); // what stands behind the taken one is not looked at
    EXPECT_EQ(this->take(0, 2), 0u);
    script::advance(3);
    EXPECT_EQ(this->take(0, 2), TypeParam::TAKES_BEGUN ? 2u : 0u);
    EXPECT_EQ(this->take(0, 3), TypeParam::TAKES_BEGUN ? 0u : 2u);
    this->file(this->record(5, 10, 6, 100, TypeParam::CANCEL));
    EXPECT_EQ(this->take(11, 6), 0u);
    EXPECT_EQ(this->take(10, 5), 0u);
    EXPECT_EQ(this->take(10, 6), 5u); // a request to cancel that is as old as the one on air
    this->file(this->record(6, 10, 0, 3, TypeParam::CANCEL));
    this->list.iFLAGChange = 7;
    EXPECT_EQ(this->take(0, 5), 0u);
    EXPECT_EQ(this->order(), ""); // a list of expired ones alone is left empty
    EXPECT_EQ(this->list.iFLAGChange, 7);
}

TYPED_TEST(ListTest, RefusedCallsChangeNothing) {
    auto *pFull = TypeParam::make(), *pSame = pFull;
    this->file(this->record(2, 8));
    EXPECT_EQ(TypeParam::takeDue(&this->list, 0, START, &pFull), -1);
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
    EXPECT_EQ(this->out(), TypeParam::REFUSED);
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
    // An unusual error of the mutex is not a lock either: nothing may be unlocked that was not locked.
    script::fail(Step::TRYLOCK, "", EAGAIN);
    EXPECT_EQ(TypeParam::removeHead(&this->list), 0);
    const std::string line = TypeParam::LOST_LOCK;
    EXPECT_EQ(this->out(), line + line + line + line + line + line + line + line);
    EXPECT_EQ(this->order(), "2 ");
    EXPECT_EQ(this->list.iFLAGChange, 3);
    TypeParam::eliminate(&pInfo);
}

TYPED_TEST(ListTest, ListWithoutMemoryIsNotCreatedAndFilingLeavesTheRecord) {
    const int results[] = {0, 0, 1};
    for (long lNth = 1; lNth <= 3; ++lNth) { // the mutex; the list; nothing
        typename TypeParam::List other{};
        EXPECT_EQ(withoutAllocation(lNth, [&] { return TypeParam::create(&other); }), results[lNth - 1]);
        TypeParam::destroy(&other);
    }
    for (const unsigned long ulCMD : {TypeParam::COMMAND, TypeParam::CANCEL}) {
        auto *pInfo = this->record(1, 1, 0, 100, ulCMD);
        EXPECT_EQ(withoutAllocation(1, [&] { return this->file(pInfo); }), 0);
        EXPECT_EQ(this->list.pList->iCount, 0);
        EXPECT_EQ(TypeParam::eliminate(&pInfo), 1);
    }
    EXPECT_EQ(this->file(this->record(1, 1)), 1);
    typename TypeParam::List other{};
    EXPECT_EQ(TypeParam::create(&other), 1);
    EXPECT_EQ(TypeParam::insert(&other, this->record(1, 1)), 1);
    EXPECT_EQ(TypeParam::destroy(&other), 1);
    typename TypeParam::Info *pCopy = nullptr; // there is a head, but no copy
    EXPECT_EQ(withoutAllocation(1, [&] { return TypeParam::copyHead(&this->list, &pCopy); }), 1);
    EXPECT_EQ(pCopy, nullptr);
}

// The whole output of the exercise, written out by hand.
TEST_F(PluginTest, MessageListExercisePrintsBothListings) {
    const auto record = [](const std::string &caller, int iEPGID, int iCT, int iST) {
        return "PRINTMSGInfo: Caller[" + caller + "]\n\t ulCMD:0\n\t uliEPGID:" + std::to_string(iEPGID) +
               "\n\t ulCT:Thu Jan  1 00:00:0" + std::to_string(iCT) +
               " 1970\n\t ulPriority:0\n\t ulST:Thu Jan  1 00:00:0" + std::to_string(iST) +
               " 1970\n\t ulET:Thu Jan  1 00:00:04 1970\n\t ulRepeat:0\n\t pMSGSTR =  MSGFILE.asf\n";
    };
    const std::string head = "-----------------[ SHOW LIST: Caller::diagMSGListMain()\n",
                      tail = " total, iFLAGChange:1 ]------------------\n";
    const std::string trace = "msglistmgr:diagMSGListMain():#\n";
    std::string expected = trace + trace + trace + record("diagMSGListMain", 1, 2, 3) + trace +
                           " 1th INSERTED[1]\n 2th INSERTED[1]\n 3th INSERTED[1]\n 4th INSERTED[1]\n" + head;
    for (int i = 4; i >= 1; --i) {
        expected += record("PRINTMSGList", i - 1, i, i);
    }
    expected += "SHOW LIST: 4" + tail +
                " 5th INSERTED[1]\n 4th INSERTED[1]\n 3th INSERTED[1]\n 2th INSERTED[1]\n" + head;
    std::string listed, taken;
    const int sorted[8][2] = {{4, 5}, {3, 4}, {5, 4}, {2, 3}, {6, 3}, {1, 2}, {7, 2}, {0, 1}};
    for (const auto &row : sorted) {
        listed += record("PRINTMSGList", row[0], row[1], row[1]);
        taken += record("diagMSGListMain", row[0], row[1], row[1]);
    }
    expected += listed + "SHOW LIST: 8" + tail + taken;
    EXPECT_EQ(diagMSGListMain(), 1);
    EXPECT_EQ(out(), expected);
    for (long lNth = 1; lNth < 40; ++lNth) { // without memory it ends, and leaves nothing
        withoutAllocation(lNth, diagMSGListMain);
    }
}

} // namespace

// The file of the state: what comes back after a restart, what does not, and what the history says.
#include "historytext.h"
#include "statestore.h"

#include <gtest/gtest.h>

#include <sqlite3.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <tuple>

namespace {

constexpr unsigned long kNow = 1'790'000'000;

char gSource[] = "239.0.0.1", gGroup[] = "239.1.2.3", gFile[] = "/srv/film.ts", gText[] = "Fire \"drill\"";
unsigned char gKey[] = {1, 0, 255};

CASTInfo relay(unsigned long ulEPG, unsigned long ulCT = kNow - 10) {
    CASTInfo cast{};
    cast.ulCMD = CAST_CMD_START;
    cast.uliEPGID = ulEPG;
    cast.ulCT = ulCT;
    cast.ulCASTType = CAST_TYPE_STREAM;
    cast.ulSTREAMFormat = CAST_FORMAT_TS;
    cast.ulST = kNow - 10;
    cast.ulET = kNow + 3600;
    cast.pSRCIP = gSource;
    cast.usSRCPort = 4000;
    cast.pDSTIP = gGroup;
    cast.usDSTPort = 5000;
    cast.ulMSID = 3;
    cast.iEncryptionType = CAST_ENCRYPTION_SEED;
    cast.iEncryptionKeyLen = sizeof gKey;
    cast.pEncryptionKey = gKey;
    cast.iASFSplit = CAST_SPLIT_CHUNKS;
    return cast;
}

CASTInfo file(unsigned long ulEPG) {
    CASTInfo cast = relay(ulEPG);
    cast.ulCASTType = CAST_TYPE_FILE;
    cast.pSRCIP = nullptr;
    cast.pCASTFile = gFile;
    return cast;
}

CASTInfo stopOf(CASTInfo cast) {
    cast.ulCMD = CAST_CMD_STOP;
    cast.ulCT = kNow;
    return cast;
}

MSGInfo message(unsigned long ulEPG, unsigned long ulRepeat) {
    return {PCMBC_CMD_MSG, ulEPG, 1, kNow - 5, kNow - 5, kNow + 600, ulRepeat, 33, 32, gText};
}

class StateTest : public testing::Test {
protected:
    StateTest() {
        char szFolder[] = "/tmp/state.XXXXXX";
        sFolder = mkdtemp(szFolder);
        sPath = sFolder + "/" + kStateFile;
        store = std::make_unique<Store>(sPath, Store::WRITE);
    }
    ~StateTest() override { std::filesystem::remove_all(sFolder); }

    // ulOther: the request that caused it, a relay with that programme; 0: none.
    PCCASTEvent event(unsigned int uiKind, unsigned long ulRequest, unsigned int uiReason = 0,
                      const CASTInfo *pOther = nullptr) {
        PCCASTEvent made{};
        made.ulNumber = ++ulNumber;
        made.ulTime = kNow + ulNumber;
        made.uiMilliseconds = 250;
        made.uiKind = uiKind;
        made.uiReason = uiReason;
        made.ulRequest = ulRequest;
        made.pOtherCast = pOther;
        return made;
    }
    void tell(PCCASTEvent made, const CASTInfo &cast) {
        made.pCast = &cast;
        store->apply({made}, &ulRestored);
    }
    void tell(PCCASTEvent made, const MSGInfo &about, unsigned long ulRepeatsLeft) {
        made.pMessage = &about;
        made.ulRepeatsLeft = ulRepeatsLeft;
        store->apply({made}, &ulRestored);
    }
    // Another service starts with the file. Returns the programmes to be filed again, in order.
    std::vector<unsigned long> restart(unsigned long ulTime = kNow) {
        store.reset();
        store = std::make_unique<Store>(sPath, Store::WRITE);
        left = store->begin(ulTime);
        std::vector<unsigned long> programmes;
        KeptRequest request;
        for (const auto *pIds : {&left.casts, &left.messages}) {
            for (const long long llId : *pIds) {
                EXPECT_TRUE(store->load(llId, &request));
                programmes.push_back(request.bCast ? request.cast.uliEPGID : request.message.uliEPGID);
            }
        }
        return programmes;
    }
    Json history(const HistoryQuery &query = {}) { return store->history(query)["entries"]; }

    using Programmes = std::vector<unsigned long>;
    std::string sFolder, sPath;
    std::unique_ptr<Store> store;
    StateLeft left;
    unsigned long ulNumber = 0;
    unsigned long ulRestored = 0;
};

TEST_F(StateTest, EveryFieldComesBack) {
    tell(event(PCCAST_EVENT_FILED, 1), relay(7));
    tell(event(PCCAST_EVENT_FILED, 2), message(8, 5), 5);
    tell(event(PCCAST_EVENT_SENT, 2), message(8, 5), 4);
    tell(event(PCCAST_EVENT_FILED, 3), file(9));
    EXPECT_EQ(restart(), (Programmes{7, 9, 8}));

    KeptRequest request;
    ASSERT_TRUE(store->load(left.casts[0], &request));
    const CASTInfo &cast = request.cast;
    EXPECT_EQ(
        std::make_tuple(cast.ulCMD, cast.ulCT, cast.ulCASTType, cast.ulSTREAMFormat, cast.ulST, cast.ulET),
        std::make_tuple(1ul, kNow - 10, 2ul, 0x2021ul, kNow - 10, kNow + 3600));
    EXPECT_STREQ(cast.pSRCIP, "239.0.0.1");
    EXPECT_STREQ(cast.pDSTIP, "239.1.2.3");
    EXPECT_EQ(cast.pCASTFile, nullptr);
    EXPECT_EQ(
        std::make_tuple(cast.usSRCPort, cast.usDSTPort, cast.ulMSID, cast.iEncryptionType, cast.iASFSplit),
        std::make_tuple(4000, 5000, 3ul, 2, 1));
    EXPECT_EQ(std::string(reinterpret_cast<char *>(cast.pEncryptionKey),
                          static_cast<size_t>(cast.iEncryptionKeyLen)),
              std::string("\x01\x00\xff", 3));
    ASSERT_TRUE(store->load(left.casts[1], &request));
    EXPECT_STREQ(cast.pCASTFile, "/srv/film.ts");
    ASSERT_TRUE(store->load(left.messages[0], &request));
    const MSGInfo &kept = request.message;
    EXPECT_EQ(std::make_tuple(kept.ulCMD, kept.ulPriority, kept.ulCT, kept.ulST, kept.ulET, kept.ulRepeat,
                              kept.ulAttr3, kept.ulAttr1),
              std::make_tuple(0x40020ul, 1ul, kNow - 5, kNow - 5, kNow + 600, 4ul, 33ul, 32ul));
    EXPECT_STREQ(kept.pMSGSTR, "Fire \"drill\"");
}

TEST_F(StateTest, WhatIsOverDoesNotComeBack) {
    const CASTInfo other = relay(99);
    const CASTInfo otherFile = file(98);
    const struct {
        unsigned int uiKind, uiReason;
        CASTInfo cast;
        const CASTInfo *pOther;
        bool bComesBack;
    } rows[] = {
        {PCCAST_EVENT_STARTED, 0, relay(1), nullptr, true},
        {PCCAST_EVENT_PREEMPTED, PCCAST_REASON_NEWER, relay(2), &other, true},
        {PCCAST_EVENT_PREEMPTED, PCCAST_REASON_NEWER, file(3), &otherFile, true},
        {PCCAST_EVENT_PREEMPTED, PCCAST_REASON_NEWER, file(4), &other, false},
        {PCCAST_EVENT_ENDED, PCCAST_REASON_CLOSING, relay(5), nullptr, true},
        {PCCAST_EVENT_ENDED, PCCAST_REASON_CLOSING, file(6), nullptr, true},
        {PCCAST_EVENT_ENDED, PCCAST_REASON_STOP, relay(7), &other, false},
        {PCCAST_EVENT_ENDED, PCCAST_REASON_FILE_END, file(8), nullptr, false},
        {PCCAST_EVENT_ENDED, PCCAST_REASON_SOURCE_LOST, relay(9), nullptr, false},
        {PCCAST_EVENT_FAILED, PCCAST_REASON_SOURCE, relay(10), nullptr, false},
        {PCCAST_EVENT_CANCELLED, PCCAST_REASON_NONE, relay(11), &other, false},
        {PCCAST_EVENT_DROPPED, PCCAST_REASON_LOCK, relay(12), nullptr, false},
        {PCCAST_EVENT_SILENT, PCCAST_REASON_NONE, relay(13), nullptr, true},
    };
    Programmes expected;
    for (const auto &row : rows) {
        const unsigned long ulRequest = row.cast.uliEPGID;
        tell(event(PCCAST_EVENT_FILED, ulRequest), row.cast);
        tell(event(PCCAST_EVENT_STARTED, ulRequest), row.cast);
        tell(event(row.uiKind, ulRequest, row.uiReason, row.pOther), row.cast);
    }
    const Programmes programmes = restart();
    for (const auto &row : rows) {
        EXPECT_EQ(std::count(programmes.begin(), programmes.end(), row.cast.uliEPGID), row.bComesBack ? 1 : 0)
            << "programme " << row.cast.uliEPGID;
    }
    // A file that has been played begins anew behind a newer one.
    tell(event(PCCAST_EVENT_STARTED, 8), file(8));
    EXPECT_EQ(store->countRequests(), programmes.size() + 1);
}

TEST_F(StateTest, NothingComesBackThatWasTakenBackInTheLastMoment) {
    tell(event(PCCAST_EVENT_FILED, 1), relay(1));
    tell(event(PCCAST_EVENT_STARTED, 1), relay(1));
    tell(event(PCCAST_EVENT_FILED, 2), relay(2));
    tell(event(PCCAST_EVENT_FILED, 3), stopOf(relay(2)));
    tell(event(PCCAST_EVENT_FILED, 4), message(3, 0), 0);
    MSGInfo cancel = message(3, 1);
    cancel.ulCMD = PCMBC_CMD_CANCEL;
    tell(event(PCCAST_EVENT_FILED, 5), cancel, 1);
    EXPECT_EQ(restart(), Programmes{1});
    const std::string sWhy = ", because its stop or cancel had come before the service went down";
    EXPECT_EQ(left.notes, (std::vector<std::string>{
                              "cancelled relay 2:2:1789999990:1790003600:5000:0x2021" + sWhy,
                              "cancelled message 3:1789999995:1789999995:1790000600:priority" + sWhy}));

    // A stop of what nobody waits for ends the cast on air; one that is not due yet waits.
    tell(event(PCCAST_EVENT_FILED, 1), relay(1));
    tell(event(PCCAST_EVENT_STARTED, 1), relay(1));
    CASTInfo later = stopOf(relay(5));
    later.ulST = kNow + 60;
    tell(event(PCCAST_EVENT_FILED, 2), later);
    tell(event(PCCAST_EVENT_FILED, 3), stopOf(relay(4)));
    EXPECT_EQ(restart(), Programmes{5});
}

TEST_F(StateTest, WhatTakesPrecedenceIsFiledFirst) {
    CASTInfo waiting = relay(1, kNow - 9);
    waiting.ulST = kNow + 60;
    tell(event(PCCAST_EVENT_FILED, 1), waiting);
    tell(event(PCCAST_EVENT_FILED, 2), file(2));
    tell(event(PCCAST_EVENT_FILED, 3), relay(3, kNow - 8));
    tell(event(PCCAST_EVENT_FILED, 4), relay(4, kNow - 7));
    tell(event(PCCAST_EVENT_FILED, 5), relay(5, kNow - 7));
    tell(event(PCCAST_EVENT_STARTED, 5), relay(5, kNow - 7));
    EXPECT_EQ(restart(), (Programmes{5, 4, 3, 2, 1}));
}

TEST_F(StateTest, RestoredRequestKeepsItsRow) {
    tell(event(PCCAST_EVENT_FILED, 1), message(1, 5), 5);
    tell(event(PCCAST_EVENT_SENT, 1), message(1, 5), 4);
    tell(event(PCCAST_EVENT_FILED, 2), file(2));
    restart();
    CASTInfo again = file(2);
    again.iEncryptionType = 0; // of another request: a file has none
    again.usSRCPort = 1;
    tell(event(PCCAST_EVENT_FILED, 1), message(1, 4), 4);
    tell(event(PCCAST_EVENT_FILED, 2), again);
    EXPECT_EQ(ulRestored, 2u);
    EXPECT_EQ(store->countRequests(), 2u);
    CASTInfo different = relay(2);
    different.pEncryptionKey = nullptr;
    tell(event(PCCAST_EVENT_FILED, 3), different);
    EXPECT_EQ(store->countRequests(), 3u);

    tell(event(PCCAST_EVENT_SENT, 1), message(1, 4), 3);
    ASSERT_EQ(history().size(), 1u);
    EXPECT_EQ(history()[0].value("broadcasts", 0), 2);
    // The last broadcast has been made, and the service goes before it says so.
    tell(event(PCCAST_EVENT_SENT, 1), message(1, 4), 0);
    EXPECT_EQ(restart(), (Programmes{2, 2}));
    EXPECT_EQ(history()[0].value("reason", ""), "repeats");
}

TEST_F(StateTest, MissedEventsAreMadeUpForByASnapshot) {
    for (const unsigned long ulRequest : {1ul, 2ul, 3ul}) {
        tell(event(PCCAST_EVENT_FILED, ulRequest), relay(ulRequest));
    }
    tell(event(PCCAST_EVENT_STARTED, 1), relay(1));
    const CASTInfo cast2 = relay(2);
    const CASTInfo cast4 = relay(4);
    const CASTInfo over = relay(3);
    const MSGInfo text = message(5, 9);
    PCCASTViewRequest requests[4] = {
        {2, PCCAST_PLACE_ON_AIR, &cast2, nullptr, kNow, kNow + 1, 0, 0},
        {3, PCCAST_PLACE_OVER, &over, nullptr, kNow, kNow, 0, 0},
        {4, PCCAST_PLACE_WAITING, &cast4, nullptr, kNow, 0, 0, 0},
        {5, PCCAST_PLACE_WAITING, nullptr, &text, kNow, 0, 0, 6},
    };
    PCCASTView view{};
    view.ulTime = kNow + 30;
    view.pRequests = requests;
    view.iRequests = 4;
    store->reconcile(view, &ulRestored);
    const Json entries = history();
    ASSERT_EQ(entries.size(), 2u);
    EXPECT_EQ(entries[0].value("event", ""), "unknown");
    EXPECT_EQ(entries[1].value("from", 0ul), kNow + 1);
    EXPECT_EQ(restart(), (Programmes{2, 4, 5}));
}

TEST_F(StateTest, HistorySaysWhatWasOnAir) {
    const CASTInfo newer = relay(2);
    tell(event(PCCAST_EVENT_FILED, 1), relay(1));
    tell(event(PCCAST_EVENT_STARTED, 1), relay(1));
    PCCASTEvent ended = event(PCCAST_EVENT_PREEMPTED, 1, PCCAST_REASON_NEWER, &newer);
    ended.traffic.ulDatagrams = 100;
    ended.traffic.ulBytes = 131600;
    ended.traffic.ulDropped = 2;
    tell(ended, relay(1));
    tell(event(PCCAST_EVENT_RETURNED, 1), relay(1));
    PCCASTView view{};
    view.ulTime = kNow + 20;
    view.ulRelay = 1;
    view.relay.ulDatagrams = 77;
    EXPECT_TRUE(store->note(view));
    CASTInfo missed = relay(3);
    missed.ulET = kNow + 5;
    tell(event(PCCAST_EVENT_FILED, 2), missed);
    EXPECT_EQ(restart(kNow + 60), Programmes{1});

    const Json expected = Json::parse(R"([
        {"id": 1, "kind": "relay", "epg": 1, "identity": "1:2:1789999990:1790003600:5000:0x2021",
         "from": 1790000002, "until": 1790000003, "duration_ms": 1000, "event": "preempted", "reason": "newer",
         "other": "2:2:1789999990:1790003600:5000:0x2021", "source": "239.0.0.1:4000",
         "destination": "239.1.2.3:5000", "datagrams": 100, "bytes": 131600, "failed": 0, "dropped": 2,
         "silence": 0, "late": 0},
        {"id": 2, "kind": "relay", "epg": 1, "identity": "1:2:1789999990:1790003600:5000:0x2021",
         "from": 1790000004, "until": 1790000020, "duration_ms": 15750, "event": "interrupted",
         "source": "239.0.0.1:4000", "destination": "239.1.2.3:5000", "datagrams": 77, "bytes": 0, "failed": 0,
         "dropped": 0, "silence": 0, "late": 0},
        {"id": 3, "kind": "relay", "epg": 3, "identity": "3:2:1789999990:1790000005:5000:0x2021",
         "until": 1790000005, "event": "expired", "reason": "end-time", "source": "239.0.0.1:4000",
         "destination": "239.1.2.3:5000"}])");
    EXPECT_EQ(history(), expected);
    EXPECT_EQ(history({kNow + 10, false, 0, 0}).size(), 1u);
    EXPECT_EQ(history({0, true, 3, 0}).size(), 1u);
    store->prune(kNow + 10);
    EXPECT_EQ(history().size(), 1u);
}

TEST_F(StateTest, EachEndHasItsEntry) {
    const std::tuple<unsigned int, unsigned int, CASTInfo> aEnd[] = {
        {PCCAST_EVENT_REFUSED, PCCAST_REASON_INCOMPLETE, relay(1)},
        {PCCAST_EVENT_EXPIRED, PCCAST_REASON_END_TIME, file(2)},
        {PCCAST_EVENT_DROPPED, PCCAST_REASON_LOCK, relay(3)},
        {PCCAST_EVENT_CANCELLED, PCCAST_REASON_STOP, relay(4)},
        {PCCAST_EVENT_FAILED, PCCAST_REASON_SOURCE, relay(5)},
    };
    for (const auto &[uiKind, uiReason, cast] : aEnd) {
        tell(event(PCCAST_EVENT_FILED, cast.uliEPGID), cast);
        tell(event(uiKind, cast.uliEPGID, uiReason), cast);
    }
    tell(event(PCCAST_EVENT_STARTED, 6), relay(6));
    tell(event(PCCAST_EVENT_STARTED, 6), relay(6)); // its end has been missed
    PCCASTEvent failed = event(PCCAST_EVENT_FAILED, 6, PCCAST_REASON_DESTINATION);
    failed.traffic = {1, 2, 3, 4, 5, 0, 0, 0, 0, 0, 0, 6};
    tell(failed, relay(6));
    tell(event(PCCAST_EVENT_STARTED, 7), file(7));
    PCCASTEvent ended = event(PCCAST_EVENT_ENDED, 7, PCCAST_REASON_FILE_END);
    ended.traffic = failed.traffic;
    tell(ended, file(7));
    tell(event(PCCAST_EVENT_FILED, 8), message(8, 3), 3);
    tell(event(PCCAST_EVENT_CURRENT, 8), message(8, 3), 3);
    tell(event(PCCAST_EVENT_SENT, 8), message(8, 3), 2);
    tell(event(PCCAST_EVENT_SENT, 8, PCCAST_REASON_SEND), message(8, 3), 1);
    tell(event(PCCAST_EVENT_SENT, 8), message(8, 3), 0);
    tell(event(PCCAST_EVENT_FINISHED, 8, PCCAST_REASON_REPEATS), message(8, 3), 0);
    tell(event(PCCAST_EVENT_FILED, 9), message(9, 3), 3);
    tell(event(PCCAST_EVENT_EXPIRED, 9, PCCAST_REASON_END_TIME), message(9, 3), 3);
    tell(event(PCCAST_EVENT_FILED, 10), message(10, 0), 0);
    tell(event(PCCAST_EVENT_SENT, 10), message(10, 0), 0);
    tell(event(PCCAST_EVENT_CANCELLED, 10, PCCAST_REASON_STOP), message(10, 0), 0);
    EXPECT_EQ(store->countRequests(), 0u);

    std::string sEntries;
    for (const Json &entry : history()) {
        sEntries += historyCSV(entry) + "\n";
    }
    EXPECT_EQ(
        sEntries,
        R"(file,2,2:1:1789999990:1790003600:5000:0x2021,,1790000004,,expired,end-time,,,239.1.2.3:5000,/srv/film.ts,,,,,,,,
relay,3,3:2:1789999990:1790003600:5000:0x2021,,1790000006,,dropped,lock,,239.0.0.1:4000,239.1.2.3:5000,,,,,,,,,
relay,5,5:2:1789999990:1790003600:5000:0x2021,,1790000010,,failed,source,,239.0.0.1:4000,239.1.2.3:5000,,,,,,,,,
relay,6,6:2:1789999990:1790003600:5000:0x2021,1790000011,1790000012,1000,unknown,,,239.0.0.1:4000,239.1.2.3:5000,,,,0,,,,,
relay,6,6:2:1789999990:1790003600:5000:0x2021,1790000012,1790000013,1000,failed,destination,,239.0.0.1:4000,239.1.2.3:5000,,1,2,3,4,5,0,,
file,7,7:1:1789999990:1790003600:5000:0x2021,1790000014,1790000015,1000,ended,file-end,,,239.1.2.3:5000,/srv/film.ts,1,2,3,0,0,6,,
message,8,8:1789999995:1789999995:1790000600:priority,1790000018,1790000021,3000,finished,repeats,,,,,,,1,,,,"Fire ""drill""",2
message,9,9:1789999995:1789999995:1790000600:priority,,1790000023,,expired,end-time,,,,,,,,,,,"Fire ""drill""",0
message,10,10:1789999995:1789999995:1790000600:priority,1790000025,1790000026,1000,cancelled,stop,,,,,,,0,,,,"Fire ""drill""",1
)");
    EXPECT_EQ(history({0, false, 0, 8}).size(), 1u); // of the page behind the eighth
}

// ---- the file itself

void execute(const std::string &sPath, const std::string &sSQL) {
    sqlite3 *pHandle = nullptr;
    ASSERT_EQ(sqlite3_open(sPath.c_str(), &pHandle), SQLITE_OK);
    char *pszError = nullptr;
    EXPECT_EQ(sqlite3_exec(pHandle, sSQL.c_str(), nullptr, nullptr, &pszError), SQLITE_OK) << pszError;
    sqlite3_close(pHandle);
}

TEST_F(StateTest, DamageIsFoundWhenTheFileIsOpened) {
    for (unsigned long ul = 1; ul < 500; ++ul) {
        tell(event(PCCAST_EVENT_FILED, ul), relay(ul));
    }
    store.reset();
    std::fstream damaged(sPath, std::ios::in | std::ios::out | std::ios::binary);
    damaged.seekp(8192);
    damaged << std::string(8192, 'x');
    damaged.close();
    try {
        const Store opened(sPath, Store::WRITE);
        FAIL() << "a damaged file has been opened";
    } catch (const StoreError &failure) {
        EXPECT_TRUE(failure.isCorrupt()) << failure.what();
    }
}

// A file as version 1 wrote it. When there is a version 2, it still has to be read.
TEST_F(StateTest, KeptFileOfVersion1IsRead) {
    store.reset();
    std::filesystem::remove(sPath);
    std::ifstream dump(PCCAST_STATE_V1);
    execute(sPath, std::string(std::istreambuf_iterator<char>(dump), {}));
    EXPECT_EQ(restart(), (Programmes{7, 9, 8}));
    EXPECT_EQ(history().size(), 2u);
}

} // namespace

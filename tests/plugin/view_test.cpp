// What the service tells of itself: the events of every way that a request can go, and the snapshot.
#include "plugintest.h"

#include "view.h"

#include <pccast/pccast.h>

namespace {

using script::kStart;

constexpr const char *kKinds[] = {"",        "filed",    "refused",   "cancelled", "expired",  "dropped",
                                  "started", "returned", "preempted", "ended",     "failed",   "silent",
                                  "heard",   "current",  "sent",      "replaced",  "finished", "done"};
constexpr const char *kReasons[] = {"",        "end",     "stop",   "newer",      "source lost", "file end",
                                    "repeats", "closing", "send",   "source",     "destination", "key",
                                    "loop",    "file",    "format", "incomplete", "memory",      "lock",
                                    "nothing"};

class ViewTest : public PluginTest {
protected:
    ViewTest() {
        QX_PlugIn_Open();
        events(); // of tests before
    }
    ~ViewTest() override { QX_PlugIn_Close(); }

    static CastFields relay(unsigned long ulEPGID, unsigned long ulCT, unsigned long ulST,
                            unsigned long ulET) {
        return {.ulEPGID = ulEPGID, .ulCT = ulCT, .ulST = kStart + ulST, .ulET = kStart + ulET};
    }
    static CastFields file(unsigned long ulEPGID, unsigned long ulCT, unsigned long ulST,
                           unsigned long ulET) {
        CastFields fields = relay(ulEPGID, ulCT, ulST, ulET);
        fields.ulType = CAST_TYPE_FILE;
        fields.pszFile = "/f";
        return fields;
    }
    static CastFields stop(CastFields fields) {
        fields.ulCMD = CAST_CMD_STOP;
        return fields;
    }
    static void settle() {
        EXPECT_TRUE(script::eventually([] { return script::requestsWaiting() == 0; }));
        EXPECT_TRUE(script::settle(15));
    }
    static void send(const CastFields &fields) {
        CASTInfo *pInfo = cast(fields);
        TxCASTInfoToPlugIn(fields.ulCMD, pInfo);
        ELIMINATECASTInfo(&pInfo);
        settle();
    }
    static void say(unsigned long ulEPGID, unsigned long ulCT, const char *pszText, unsigned long ulPriority,
                    unsigned long ulRepeat, unsigned long ulET = 500, unsigned long ulCMD = PCMBC_CMD_MSG,
                    unsigned long ulST = 0) {
        MSGInfo *pInfo = nullptr;
        MAKEMSGInfo(&pInfo, pszText);
        char *pText = pInfo->pMSGSTR;
        *pInfo = {ulCMD, ulEPGID, ulPriority, ulCT, kStart + ulST, kStart + ulET, ulRepeat, 0, 0, pText};
        TxPCMBCInfoToPlugIn(ulCMD, pInfo);
        ELIMINATEMSGInfo(&pInfo);
        settle();
    }
    // The events since the last call: "started 1", "preempted 1 newer 2", "sent 5 left 1 send"; "filed 1'", a
    // stop or a cancel.
    std::vector<std::string> events() {
        std::vector<std::string> texts;
        PCCASTEvent read[16];
        for (int iRead = 1; iRead > 0;) {
            iRead = READPCCASTEvents(ulSeen, read, 16);
            for (int i = 0; i < iRead; ++i) {
                const PCCASTEvent &event = read[i];
                EXPECT_EQ(event.ulNumber, ulSeen == 0 ? event.ulNumber : ulSeen + 1);
                ulSeen = event.ulNumber;
                const bool bCast = event.pCast != nullptr;
                std::string text = std::string(kKinds[event.uiKind]) + " " +
                                   std::to_string(bCast ? event.pCast->uliEPGID : event.pMessage->uliEPGID);
                text +=
                    (bCast ? event.pCast->ulCMD == CAST_CMD_STOP : event.pMessage->ulCMD == PCMBC_CMD_CANCEL)
                        ? "'"
                        : "";
                text += event.uiReason == 0 ? "" : std::string(" ") + kReasons[event.uiReason];
                if (event.ulOther != 0) {
                    text += " " + std::to_string(event.pOtherCast != nullptr ? event.pOtherCast->uliEPGID
                                                                             : event.pOtherMessage->uliEPGID);
                }
                text +=
                    event.uiKind == PCCAST_EVENT_SENT ? " left " + std::to_string(event.ulRepeatsLeft) : "";
                const PCCASTTraffic &traffic = event.traffic;
                if (traffic.ulDatagrams != 0) {
                    text += " traffic";
                    for (const unsigned long ulWord :
                         {traffic.ulDatagrams, traffic.ulBytes, traffic.ulFailed,
                          traffic.ulDatagramsPerSecond, traffic.ulBytesPerSecond}) {
                        text += " " + std::to_string(ulWord);
                    }
                }
                texts.push_back(text);
            }
            ELIMINATEPCCASTEvents(read, iRead);
        }
        return texts;
    }
    // Every request that lives: "EPGID PLACE".
    static std::string places() {
        PCCASTView *pView = nullptr;
        EXPECT_EQ(MAKEPCCASTView(&pView), 1);
        EXPECT_EQ(MAKEPCCASTView(&pView), -1);
        std::string text;
        for (int i = 0; i < pView->iRequests; ++i) {
            const PCCASTViewRequest &request = pView->pRequests[i];
            const char *const places[] = {"?", "waiting", "pending", "on air", "over"};
            text += (text.empty() ? "" : ", ") +
                    std::to_string(request.pCast != nullptr ? request.pCast->uliEPGID
                                                            : request.pMessage->uliEPGID) +
                    " " + places[request.uiPlace];
        }
        EXPECT_EQ(ELIMINATEPCCASTView(&pView), 1);
        EXPECT_EQ(ELIMINATEPCCASTView(&pView), 0);
        return text;
    }
    unsigned long ulSeen = 0;
};

TEST_F(ViewTest, EveryWayOfACastHasItsEvents) {
    send(relay(1, 100, 0, 60));
    EXPECT_THAT(events(), ElementsAre("filed 1", "started 1", "silent 1"));
    send(relay(3, 99, 0, 70)); // older: waits
    runTo(4);
    ASSERT_TRUE(script::datagram("224.1.1.1:9100", {1, 2, 3}));
    runTo(5);
    send(relay(2, 101, 5, 30));
    EXPECT_EQ(places(), "1 waiting, 3 waiting, 2 on air");
    EXPECT_THAT(events(),
                ElementsAre("filed 3", "heard 1 traffic 1 3 0 0 0", "silent 1 traffic 1 3 0 0 0", "filed 2",
                            "preempted 1 newer 2 traffic 1 3 0 1 3", "started 2", "silent 2"));
    runTo(32);
    EXPECT_EQ(places(), "1 on air, 3 waiting");
    EXPECT_THAT(events(), ElementsAre("ended 2 end", "returned 1", "silent 1"));
    send(relay(4, 300, 40, 50));
    send(stop(relay(4, 300, 40, 50))); // waits: cancelled
    EXPECT_THAT(events(), ElementsAre("filed 4", "filed 4'", "cancelled 4 stop 4", "done 4'"));
    send(stop(relay(9, 300, 0, 50))); // equal to nothing: ends what is on air
    EXPECT_THAT(events(), ElementsAre("filed 9'", "ended 1 stop 9", "done 9'", "started 3", "silent 3"));
    runTo(70);
    EXPECT_EQ(places(), "3 over");
    send(relay(5, 400, 60, 70)); // its time is over
    EXPECT_THAT(events(), ElementsAre("ended 3 end", "filed 5", "expired 5 end"));
    send(stop(relay(6, 500, 0, 90)));
    EXPECT_THAT(events(), ElementsAre("filed 6'", "done 6' nothing"));
    EXPECT_EQ(places(), "");
    CastFields unknown = relay(7, 600, 70, 90);
    unknown.ulType = 9;
    unknown.ulCMD = CAST_CMD_STOP;
    send(unknown);
    script::fail(Step::Create, "rx 224.1.1.1", -1);
    send(relay(8, 700, 70, 90));
    CastFields keyless = relay(10, 701, 70, 90);
    keyless.iEncryption = CAST_ENCRYPTION_SEED;
    send(keyless);
    EXPECT_THAT(events(), ElementsAre("refused 7' incomplete", "filed 8", "failed 8 source", "filed 10",
                                      "failed 10 key"));
    CastFields keyed = relay(11, 702, 70, 90);
    keyed.iEncryption = CAST_ENCRYPTION_SEED;
    keyed.key = {1, 2, 3};
    keyed.iSplit = 1;
    send(keyed);
    send(relay(12, 703, 72, 90)); // taken ahead of its time
    EXPECT_EQ(places(), "11 on air, 12 pending");
    send(stop(relay(12, 703, 72, 90))); // ends the one on air, and takes the pending one back
    runTo(73);
    send(stop(keyed));
    PCCASTEvent filed;
    ASSERT_EQ(READPCCASTEvents(ulSeen, &filed, 1), 1);
    // All that it takes to submit it again, long after the record is gone.
    EXPECT_EQ(shown(*filed.pCast), "1 2 11 702 1000000070 1000000090 224.1.1.1:9100 224.2.2.2:5000 - 2021 0 "
                                   "2/3 1 2 3 split 1");
    ELIMINATEPCCASTEvents(&filed, 1);
    EXPECT_THAT(events(), testing::IsSupersetOf({"cancelled 12 stop 12", "done 12'", "done 11'"}));
    QX_PlugIn_Close();
    PCCASTView *pView = nullptr;
    PCCASTEvent event;
    EXPECT_EQ(MAKEPCCASTView(&pView), 0); // closed
    EXPECT_EQ(READPCCASTEvents(0, &event, 1), 0);
    QX_PlugIn_Open();
}

TEST_F(ViewTest, EveryWayOfAFileHasItsEvents) {
    script::storedFile("/f", {{kStart, {1, 2}}, {kStart + 10, {3}}});
    send(file(1, 100, 0, 20));
    runTo(9);
    EXPECT_EQ(places(), "1 on air");
    runTo(12);
    EXPECT_EQ(places(), "1 over"); // older ones of its list do not start before its end
    EXPECT_THAT(events(), ElementsAre("filed 1", "started 1", "ended 1 file end traffic 2 3 0 0 0"));
    PCCASTEvent last;
    ASSERT_EQ(READPCCASTEvents(ulSeen - 1, &last, 1), 1);
    EXPECT_STREQ(last.pCast->pCASTFile, "/f");
    ELIMINATEPCCASTEvents(&last, 1);
    script::storedFile("/f", {{kStart, {1}}, {kStart + 25, {2}}, {kStart + 500, {3}}});
    send(file(2, 101, 0, 400));
    script::fail(Step::CasterSend, "02", -7);
    runTo(26);
    send(file(3, 102, 0, 400));
    send(relay(4, 1, 0, 400)); // a relay ends a file, which does not return
    EXPECT_EQ(places(), "3 over, 4 on air");
    CastFields missing = file(5, 103, 0, 400);
    missing.pszFile = "/none";
    send(missing); // waits for the relay
    EXPECT_EQ(places(), "3 waiting, 4 on air, 5 pending");
    send(stop(relay(4, 1, 0, 400)));
    runTo(28);
    EXPECT_THAT(events(), ElementsAre("filed 2", "started 2", "failed 2 send traffic 1 1 1 0 0", "filed 3",
                                      "started 3", "filed 4", "preempted 3 newer 4 traffic 2 2 0 0 0",
                                      "started 4", "silent 4", "filed 5", "filed 4'", "ended 4 stop 4",
                                      "done 4'", "started 5", "failed 5 file", "returned 3"));
}

TEST_F(ViewTest, EveryWayOfAMessageHasItsEvents) {
    say(1, 100, "aaaa", 0, 3);
    EXPECT_THAT(events(), ElementsAre("filed 1", "current 1", "sent 1 left 2"));
    say(2, 101, "bbbb", 1, 1);
    runTo(7);
    EXPECT_EQ(places(), "1 on air");
    EXPECT_THAT(events(), ElementsAre("filed 2", "replaced 1 newer 2", "current 2", "sent 2 left 0",
                                      "finished 2 repeats"));
    runTo(14);
    say(1, 100, "x", 0, 1, 500, PCMBC_CMD_CANCEL);
    EXPECT_THAT(events(),
                ElementsAre("current 1", "sent 1 left 1", "filed 1'", "cancelled 1 stop 1", "done 1'"));
    say(3, 102, "cccc", 0, 0, 22);
    say(4, 90, "dddd", 0, 1, 20);
    say(4, 90, "x", 0, 1, 20, PCMBC_CMD_CANCEL); // waits: cancelled
    say(5, 91, "", 0, 1);
    script::fail(Step::Tx, "tx 224.9.9.9:9367", -5);
    runTo(23);
    EXPECT_THAT(events(),
                ElementsAre("filed 3", "filed 4", "filed 4'", "cancelled 4 stop 4", "done 4'",
                            "refused 5 incomplete", "current 3", "sent 3 send left 0", "finished 3 end"));
    say(8, 150, "gggg", 0, 0, 30);
    say(9, 151, "hhhh", 0, 1, 40, PCMBC_CMD_MSG, 32); // taken in the second in which the first one ends
    runTo(30);
    EXPECT_THAT(events(), ElementsAre("filed 8", "current 8", "sent 8 left 0", "filed 9", "finished 8 end",
                                      "current 9", "sent 9 left 0", "finished 9 repeats"));
    // Two that are equally old change places in every pass. That is not told.
    say(6, 200, "eeee", 0, 9);
    say(7, 200, "ffff", 0, 9);
    EXPECT_TRUE(script::settle(200));
    EXPECT_LE(events().size(), 8u);
    EXPECT_EQ(places().find('4'), std::string::npos);
}

// The whole snapshot, with times from kStart.
TEST_F(ViewTest, SnapshotHoldsRequestsThreadsTrafficAndSenders) {
    script::storedFile("/f", {{kStart, {1, 2}}, {kStart + 50, {3}}});
    send(file(1, 100, 0, 60));
    runTo(2);
    send(relay(2, 101, 2, 50));
    ASSERT_TRUE(script::datagram("224.1.1.1:9100", {1, 2, 3}));
    script::fail(Step::Tx, "tx 224.9.9.9:9367", -5);
    say(3, 102, "cccc", 1, 3);
    runTo(4);
    PCCASTView *pView = nullptr;
    ASSERT_EQ(MAKEPCCASTView(&pView), 1);
    const auto moment = [](unsigned long ulTime) {
        return ulTime == 0 ? std::string(" never") : " " + std::to_string(ulTime - kStart);
    };
    EXPECT_THAT(pView->ulPasses, testing::AllOf(testing::Gt(0u), testing::Lt(1ul << 32)));
    std::string text = "at" + moment(pView->ulTime) + " since" + moment(pView->ulSince) + "\n";
    for (int i = 0; i < pView->iRequests; ++i) {
        const PCCASTViewRequest &request = pView->pRequests[i];
        text += std::to_string(request.ulRequest - pView->pRequests[0].ulRequest) + " filed" +
                moment(request.ulFiled) + " started" + moment(request.ulStarted) +
                (request.ulPreemptedBy == 0 ? "" : " preempted") + " left " +
                std::to_string(request.ulRepeatsLeft) + "\n";
        EXPECT_TRUE(request.ulPreemptedBy == 0 || request.ulPreemptedBy == pView->ulRelay);
    }
    for (const PCCASTViewThread &thread : pView->threads) {
        text += std::string(thread.pszName) + " " + std::to_string(thread.iState) + " " +
                std::to_string(thread.iAlive) + "\n";
    }
    for (const PCCASTTraffic &traffic : {pView->relay, pView->playout}) {
        for (const unsigned long ulCount :
             {traffic.ulDatagrams, traffic.ulBytes, traffic.ulFailed, traffic.ulDropped}) {
            text += std::to_string(ulCount) + " ";
        }
        text += "silent" + moment(traffic.ulSilentSince) + " last" + moment(traffic.ulLastArrival) + "\n";
    }
    for (const PCCASTViewSender &sender : {pView->announcements, pView->broadcasts}) {
        text += std::to_string(sender.ulSent) + " " + std::to_string(sender.ulFailed) +
                moment(sender.ulLast) + "\n";
    }
    EXPECT_EQ(text,
              "at 4 since 0\n"
              "0 filed 0 started 0 preempted left 0\n1 filed 2 started 2 left 0\n2 filed 2 started 2 left 2\n"
              "PCCASTPluginMain 1 1\nRxPCMBCInfoEngine 1 1\nPCMBCEngine 1 1\nRxCASTInfoEngine 1 1\n"
              "PCCASTBCIEngine 1 1\nPCCASTBYPASSEngine 1 1\nPCCASTRECASTEngine 0 1\n"
              "1 3 0 0 silent 2 last 2\n1 2 0 0 silent never last never\n1 0 0\n0 1 2\n");
    ELIMINATEPCCASTView(&pView);
}

TEST_F(ViewTest, SnapshotCopiesEachCounterToItsPlace) {
    for (unsigned long ulEngine = 0; ulEngine < VIEW_ENGINES; ++ulEngine) {
        ViewTraffic &of = gViewTraffic[ulEngine];
        unsigned long ulNumber = 100 * ulEngine;
        for (auto *pWord : {&of.ulDatagrams, &of.ulBytes, &of.ulFailed, &of.ulDropped, &of.ulSilence,
                            &of.ulSilentSince, &of.ulLastArrival, &of.ulDatagramsPerSecond,
                            &of.ulBytesPerSecond, &of.ulPositionMs, &of.ulLengthMs, &of.ulLate}) {
            *pWord = ++ulNumber;
        }
    }
    PCCASTView *pView = nullptr;
    ASSERT_EQ(MAKEPCCASTView(&pView), 1);
    const PCCASTTraffic relay{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12},
        playout{101, 102, 103, 104, 105, 106, 107, 108, 109, 110, 111, 112};
    EXPECT_EQ(std::memcmp(&pView->relay, &relay, sizeof relay), 0);
    EXPECT_EQ(std::memcmp(&pView->playout, &playout, sizeof playout), 0);
    ELIMINATEPCCASTView(&pView);
}

TEST_F(ViewTest, RingKeepsTheLastEvents) {
    for (unsigned long ul = 1; ul <= PCCAST_EVENTS_KEPT + 100; ++ul) {
        CASTInfo *pInfo = cast(relay(1, ul, 1000, 2000));
        viewRefused(pInfo, PCCAST_REASON_LOCK);
        ELIMINATECASTInfo(&pInfo);
    }
    PCCASTEvent *pEvents = new PCCASTEvent[size_t{2} * PCCAST_EVENTS_KEPT];
    const int iRead = READPCCASTEvents(0, pEvents, 2 * PCCAST_EVENTS_KEPT);
    EXPECT_EQ(iRead, PCCAST_EVENTS_KEPT);
    EXPECT_EQ(pEvents[iRead - 1].ulNumber, pEvents[0].ulNumber + PCCAST_EVENTS_KEPT - 1);
    EXPECT_EQ(pEvents[iRead - 1].pCast->ulCT, PCCAST_EVENTS_KEPT + 100u);
    ELIMINATEPCCASTEvents(pEvents, iRead);
    delete[] pEvents;
}

} // namespace

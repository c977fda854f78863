// Many messages at once, on real sockets and in real time. None is lost on the way in. The engine stops when
// it is asked to, however many messages wait.
#include "engines.h"
#include "msglistmgr.h"

#include <pccast/commander.h>

#include <vexa_pgl.h>

#include <gtest/gtest.h>

#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// The block and the two lists of a message thread.
class VolumeTest : public testing::Test {
protected:
    VolumeTest() {
        CREATEMSGList(&priority);
        CREATEMSGList(&normal);
        block.eState = ENGINE_STOPPED;
        block.pWork = lists;
    }
    ~VolumeTest() override {
        DESTROYMSGList(&priority);
        DESTROYMSGList(&normal);
    }
    template <typename Condition>
    static bool within(std::chrono::seconds bound, Condition condition) {
        const Clock::time_point end = Clock::now() + bound;
        while (!condition() && Clock::now() < end) {
            std::this_thread::sleep_for(5ms);
        }
        return condition();
    }
    static MSGInfo *message(const std::string &text, unsigned long ulCT) {
        MSGInfo *pInfo = nullptr;
        MAKEMSGInfo(&pInfo, text.c_str());
        pInfo->ulCMD = PCMBC_CMD_MSG;
        pInfo->ulCT = ulCT;
        pInfo->ulST = vexa_time(nullptr) + 3600;
        pInfo->ulET = pInfo->ulST + 3600;
        return pInfo;
    }
    MSGList priority{}, normal{};
    MSGList *lists[2] = {&priority, &normal};
    KTPLUGIN_INFO_TAG block{};
};

TEST_F(VolumeTest, RequestsOfManySendersAreAllFiledInTheirOrder) {
    constexpr int kSenders = 8, kEach = 125;
    std::thread receiver(RxPCMBCInfoEngine, &block);
    ASSERT_TRUE(within(5s, [] { return access(PCCAST_MESSAGE_SOCKET, F_OK) == 0; }));
    std::vector<std::thread> senders;
    senders.reserve(kSenders);
    std::atomic<int> iRefused{0};
    for (int iSender = 0; iSender < kSenders; ++iSender) {
        senders.emplace_back([iSender, &iRefused] {
            for (int i = 0; i < kEach; ++i) {
                // All have the same age, so the list keeps the order in which they are filed.
                MSGInfo *pInfo = message(std::to_string(1000 + i), 100);
                pInfo->uliEPGID = static_cast<unsigned long>(iSender);
                iRefused += TxPCMBCInfoToPlugIn(PCMBC_CMD_MSG, pInfo) != 1;
                ELIMINATEMSGInfo(&pInfo);
            }
        });
    }
    for (std::thread &sender : senders) {
        sender.join();
    }
    EXPECT_EQ(iRefused, 0);
    EXPECT_TRUE(within(30s, [this] { return normal.pList->iCount == kSenders * kEach; }));
    engineRequestStop(&block);
    receiver.join();
    std::vector<std::string> last(kSenders);
    for (const KTLIST_NODE *pNode = normal.pList->pHead; pNode != nullptr; pNode = pNode->pNext) {
        const auto *pInfo = static_cast<const MSGInfo *>(pNode->pData);
        EXPECT_LT(last.at(pInfo->uliEPGID), pInfo->pMSGSTR);
        last[pInfo->uliEPGID] = pInfo->pMSGSTR;
    }
    EXPECT_EQ(last, std::vector<std::string>(kSenders, std::to_string(1000 + kEach - 1)));
}

TEST_F(VolumeTest, EngineWithManyWaitingMessagesStopsInTime) {
    // The older half has expired. The engine drops it in one go, behind the half that waits.
    for (unsigned long ul = 0; ul < 100'000; ++ul) { // without the lock, whose pauses take too long
        MSGInfo *pInfo = message("waits", ul);
        pInfo->ulET = ul < 50'000 ? 1 : pInfo->ulET;
        ASSERT_GT(KTLISTpInsertHead(normal.pList, pInfo, 100), 0);
    }
    std::thread engine(PCMBCEngine, &block);
    ASSERT_TRUE(within(5s, [this] { return block.eState == ENGINE_RUNNING; }));
    ASSERT_TRUE(within(5s, [this] { return normal.pList->iCount < 100'000; })); // it is dropping them
    const Clock::time_point asked = Clock::now();
    engineRequestStop(&block);
    engine.join();
    const std::chrono::duration<double> spent = Clock::now() - asked;
    EXPECT_LT(spent.count(), 3.0);
    EXPECT_EQ(normal.pList->iCount, 50'000);
    std::printf("stopped after %.3f s\n", spent.count());
}

} // namespace

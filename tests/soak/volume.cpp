// Many messages at once, on real sockets and in real time. None is lost on the way in.
#include "engines.h"
#include "msglistmgr.h"

#include <pccast/commander.h>

#include <vexa_pgl.h>

#include <gtest/gtest.h>

#include <unistd.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

template <typename Condition>
bool within(std::chrono::seconds bound, Condition condition) {
    const Clock::time_point end = Clock::now() + bound;
    while (!condition() && Clock::now() < end) {
        std::this_thread::sleep_for(5ms);
    }
    return condition();
}

TEST(VolumeTest, RequestsOfManySendersAreAllFiledInTheirOrder) {
    constexpr int kSenders = 8, kEach = 125;
    MSGList priority{}, normal{};
    MSGList *lists[2] = {&priority, &normal};
    CREATEMSGList(&priority);
    CREATEMSGList(&normal);
    KTPLUGIN_INFO_TAG block{};
    block.eState = ENGINE_STOPPED;
    block.pWork = lists;
    std::thread receiver(RxPCMBCInfoEngine, &block);
    ASSERT_TRUE(within(5s, [] { return access(PCCAST_MESSAGE_SOCKET, F_OK) == 0; }));
    std::vector<std::thread> senders;
    senders.reserve(kSenders);
    std::atomic<int> iRefused{0};
    for (int iSender = 0; iSender < kSenders; ++iSender) {
        senders.emplace_back([iSender, &iRefused] {
            for (int i = 0; i < kEach; ++i) {
                // All have the same age, so the list keeps the order in which they are filed.
                MSGInfo *pInfo = nullptr;
                MAKEMSGInfo(&pInfo, std::to_string(1000 + i).c_str());
                pInfo->ulCMD = PCMBC_CMD_MSG;
                pInfo->uliEPGID = static_cast<unsigned long>(iSender);
                pInfo->ulCT = 100;
                pInfo->ulST = vexa_time(nullptr) + 3600;
                pInfo->ulET = pInfo->ulST + 3600;
                iRefused += TxPCMBCInfoToPlugIn(PCMBC_CMD_MSG, pInfo) != 1;
                ELIMINATEMSGInfo(&pInfo);
            }
        });
    }
    for (std::thread &sender : senders) {
        sender.join();
    }
    EXPECT_EQ(iRefused, 0);
    EXPECT_TRUE(within(30s, [&] { return normal.pList->iCount == kSenders * kEach; }));
    engineRequestStop(&block);
    receiver.join();
    std::vector<std::string> last(kSenders);
    for (const KTLIST_NODE *pNode = normal.pList->pHead; pNode != nullptr; pNode = pNode->pNext) {
        const auto *pInfo = static_cast<const MSGInfo *>(pNode->pData);
        EXPECT_LT(last.at(pInfo->uliEPGID), pInfo->pMSGSTR);
        last[pInfo->uliEPGID] = pInfo->pMSGSTR;
    }
    EXPECT_EQ(last, std::vector<std::string>(kSenders, std::to_string(1000 + kEach - 1)));
    DESTROYMSGList(&priority);
    DESTROYMSGList(&normal);
}

} // namespace

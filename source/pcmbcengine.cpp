// The message broadcast engine: keeps one PC message on air, repeats it with a pause that grows with its
// text, and changes it for a newer, a prioritised or a cancelling one. Runs on a thread of its own; owns the
// current message and the multicast endpoint, shares the two lists with the message receiver.

#include "engines.h"
#include "itemtable.h"
#include "ktnet.h"
#include "ktpacket.h"
#include "msglistmgr.h"
#include "wire.h"

#include <vexa_pgl.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

constexpr const char *kModule = "pcmbcengine";
constexpr unsigned long kHorizon = 2;   // seconds by which a message is taken ahead of its start time
constexpr unsigned long kPause = 7;     // seconds between two broadcasts of a message
constexpr double kPausePerByte = 0.2;   // and what each byte of its text adds
constexpr unsigned short kShowings = 1; // how often a receiver shows a packet: the engine itself repeats

// One packet. Its text stays the message's.
struct BroadcastPacket {
    unsigned long ulSendTime;
    unsigned long ulST;
    unsigned long ulET;
    unsigned short usShowings;
    unsigned long ulAttr3;
    unsigned long ulAttr1;
    char *pText;
};

namespace tag = wire::message;

// The items of a packet, in the order in which they are sent.
constexpr ItemRow<BroadcastPacket> kItems[] = {
    {wire::broadcast::kSendTime, &BroadcastPacket::ulSendTime},
    {tag::kStartTime, &BroadcastPacket::ulST},
    {tag::kEndTime, &BroadcastPacket::ulET},
    {tag::kRepeat, &BroadcastPacket::usShowings},
    {tag::kAttribute3, &BroadcastPacket::ulAttr3},
    {tag::kAttribute1, &BroadcastPacket::ulAttr1},
    {tag::kText, &BroadcastPacket::pText},
};

// What the thread keeps across passes.
struct Broadcast {
    MSGList *pPriority;
    MSGList *pNormal;
    MSGInfo *pCurrent; // owned; null: none on air
    unsigned long ulNextSend;
    // Of the last opening or sending. Negative: the endpoint is opened before the next use. 0: no more is
    // sent.
    int iNetResult;
    KTNET_ENDPOINT *pEndpoint;
    unsigned long ulNow; // the time last read
};

unsigned long readClock(Broadcast *pState) {
    return pState->ulNow = vexa_time(nullptr);
}

void releaseCurrent(Broadcast *pState) {
    if (pState->pCurrent != nullptr) {
        ELIMINATEMSGInfo(&pState->pCurrent);
    }
}

// Files the current message back; one that the list does not take is lost. There is no current message then.
void fileCurrent(Broadcast *pState, MSGList *pList) {
    if (INSERTMSGInfo(pList, pState->pCurrent) > 0) {
        pState->pCurrent = nullptr; // the list's
    }
    releaseCurrent(pState);
}

bool isCancel(const MSGInfo *pInfo) {
    return pInfo->ulCMD == PCMBC_CMD_CANCEL;
}

bool hasNodes(const MSGList *pList) {
    return pList->pList != nullptr && pList->pList->iCount > 0;
}

void expireCurrent(Broadcast *pState) {
    if (pState->pCurrent != nullptr && pState->pCurrent->ulET <= readClock(pState)) {
        releaseCurrent(pState);
        pState->ulNextSend = pState->ulNow; // the next message may go out at once
    }
}

// Takes the next message of the priority list. Returns the one that is to become current, null for none.
MSGInfo *takePriority(Broadcast *pState) {
    if (!hasNodes(pState->pPriority)) {
        return nullptr;
    }
    readClock(pState);
    const bool bPrioritised = pState->pCurrent != nullptr && pState->pCurrent->ulPriority != 0;
    MSGInfo *pTaken = nullptr;
    if (PATCHaMSGNode(pState->pPriority, bPrioritised ? pState->pCurrent->ulCT : 0, pState->ulNow + kHorizon,
                      &pTaken) < 1) {
        return nullptr;
    }
    if (isCancel(pTaken)) {
        // It concerns the prioritised message on air or nobody.
        if (bPrioritised && COMPAREMSGInfo(pTaken, pState->pCurrent, 0) == 0) {
            releaseCurrent(pState);
        }
        ELIMINATEMSGInfo(&pTaken);
        return nullptr;
    }
    if (bPrioritised && pState->pCurrent->ulET > pState->ulNow) {
        fileCurrent(pState, pState->pPriority);
    } else if (pState->pCurrent != nullptr) {
        fileCurrent(pState, pState->pNormal);
    }
    return pTaken;
}

// Takes the next message of the normal list, unless a prioritised one is on air. Returns the one that is to
// become current, null for none.
MSGInfo *takeNormal(Broadcast *pState) {
    if (pState->pCurrent != nullptr && pState->pCurrent->ulPriority != 0) {
        return nullptr;
    }
    readClock(pState);
    if (!hasNodes(pState->pNormal)) {
        return nullptr;
    }
    MSGInfo *pTaken = nullptr;
    const unsigned long ulOnAirCT = pState->pCurrent != nullptr ? pState->pCurrent->ulCT : 0;
    if (PATCHaMSGNode(pState->pNormal, ulOnAirCT, pState->ulNow + kHorizon, &pTaken) < 1) {
        return nullptr;
    }
    if (isCancel(pTaken)) {
        if (COMPAREMSGInfo(pTaken, pState->pCurrent, 0) == 0) {
            releaseCurrent(pState);
        }
        ELIMINATEMSGInfo(&pTaken);
        return nullptr;
    }
    if (pState->pCurrent != nullptr && pState->pCurrent->ulET > pState->ulNow) {
        fileCurrent(pState, pState->pNormal);
    }
    releaseCurrent(pState);
    return pTaken;
}

// Sets the endpoint up when its last result was negative. Returns whether it can be used.
bool isEndpointUsable(Broadcast *pState) {
    if (pState->iNetResult < 0) {
        KTNETClose(&pState->pEndpoint);
        pState->iNetResult =
            KTNETOpenSender(&pState->pEndpoint, KTNET_BROADCAST, nullptr, 0, nullptr, nullptr);
        if (pState->iNetResult <= 0) {
            KTNETClose(&pState->pEndpoint);
        }
    }
    return pState->iNetResult > 0;
}

// Lays the packet's items out. Returns their length; 0 (and null) when memory runs out.
unsigned long buildPayload(const MSGInfo *pInfo, unsigned long ulSendTime, unsigned char **ppPayload) {
    const BroadcastPacket fields{ulSendTime,     pInfo->ulST,    pInfo->ulET,   kShowings,
                                 pInfo->ulAttr3, pInfo->ulAttr1, pInfo->pMSGSTR};
    KTPacket packet;
    KTPacketInit(&packet);
    const int iLength = itemAppendAll(&packet, kItems, fields) ? KTPacketBuild(&packet, ppPayload) : 0;
    KTPacketCleanUp(&packet);
    return static_cast<unsigned long>(iLength);
}

void sendBroadcast(Broadcast *pState) {
    const unsigned long ulSendTime = readClock(pState);
    unsigned char *pPayload = nullptr;
    KTNET_PACKET packet{};
    packet.uiIdent = wire::broadcast::kIdent;
    packet.uiService = wire::broadcast::kService;
    packet.uiCommand = static_cast<unsigned int>(PCMBC_CMD_MSG);
    packet.uiParam = static_cast<unsigned int>(ulSendTime);
    packet.ulPayloadLen = packet.ulPayloadSize = buildPayload(pState->pCurrent, ulSendTime, &pPayload);
    packet.pPayload = pPayload;
    if (pPayload == nullptr) {
        std::fprintf(stderr, "pcmbc msg xmit fail\n"); // no memory; the endpoint is as good as before
        return;
    }
    pState->iNetResult = ktn_xapi_ktnet_tx_data(pState->pEndpoint, &packet);
    if (pState->iNetResult <= 0) {
        std::fprintf(stderr, "pcmbc msg xmit fail\n");
    }
    std::free(pPayload);
    if (pState->iNetResult < 0) {
        KTNETClose(&pState->pEndpoint);
    }
}

// Counts an attempt, whether or not anything was sent, and sets the pause that follows it. A text that no
// datagram can carry asks for no time to be read: it must not keep the others off the air for hours.
void countAttempt(Broadcast *pState) {
    MSGInfo *pCurrent = pState->pCurrent;
    size_t ulText = std::strlen(pCurrent->pMSGSTR);
    if (ulText > PCMBC_TEXT_MAX) {
        std::printf(
            "[%s:%d] \e[2;31m message of EPG id %lu: %zu bytes of text do not fit a datagram, not sent "
            "\e[1;41m[ERROR]\e[0m\n",
            kModule, __LINE__, pCurrent->uliEPGID, ulText);
        ulText = 0;
    }
    --pCurrent->ulRepeat; // 0 wraps: such a message is repeated until its end time
    const double dPause = kPausePerByte * static_cast<double>(ulText);
    pState->ulNextSend = static_cast<unsigned long>(static_cast<double>(pState->ulNow + kPause) + dPause);
    if (pCurrent->ulRepeat == 0) {
        releaseCurrent(pState);
    }
}

// Broadcasts the current message when its pause is over.
void broadcastCurrent(Broadcast *pState) {
    if (pState->pCurrent == nullptr) {
        return;
    }
    readClock(pState);
    if (pState->pCurrent->ulET <= pState->ulNow || pState->ulNextSend > pState->ulNow) {
        return;
    }
    if (isEndpointUsable(pState)) {
        sendBroadcast(pState);
    }
    countAttempt(pState);
}

void pass(Broadcast *pState) {
    expireCurrent(pState);
    MSGInfo *pTaken = takePriority(pState);
    if (pTaken == nullptr) {
        pTaken = takeNormal(pState);
    }
    if (pTaken != nullptr) {
        pState->pCurrent = pTaken;
    }
    broadcastCurrent(pState);
}

} // namespace

int PCMBCEngine(KTPLUGIN_INFO_TAG *pBlock) {
    auto *const *ppLists = pBlock == nullptr ? nullptr : static_cast<MSGList *const *>(pBlock->pWork.load());
    if (ppLists == nullptr || ppLists[0] == nullptr || ppLists[1] == nullptr) {
        std::printf("%s(): Invalid Parameter Set\n", "PCMBCEngine");
        return 0;
    }
    ++pBlock->iThreadCount;
    pBlock->eState = ENGINE_RUNNING;
    Broadcast state{ppLists[0], ppLists[1], nullptr, 0, -1, nullptr, 0};
    while (pBlock->eState <= ENGINE_FINISH) {
        pass(&state);
        vexa_load_balance();
    }
    releaseCurrent(&state);
    KTNETClose(&state.pEndpoint);
    --pBlock->iThreadCount;
    pBlock->eState = ENGINE_STOPPED;
    return 0;
}

// The message broadcast engine: keeps one PC message on air and repeats it. The pause grows with the text. A
// newer message or one with priority takes its place, and a cancel request ends it. Runs on a thread of its
// own. Owns the current message and the multicast endpoint. Shares the two lists with the message receiver.

#include "engines.h"
#include "itemtable.h"
#include "ktnet.h"
#include "ktpacket.h"
#include "msglistmgr.h"
#include "view.h"
#include "wire.h"

#include <vexa_pgl.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

constexpr const char *kModule = "pcmbcengine";
constexpr unsigned long kHorizon = 2;   // a message is taken so many seconds before its start
constexpr unsigned long kPause = 7;     // seconds between two broadcasts of a message
constexpr double kPausePerByte = 0.2;   // seconds that each byte of the text adds
constexpr unsigned short kShowings = 1; // a receiver shows each packet once: the engine repeats it

// The fields of one packet. The message still owns the text.
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

// The items of a packet, in the order of sending.
constexpr ItemRow<BroadcastPacket> kItems[] = {
    {wire::broadcast::kSendTime, &BroadcastPacket::ulSendTime},
    {tag::kStartTime, &BroadcastPacket::ulST},
    {tag::kEndTime, &BroadcastPacket::ulET},
    {tag::kRepeat, &BroadcastPacket::usShowings},
    {tag::kAttribute3, &BroadcastPacket::ulAttr3},
    {tag::kAttribute1, &BroadcastPacket::ulAttr1},
    {tag::kText, &BroadcastPacket::pText},
};

// The thread keeps this from pass to pass.
struct Broadcast {
    MSGList *pPriority;
    MSGList *pNormal;
    MSGInfo *pCurrent; // the message on air, owned; null for none
    unsigned long ulNextSend;
    unsigned long ulPause; // seconds of the pause before ulNextSend
    // The result of the last opening or sending. Negative: open the endpoint before the next use. 0: send
    // nothing any more.
    int iNetResult;
    KTNET_ENDPOINT *pEndpoint;
    unsigned long ulNow; // the time that readClock read last
};

unsigned long readClock(Broadcast *pState) {
    return pState->ulNow = vexa_time(nullptr);
}

void releaseCurrent(Broadcast *pState) {
    if (pState->pCurrent != nullptr) {
        ELIMINATEMSGInfo(&pState->pCurrent);
    }
}

// Puts the current message back into the list. If the list does not take it, it is lost. In any case there is
// no current message then.
void fileCurrent(Broadcast *pState, MSGList *pList, const MSGInfo *pFor) {
    viewReplaced(pState->pCurrent, pFor);
    if (INSERTMSGInfo(pList, pState->pCurrent) > 0) {
        pState->pCurrent = nullptr; // the list owns it now
    } else {
        viewDropped(pState->pCurrent, PCCAST_REASON_LOCK);
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
        viewFinished(pState->pCurrent, PCCAST_REASON_END_TIME);
        releaseCurrent(pState);
        pState->ulNextSend = pState->ulNow; // the next message may go out at once
    }
}

// Takes the next message of the priority list and makes room for it. Returns the message that becomes
// current; null for none.
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
        // A cancel request of this list can only end a message on air that has priority.
        if (bPrioritised && COMPAREMSGInfo(pTaken, pState->pCurrent, 0) == 0) {
            viewCancelled(pState->pCurrent, pTaken);
            releaseCurrent(pState);
        }
        viewDone(pTaken);
        ELIMINATEMSGInfo(&pTaken);
        return nullptr;
    }
    if (bPrioritised && pState->pCurrent->ulET > pState->ulNow) {
        fileCurrent(pState, pState->pPriority, pTaken);
    } else if (pState->pCurrent != nullptr) {
        fileCurrent(pState, pState->pNormal, pTaken);
    }
    return pTaken;
}

// Takes the next message of the normal list and makes room for it. Takes none while a message with priority
// is on air. Returns the message that becomes current; null for none.
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
            viewCancelled(pState->pCurrent, pTaken);
            releaseCurrent(pState);
        }
        viewDone(pTaken);
        ELIMINATEMSGInfo(&pTaken);
        return nullptr;
    }
    if (pState->pCurrent != nullptr && pState->pCurrent->ulET > pState->ulNow) {
        fileCurrent(pState, pState->pNormal, pTaken);
    } else if (pState->pCurrent != nullptr) {
        viewFinished(pState->pCurrent, PCCAST_REASON_END_TIME);
        releaseCurrent(pState);
    }
    return pTaken;
}

// Opens the endpoint if its last result was negative. Returns whether it can be used.
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

// Builds the payload in a new buffer. The caller releases it with free. Returns its length; 0 if memory runs
// out, and *ppPayload stays null.
unsigned long buildPayload(const MSGInfo *pInfo, unsigned long ulSendTime, unsigned char **ppPayload) {
    const BroadcastPacket fields{ulSendTime,     pInfo->ulST,    pInfo->ulET,   kShowings,
                                 pInfo->ulAttr3, pInfo->ulAttr1, pInfo->pMSGSTR};
    KTPacket packet;
    KTPacketInit(&packet);
    const int iLength = itemAppendAll(&packet, kItems, fields) ? KTPacketBuild(&packet, ppPayload) : 0;
    KTPacketCleanUp(&packet);
    return static_cast<unsigned long>(iLength);
}

bool sendBroadcast(Broadcast *pState) {
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
        std::fprintf(stderr, "pcmbc msg xmit fail\n"); // no memory: the endpoint is still good
        return false;
    }
    pState->iNetResult = ktn_xapi_ktnet_tx_data(pState->pEndpoint, &packet);
    if (pState->iNetResult <= 0) {
        std::fprintf(stderr, "pcmbc msg xmit fail\n");
    }
    std::free(pPayload);
    if (pState->iNetResult < 0) {
        KTNETClose(&pState->pEndpoint);
    }
    return pState->iNetResult > 0;
}

// Seconds from one broadcast of a text to the next.
double pauseAfter(size_t ulText) {
    return static_cast<double>(kPause) + kPausePerByte * static_cast<double>(ulText);
}

// Counts an attempt, whether or not anything was sent, and sets the pause that follows it. A text that no
// datagram can carry is not sent, and its pause is as long as that of any text of its length.
void countAttempt(Broadcast *pState, bool bSent) {
    MSGInfo *pCurrent = pState->pCurrent;
    const size_t ulText = std::strlen(pCurrent->pMSGSTR);
    if (ulText > PCMBC_TEXT_MAX) {
        std::printf(
            "[%s:%d] \e[2;31m message of EPG id %lu: %zu bytes of text do not fit a datagram, not sent "
            "\e[1;41m[ERROR]\e[0m\n",
            kModule, __LINE__, pCurrent->uliEPGID, ulText);
    }
    --pCurrent->ulRepeat; // 0 wraps around: such a message is repeated until its end time
    pState->ulPause = static_cast<unsigned long>(pauseAfter(ulText));
    pState->ulNextSend = pState->ulNow + pState->ulPause;
    viewSent(pCurrent, bSent);
    if (pCurrent->ulRepeat == 0) {
        viewFinished(pCurrent, PCCAST_REASON_REPEATS);
        releaseCurrent(pState);
    }
}

// Broadcasts the current message when its pause is over.
void broadcastCurrent(Broadcast *pState) {
    if (pState->pCurrent == nullptr) {
        return;
    }
    readClock(pState);
    // If the clock has been set back, the pause must not become longer than it should be.
    if (pState->ulNextSend > pState->ulNow + pState->ulPause) {
        pState->ulNextSend = pState->ulNow + pState->ulPause;
    }
    if (pState->pCurrent->ulET <= pState->ulNow || pState->ulNextSend > pState->ulNow) {
        return;
    }
    const bool bSent = isEndpointUsable(pState) && sendBroadcast(pState);
    viewCount(gViewBroadcasts, bSent, pState->ulNow);
    countAttempt(pState, bSent);
}

// One pass: drops an expired message, takes a new one, sends the current one if it is due.
void pass(Broadcast *pState) {
    expireCurrent(pState);
    MSGInfo *pTaken = takePriority(pState);
    if (pTaken == nullptr) {
        pTaken = takeNormal(pState);
    }
    if (pTaken != nullptr) {
        pState->pCurrent = pTaken;
        viewCurrent(pTaken);
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
    Broadcast state{};
    state.pPriority = ppLists[0];
    state.pNormal = ppLists[1];
    state.iNetResult = -1;
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

// The PC message request on its way into the plug-in: the commander and its sender, on the caller's thread,
// and the receiver thread that files what arrives. One connection carries one request.

#include <pccast/commander.h>
#include <pccast/plugin.h>

#include "engines.h"
#include "itemtable.h"
#include "ktnet.h"
#include "ktpacket.h"
#include "msglistmgr.h"
#include "pccastmain.h"
#include "requestsender.h"
#include "serviceswitch.h"
#include "wire.h"

#include <vexa_pgl.h>

#include <cstdio>
#include <cstdlib>

namespace {

constexpr int kConnected = 1; // the least result of connecting that counts as connected

namespace tag = wire::message;

// The items of a request, in the order in which they are sent.
constexpr ItemRow<MSGInfo> kItems[] = {
    {tag::kCreationTime, &MSGInfo::ulCT},     {tag::kPriority, &MSGInfo::ulPriority},
    {tag::kStartTime, &MSGInfo::ulST},        {tag::kEndTime, &MSGInfo::ulET},
    {tag::kAttribute1, &MSGInfo::ulAttr1},    {tag::kAttribute3, &MSGInfo::ulAttr3},
    {tag::kRepeat, &MSGInfo::ulRepeat, 2, 1}, {tag::kText, &MSGInfo::pMSGSTR},
};

// Lays the request out in a buffer of its own. Returns its length; 0 (and null) when memory runs out.
unsigned long buildRequest(const MSGInfo *pInfo, unsigned char **ppPayload) {
    KTPacket packet;
    KTPacketInit(&packet);
    const int iLength = itemAppendAll(&packet, kItems, *pInfo) ? KTPacketBuild(&packet, ppPayload) : 0;
    KTPacketCleanUp(&packet);
    return static_cast<unsigned long>(iLength);
}

bool isCommand(unsigned long ulCMD) {
    return ulCMD == PCMBC_CMD_MSG || ulCMD == PCMBC_CMD_CANCEL;
}

} // namespace

int QX_PCCASTMBCCommander(unsigned long ulCMD, MSGInfo *pInfo) {
    if (pInfo == nullptr || pInfo->pMSGSTR == nullptr || !isCommand(ulCMD)) {
        return 0;
    }
    TxPCMBCInfoToPlugIn(ulCMD, pInfo);
    return 1;
}

int TxPCMBCInfoToPlugIn(unsigned long ulCMD, const MSGInfo *pInfo) {
    if (verifyINBTService(PCCAST_MESSAGE_SERVICE) <= 0 || pInfo == nullptr) {
        return -1;
    }
    unsigned char *pPayload = nullptr;
    KTNET_PACKET packet{};
    packet.uiIdent = wire::messagerequest::kIdent;
    packet.uiService = wire::messagerequest::kService;
    packet.uiCommand = static_cast<unsigned int>(ulCMD);
    packet.uiParam = static_cast<unsigned int>(pInfo->uliEPGID);
    if (isCommand(ulCMD)) {
        packet.ulPayloadLen = packet.ulPayloadSize = buildRequest(pInfo, &pPayload);
        packet.pPayload = pPayload;
    }
    return sendRequest(KTNET_MESSAGE_SENDER, kConnected, &packet);
}

// ---- the receiver thread

namespace {

void decodeRequest(const KTNET_PACKET &packet, MSGInfo *pWorking) {
    std::free(pWorking->pMSGSTR);
    pWorking->pMSGSTR = nullptr;
    pWorking->ulCMD = packet.uiCommand;
    pWorking->uliEPGID = packet.uiParam;
    pWorking->ulPriority = 0;
    unsigned long ulOffset = 0;
    KTPacketItem item;
    while (ktpacketNextItem(packet.pPayload, packet.ulPayloadLen, &ulOffset, &item)) {
        itemStoreByTag(kItems, item, pWorking);
    }
}

void handleRequest(MSGList *const *ppLists, const KTNET_PACKET &packet, MSGInfo *pWorking) {
    // One whose items do not add up is refused whole, before it has touched the working record.
    if (!ktpacketAddsUp(packet.pPayload, packet.ulPayloadLen)) {
        std::printf(
            "[%s:%d] \e[2;31m message request of %lu bytes does not add up, dropped \e[1;41m[ERROR]\e[0m\n",
            kModule, __LINE__, packet.ulPayloadLen);
        return;
    }
    decodeRequest(packet, pWorking);
    if (pWorking->pMSGSTR == nullptr) {
        std::printf("%s(iEPGID[%lu](0x0%8lX)): NULL PCMessage Received\n", "RxPCMBCInfoEngine",
                    pWorking->uliEPGID, pWorking->uliEPGID);
        return;
    }
    MSGInfo *pCopy = nullptr;
    if (COPYaMSGInfo(pWorking, &pCopy) == 1 &&
        INSERTMSGInfo(ppLists[pCopy->ulPriority == 1 ? 0 : 1], pCopy) < 1) {
        ELIMINATEMSGInfo(&pCopy);
    }
}

void serveConnection(KTNET_ENDPOINT *pServer, MSGList *const *ppLists, MSGInfo *pWorking) {
    KTNET_ENDPOINT *pConnection = nullptr;
    pServer->uiError = 0;
    if (ktn_xapi_ktnet_accept(pServer, &pConnection) > 0 && pConnection != nullptr) {
        KTNET_PACKET packet{};
        packet.uiIdent = wire::messagerequest::kReceiveIdent;
        if (ktn_xapi_ktnet_rx_data(pConnection, &packet) > 0) {
            handleRequest(ppLists, packet, pWorking);
        }
        if (packet.pPayload != nullptr) {
            ktn_xapi_free(packet.pPayload);
        }
    }
    if (pConnection == nullptr) {
        vexa_load_balance(); // what could not be accepted stays pending, and the next poll returns at once
    }
    KTNETClose(&pConnection);
    pServer->uiError = 0;
}

} // namespace

int RxPCMBCInfoEngine(KTPLUGIN_INFO_TAG *pBlock) {
    auto *const *ppLists = pBlock == nullptr ? nullptr : static_cast<MSGList *const *>(pBlock->pWork.load());
    if (ppLists == nullptr || ppLists[0] == nullptr || ppLists[1] == nullptr) {
        if (pBlock != nullptr) {
            pBlock->eState = ENGINE_STOPPED;
        }
        std::printf("[%s()%s] (): INVALID Parameter Set\n", QX_PlugIn_Name(), "RxPCMBCInfoEngine");
        return 0;
    }
    ++pBlock->iThreadCount;
    pBlock->eState = ENGINE_RUNNING;

    // The times, attributes and repeats that a request lacks keep the values of an earlier one; before the
    // first they are 0.
    MSGInfo working{};
    while (pBlock->eState <= ENGINE_FINISH) {
        KTNET_ENDPOINT *pServer = nullptr;
        int iResult = KTNETOpenServer(&pServer, KTNET_MESSAGE_RECEIVER, nullptr);
        while (pServer != nullptr && iResult >= 0 && pBlock->eState <= ENGINE_FINISH) {
            iResult = ktn_xapi_rx_poll_socket(pServer->iSocket, pServer->uiTimeoutMs);
            if (iResult > 0) {
                serveConnection(pServer, ppLists, &working);
            }
        }
        KTNETClose(&pServer);
        for (int i = 0; i < 3; ++i) {
            vexa_load_balance();
        }
    }
    std::free(working.pMSGSTR);
    --pBlock->iThreadCount;
    pBlock->eState = ENGINE_STOPPED;
    return 0;
}

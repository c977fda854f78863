// The PC message request on its way into the plug-in: the commander and its sender, on the caller's thread,
// and the receiver thread that files what arrives. One connection carries one request.

#include <pccast/commander.h>
#include <pccast/plugin.h>

#include "engines.h"
#include "ktnet.h"
#include "ktpacket.h"
#include "msglistmgr.h"
#include "pccastmain.h"
#include "requestdelivery.h"
#include "serviceswitch.h"

#include <vexa_pgl.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

constexpr unsigned int kIdent = 200;
constexpr unsigned int kService = 205;
constexpr unsigned int kReceiveIdent = 205; // the host's library may tell packets apart by it
constexpr int kConnected = 1;               // the least result of connecting that is one
constexpr unsigned short kTextTag = 0x500B;

// The numeric items of a request, in the order in which they are sent; the text follows them.
struct ItemRow {
    unsigned short usTag;
    unsigned long MSGInfo::*pField;
    unsigned long ulBytes;     // on the wire
    unsigned long ulWhenEmpty; // what an item of length 0 means
};
constexpr ItemRow kItems[] = {
    {0x0003, &MSGInfo::ulCT, 4, 0},     {0x000E, &MSGInfo::ulPriority, 4, 0},
    {0x000B, &MSGInfo::ulST, 4, 0},     {0x000C, &MSGInfo::ulET, 4, 0},
    {0x5001, &MSGInfo::ulAttr1, 4, 0},  {0x5003, &MSGInfo::ulAttr3, 4, 0},
    {0x500A, &MSGInfo::ulRepeat, 2, 1},
};

// Lays the request out in a buffer of its own. Returns its length; 0 (and null) when memory runs out.
unsigned long buildRequest(const MSGInfo *pInfo, unsigned char **ppPayload) {
    KTPacket packet;
    KTPacketInit(&packet);
    bool bComplete = true;
    for (const ItemRow &row : kItems) {
        bComplete =
            bComplete && KTPacketInsertItem(&packet, 1, row.usTag, row.ulBytes, &(pInfo->*row.pField)) >= 0;
    }
    const unsigned long ulText = pInfo->pMSGSTR == nullptr ? 0 : std::strlen(pInfo->pMSGSTR);
    bComplete = bComplete && KTPacketInsertItem(&packet, 1, kTextTag, ulText, pInfo->pMSGSTR) >= 0;
    const int iLength = bComplete ? KTPacketBuild(&packet, ppPayload) : 0;
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
    packet.uiIdent = kIdent;
    packet.uiService = kService;
    packet.uiCommand = static_cast<unsigned int>(ulCMD);
    packet.uiParam = static_cast<unsigned int>(pInfo->uliEPGID);
    if (isCommand(ulCMD)) {
        packet.ulPayloadLen = packet.ulPayloadSize = buildRequest(pInfo, &pPayload);
        packet.pPayload = pPayload;
    }
    return requestDeliver(KTNET_MESSAGE_SENDER, kConnected, &packet);
}

// ---- the receiver thread

namespace {

// Replaces the working text by a NUL-terminated copy of the item's bytes; none for an empty item, or when
// memory runs out.
void storeText(MSGInfo *pWorking, const KTPacketItem &item) {
    std::free(pWorking->pMSGSTR);
    pWorking->pMSGSTR = nullptr;
    if (item.ulLength > 0) {
        pWorking->pMSGSTR = static_cast<char *>(std::calloc(item.ulLength + 1, 1));
        if (pWorking->pMSGSTR != nullptr) {
            std::memcpy(pWorking->pMSGSTR, item.pValue, item.ulLength);
        }
    }
}

void storeItem(MSGInfo *pWorking, const KTPacketItem &item) {
    if (item.usTag == kTextTag) {
        storeText(pWorking, item);
        return;
    }
    for (const ItemRow &row : kItems) {
        if (row.usTag == item.usTag) {
            // A value shorter than its field is filled up with zeros.
            unsigned char value[4] = {};
            std::memcpy(value, item.pValue, item.ulLength < row.ulBytes ? item.ulLength : row.ulBytes);
            pWorking->*row.pField = item.ulLength == 0 ? row.ulWhenEmpty : ktpacketGetDWORD(value);
        }
    }
}

void decodeRequest(const KTNET_PACKET &packet, MSGInfo *pWorking) {
    std::free(pWorking->pMSGSTR);
    pWorking->pMSGSTR = nullptr;
    pWorking->ulCMD = packet.uiCommand;
    pWorking->uliEPGID = packet.uiParam;
    pWorking->ulPriority = 0;
    unsigned long ulOffset = 0;
    KTPacketItem item;
    while (ktpacketNextItem(packet.pPayload, packet.ulPayloadLen, &ulOffset, &item)) {
        storeItem(pWorking, item);
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
        packet.uiIdent = kReceiveIdent;
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

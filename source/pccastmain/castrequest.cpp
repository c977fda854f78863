// The cast request on its way into the plug-in: the commander and its sender, on the caller's thread, and the
// receiver thread that files what arrives. One connection carries one request.

#include <pccast/commander.h>

#include "castformat.h"
#include "castlistmgr.h"
#include "engines.h"
#include "itemtable.h"
#include "ktnet.h"
#include "ktpacket.h"
#include "pccastmain.h"
#include "requestsender.h"
#include "serviceswitch.h"
#include "wire.h"

#include <vexa_pgl.h>

#include <cstdio>
#include <cstdlib>
#include <memory>

namespace {

constexpr int kConnected = 0; // the least result of connecting that counts as connected

using Row = ItemRow<CASTInfo>;
namespace tag = wire::castrequest;

// The items of a request, in the order in which they are sent. Every request has the first and the last
// table, and between them the one of its type.
constexpr Row kHeadItems[] = {
    {tag::kCommand, &CASTInfo::ulCMD},         {tag::kEPGID, &CASTInfo::uliEPGID},
    {tag::kCreationTime, &CASTInfo::ulCT},     {tag::kStartTime, &CASTInfo::ulST},
    {tag::kEndTime, &CASTInfo::ulET},          {tag::kType, &CASTInfo::ulCASTType},
    {tag::kFormat, &CASTInfo::ulSTREAMFormat}, {tag::kStreamId, &CASTInfo::ulMSID},
};
constexpr Row kStreamItems[] = {
    {tag::kSource, &CASTInfo::pSRCIP},
    {tag::kSourcePort, &CASTInfo::usSRCPort},
    {tag::kEncryption, &CASTInfo::iEncryptionType},
    {tag::kKey, ItemBlock<CASTInfo>{&CASTInfo::pEncryptionKey, &CASTInfo::iEncryptionKeyLen}},
    {tag::kSplit, &CASTInfo::iASFSplit},
};
constexpr Row kFileItems[] = {
    {tag::kFile, &CASTInfo::pCASTFile},
};
constexpr Row kTailItems[] = {
    {tag::kDestination, &CASTInfo::pDSTIP},
    {tag::kDestinationPort, &CASTInfo::usDSTPort},
};

bool appendItems(KTPacket *pPacket, const CASTInfo &info) {
    return itemAppendAll(pPacket, kHeadItems, info) &&
           (!isStream(info.ulCASTType) || itemAppendAll(pPacket, kStreamItems, info)) &&
           (info.ulCASTType != CAST_TYPE_FILE || itemAppendAll(pPacket, kFileItems, info)) &&
           itemAppendAll(pPacket, kTailItems, info);
}

// Lays the request out in a buffer of its own. Returns its length; 0 (and null) when memory runs out.
unsigned long buildRequest(const CASTInfo *pInfo, unsigned char **ppPayload) {
    KTPacket packet;
    KTPacketInit(&packet);
    const int iLength = appendItems(&packet, *pInfo) ? KTPacketBuild(&packet, ppPayload) : 0;
    KTPacketCleanUp(&packet);
    return static_cast<unsigned long>(iLength);
}

} // namespace

int QX_PCCASTSTREAMCommander(unsigned long ulCMD, CASTInfo *pInfo) {
    if (pInfo == nullptr) {
        return 0;
    }
    pInfo->ulCMD = ulCMD;
    if (VALIDATECASTInfo(pInfo) < 1) {
        std::printf("%s(): INVALID CASTInfo\n", "QX_PCCASTSTREAMCommander");
        return 0;
    }
    if (ulCMD != CAST_CMD_START && ulCMD != CAST_CMD_STOP && ulCMD != CAST_CMD_END) {
        return 0;
    }
    TxCASTInfoToPlugIn(ulCMD, pInfo);
    return 1;
}

int TxCASTInfoToPlugIn(unsigned long ulCMD, const CASTInfo *pInfo) {
    if (verifyINBTService(PCCAST_CAST_SERVICE) <= 0 || pInfo == nullptr) {
        return -1;
    }
    unsigned char *pPayload = nullptr;
    KTNET_PACKET packet{};
    packet.uiIdent = wire::castrequest::kIdent;
    packet.uiService = wire::castrequest::kService;
    packet.uiCommand = static_cast<unsigned int>(ulCMD);
    packet.uiParam = static_cast<unsigned int>(pInfo->ulCASTType);
    packet.ulPayloadLen = packet.ulPayloadSize = buildRequest(pInfo, &pPayload);
    packet.pPayload = pPayload;
    return sendRequest(KTNET_CAST_SENDER, kConnected, &packet);
}

// ---- the receiver thread

namespace {

void decodeRequest(const KTNET_PACKET &packet, CASTInfo *pDecoding) {
    unsigned long ulOffset = 0;
    KTPacketItem item;
    while (ktpacketNextItem(packet.pPayload, packet.ulPayloadLen, &ulOffset, &item)) {
        itemStoreByTag(kHeadItems, item, pDecoding);
        itemStoreByTag(kStreamItems, item, pDecoding);
        itemStoreByTag(kFileItems, item, pDecoding);
        itemStoreByTag(kTailItems, item, pDecoding);
    }
}

// Files a copy of the decoded request in the list of its type; one that cannot be copied or filed is dropped.
void fileRequest(CASTList *const *ppLists, const CASTInfo *pDecoding, unsigned int uiCommand) {
    CASTList *pList = nullptr;
    if (isStream(pDecoding->ulCASTType)) {
        pList = ppLists[0];
    } else if (pDecoding->ulCASTType == CAST_TYPE_FILE) {
        pList = ppLists[1];
    }
    CASTInfo *pCopy = nullptr;
    if (pList == nullptr || COPYaCASTInfo(pDecoding, &pCopy) != 1) {
        return;
    }
    pCopy->ulCMD = uiCommand;
    if (INSERTCASTInfo(pList, pCopy) < 1) {
        std::printf(
            "[%s:%d] \e[2;31m cast request of EPG id %lu cannot be filed, dropped \e[1;41m[ERROR]\e[0m\n",
            kModule, __LINE__, pCopy->uliEPGID);
        ELIMINATECASTInfo(&pCopy);
    }
}

// Takes one connection and the request that it carries. pDecoding keeps, for an item that a request lacks,
// the value of an earlier one.
void serveConnection(KTNET_ENDPOINT *pServer, CASTList *const *ppLists, CASTInfo *pDecoding) {
    KTNET_ENDPOINT *pConnection = nullptr;
    pServer->uiError = 0;
    if (ktn_xapi_ktnet_accept(pServer, &pConnection) > 0 && pConnection != nullptr) {
        KTNET_PACKET packet{};
        packet.uiIdent = wire::castrequest::kIdent;
        if (ktn_xapi_ktnet_rx_data(pConnection, &packet) > 0) {
            // One whose items do not add up is refused whole, before it has touched the decoding record.
            if (ktpacketAddsUp(packet.pPayload, packet.ulPayloadLen)) {
                decodeRequest(packet, pDecoding);
                fileRequest(ppLists, pDecoding, packet.uiCommand);
            } else {
                std::printf("[%s:%d] \e[2;31m cast request of %lu bytes does not add up, dropped "
                            "\e[1;41m[ERROR]\e[0m\n",
                            kModule, __LINE__, packet.ulPayloadLen);
            }
        }
        if (packet.pPayload != nullptr) {
            ktn_xapi_free(packet.pPayload);
        }
    }
    KTNETClose(&pConnection);
    pServer->uiError = 0;
}

// Serves the socket until it fails or the thread is asked to stop. iResult: that of opening the server.
void serve(const KTPLUGIN_INFO_TAG *pBlock, KTNET_ENDPOINT *pServer, int iResult, CASTList *const *ppLists,
           CASTInfo *pDecoding) {
    while (iResult >= 0 && pBlock->eState <= ENGINE_FINISH) {
        iResult = ktn_xapi_rx_poll_socket(pServer->iSocket, pServer->uiTimeoutMs);
        if (iResult > 0) {
            serveConnection(pServer, ppLists, pDecoding);
            iResult = 0;
        }
        vexa_load_balance();
    }
}

struct ReleaseFields {
    void operator()(CASTInfo *pInfo) const {
        std::free(pInfo->pSRCIP);
        std::free(pInfo->pDSTIP);
        std::free(pInfo->pCASTFile);
        std::free(pInfo->pEncryptionKey);
    }
};

} // namespace

int RxCASTInfoEngine(KTPLUGIN_INFO_TAG *pBlock) {
    auto *const *ppLists = pBlock == nullptr ? nullptr : static_cast<CASTList *const *>(pBlock->pWork.load());
    if (ppLists != nullptr) {
        pBlock->eState = ENGINE_RUNNING;
    }
    if (ppLists == nullptr || ppLists[0] == nullptr || ppLists[1] == nullptr) {
        std::printf("%s(): Invalid Parameter Set\n", "RxCASTInfoEngine");
        if (pBlock != nullptr) {
            pBlock->eState = ENGINE_STOP;
        }
        return 0;
    }
    ++pBlock->iThreadCount;
    {
        CASTInfo decoding{};
        const std::unique_ptr<CASTInfo, ReleaseFields> release(&decoding);
        while (pBlock->eState <= ENGINE_FINISH) {
            KTNET_ENDPOINT *pServer = nullptr;
            const int iResult = KTNETOpenServer(&pServer, KTNET_CAST_RECEIVER, nullptr);
            if (pServer != nullptr) {
                serve(pBlock, pServer, iResult, ppLists, &decoding);
                KTNETClose(&pServer);
            }
            for (int i = 0; i < 3; ++i) {
                vexa_load_balance();
            }
        }
    }
    --pBlock->iThreadCount;
    return 0;
}

// The cast request on its way into the plug-in: the commander and its sender, on the caller's thread, and the
// receiver thread that files what arrives. One connection carries one request.

#include <pccast/commander.h>

#include "castlistmgr.h"
#include "engines.h"
#include "ktnet.h"
#include "ktpacket.h"
#include "pccastmain.h"
#include "requestdelivery.h"
#include "serviceswitch.h"

#include <vexa_pgl.h>

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace {

constexpr unsigned int kIdent = 200;
constexpr unsigned int kService = 200;
constexpr int kConnected = 0; // the least result of connecting that is one

enum class Kind {
    Number, // unsigned long; 4 bytes on the wire
    Word32, // int; 4 bytes
    Port,   // unsigned short; 2 bytes
    Text,   // owned text; without its terminator
    Key     // pEncryptionKey, iEncryptionKeyLen bytes
};

enum class For { Every, Stream, File };

// The items of a request, in the order in which they are sent.
struct ItemRow {
    unsigned short usTag;
    Kind eKind;
    size_t ulOffset;
    For eFor;
};
constexpr ItemRow kItems[] = {
    {1, Kind::Number, offsetof(CASTInfo, ulCMD), For::Every},
    {2, Kind::Number, offsetof(CASTInfo, uliEPGID), For::Every},
    {3, Kind::Number, offsetof(CASTInfo, ulCT), For::Every},
    {5, Kind::Number, offsetof(CASTInfo, ulST), For::Every},
    {6, Kind::Number, offsetof(CASTInfo, ulET), For::Every},
    {4, Kind::Number, offsetof(CASTInfo, ulCASTType), For::Every},
    {12, Kind::Number, offsetof(CASTInfo, ulSTREAMFormat), For::Every},
    {13, Kind::Number, offsetof(CASTInfo, ulMSID), For::Every},
    {8, Kind::Text, offsetof(CASTInfo, pSRCIP), For::Stream},
    {7, Kind::Port, offsetof(CASTInfo, usSRCPort), For::Stream},
    {15, Kind::Word32, offsetof(CASTInfo, iEncryptionType), For::Stream},
    {16, Kind::Key, offsetof(CASTInfo, pEncryptionKey), For::Stream},
    {17, Kind::Word32, offsetof(CASTInfo, iASFSplit), For::Stream},
    {11, Kind::Text, offsetof(CASTInfo, pCASTFile), For::File},
    {10, Kind::Text, offsetof(CASTInfo, pDSTIP), For::Every},
    {9, Kind::Port, offsetof(CASTInfo, usDSTPort), For::Every},
};

template <typename Field>
Field &fieldAt(CASTInfo *pInfo, size_t ulOffset) {
    return *reinterpret_cast<Field *>(reinterpret_cast<char *>(pInfo) + ulOffset);
}

template <typename Field>
const Field &fieldAt(const CASTInfo *pInfo, size_t ulOffset) {
    return *reinterpret_cast<const Field *>(reinterpret_cast<const char *>(pInfo) + ulOffset);
}

bool isSentFor(const ItemRow &row, unsigned long ulCASTType) {
    switch (row.eFor) {
    case For::Stream:
        return ulCASTType == CAST_TYPE_STREAM || ulCASTType == CAST_TYPE_STREAM_2;
    case For::File:
        return ulCASTType == CAST_TYPE_FILE;
    default:
        return true;
    }
}

// Appends the row's item; a text or key that is missing is left out. Returns false when memory runs out.
bool appendItem(KTPacket *pPacket, const ItemRow &row, const CASTInfo *pInfo) {
    const void *pValue = &fieldAt<char>(pInfo, row.ulOffset);
    unsigned long ulLength = 4;
    switch (row.eKind) {
    case Kind::Number:
    case Kind::Word32:
        break;
    case Kind::Port:
        ulLength = 2;
        break;
    case Kind::Text: {
        const char *pText = fieldAt<char *>(pInfo, row.ulOffset);
        pValue = pText;
        ulLength = pText == nullptr ? 0 : std::strlen(pText);
        break;
    }
    case Kind::Key:
        pValue = pInfo->pEncryptionKey;
        ulLength = pInfo->iEncryptionKeyLen < 0 ? 0 : static_cast<unsigned long>(pInfo->iEncryptionKeyLen);
        break;
    }
    return KTPacketInsertItem(pPacket, 1, row.usTag, ulLength, pValue) >= 0;
}

// Lays the request out in a buffer of its own. Returns its length; 0 (and null) when memory runs out.
unsigned long buildRequest(const CASTInfo *pInfo, unsigned char **ppPayload) {
    KTPacket packet;
    KTPacketInit(&packet);
    bool bComplete = true;
    for (const ItemRow &row : kItems) {
        if (isSentFor(row, pInfo->ulCASTType)) {
            bComplete = bComplete && appendItem(&packet, row, pInfo);
        }
    }
    const int iLength = bComplete ? KTPacketBuild(&packet, ppPayload) : 0;
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
    packet.uiIdent = kIdent;
    packet.uiService = kService;
    packet.uiCommand = static_cast<unsigned int>(ulCMD);
    packet.uiParam = static_cast<unsigned int>(pInfo->ulCASTType);
    packet.ulPayloadLen = packet.ulPayloadSize = buildRequest(pInfo, &pPayload);
    packet.pPayload = pPayload;
    return requestDeliver(KTNET_CAST_SENDER, kConnected, &packet);
}

// ---- the receiver thread

namespace {

// Stores an owned, NUL-terminated copy of the item's bytes; nothing for an empty item, or when memory runs
// out.
unsigned char *copyValue(const KTPacketItem &item) {
    if (item.ulLength == 0) {
        return nullptr;
    }
    auto *pCopy = static_cast<unsigned char *>(std::malloc(item.ulLength + 1));
    if (pCopy != nullptr) {
        std::memcpy(pCopy, item.pValue, item.ulLength);
        pCopy[item.ulLength] = 0;
    }
    return pCopy;
}

// A number shorter than its field is filled up with zeros, so an empty item reads as 0.
unsigned int numberOf(const KTPacketItem &item, unsigned long ulBytes) {
    unsigned char value[4] = {};
    std::memcpy(value, item.pValue, item.ulLength < ulBytes ? item.ulLength : ulBytes);
    return ktpacketGetDWORD(value);
}

void storeItem(CASTInfo *pDecoding, const ItemRow &row, const KTPacketItem &item) {
    switch (row.eKind) {
    case Kind::Number:
        fieldAt<unsigned long>(pDecoding, row.ulOffset) = numberOf(item, 4);
        break;
    case Kind::Word32:
        fieldAt<int>(pDecoding, row.ulOffset) = static_cast<int>(numberOf(item, 4));
        break;
    case Kind::Port:
        fieldAt<unsigned short>(pDecoding, row.ulOffset) = static_cast<unsigned short>(numberOf(item, 2));
        break;
    case Kind::Text: {
        char *&pText = fieldAt<char *>(pDecoding, row.ulOffset);
        std::free(pText);
        pText = reinterpret_cast<char *>(copyValue(item));
        break;
    }
    case Kind::Key:
        std::free(pDecoding->pEncryptionKey);
        pDecoding->pEncryptionKey = copyValue(item);
        pDecoding->iEncryptionKeyLen =
            pDecoding->pEncryptionKey != nullptr ? static_cast<int>(item.ulLength) : 0;
        break;
    }
}

void decodeRequest(const KTNET_PACKET &packet, CASTInfo *pDecoding) {
    unsigned long ulOffset = 0;
    KTPacketItem item;
    while (ktpacketNextItem(packet.pPayload, packet.ulPayloadLen, &ulOffset, &item)) {
        for (const ItemRow &row : kItems) {
            if (row.usTag == item.usTag) {
                storeItem(pDecoding, row, item);
            }
        }
    }
}

// Files a copy of the decoded request in the list of its type; one that cannot be copied or filed is dropped.
void fileRequest(CASTList *const *ppLists, const CASTInfo *pDecoding, unsigned int uiCommand) {
    CASTList *pList = nullptr;
    if (pDecoding->ulCASTType == CAST_TYPE_STREAM || pDecoding->ulCASTType == CAST_TYPE_STREAM_2) {
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
        packet.uiIdent = kIdent;
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

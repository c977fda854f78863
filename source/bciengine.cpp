// The announcement engine: tells the receivers what is on air. On a thread of its own.
#include "bciengine.h"

#include "castformat.h"
#include "engines.h"
#include "itemtable.h"
#include "ktlist.h"
#include "ktnet.h"
#include "ktpacket.h"

#include <qxapi.h>
#include <vexa_pgl.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>

namespace {

constexpr const char *kModule = "bciengine";

constexpr unsigned long kSilence = 10;     // seconds that must have passed since the last transmission
constexpr unsigned long kEndDuration = 20; // seconds for which an end is announced
// A file that fills a datagram alone cannot be announced, so it is not read into memory either.
constexpr off_t kStationFileMax = KTNET_UDP_FRAME_MAX - 88; // less the frame's header and the other items

namespace tag = wire::announcement;

// The items that both announcements begin with, behind the CRC; then those of an on-air announcement, and
// what it adds for a transport stream.
constexpr ItemRow<BCIInfo> kHeadItems[] = {
    {tag::kEPGID, &BCIInfo::uliEPGID},
    {tag::kType, &BCIInfo::ulType},
    {tag::kFormat, &BCIInfo::ulFormat},
};
constexpr ItemRow<BCIInfo> kTimeItems[] = {
    {tag::kStartTime, &BCIInfo::ulST},
    {tag::kEndTime, &BCIInfo::ulET},
};
constexpr ItemRow<BCIInfo> kDestinationItems[] = {
    {tag::kAddress, &BCIInfo::pDSTIP},
    {tag::kDestinationPort, &BCIInfo::usDSTPort},
};

struct Free {
    void operator()(void *p) const { std::free(p); }
};
using Bytes = std::unique_ptr<unsigned char, Free>;

unsigned long now() {
    return vexa_time(nullptr);
}

// ---- announcement packets

// An item list under construction that remembers whether memory ran out on the way.
struct Announcement {
    KTPacket packet;
    bool bComplete;
};

template <typename Rows>
void appendRows(Announcement *pAnnouncement, const Rows &rows, const BCIInfo *pBCI) {
    if (!itemAppendAll(&pAnnouncement->packet, rows, *pBCI)) {
        pAnnouncement->bComplete = false;
    }
}

// Adds an item of its own: behind the others, or before them.
void insert(Announcement *pAnnouncement, bool bAppend, unsigned short usTag, unsigned long ulLength,
            const void *pValue) {
    if (KTPacketInsertItem(&pAnnouncement->packet, bAppend ? 1 : 0, usTag, ulLength, pValue) < 1) {
        pAnnouncement->bComplete = false;
    }
}

// Puts the CRC item over all that has been appended so far at the head.
void insertCRC(Announcement *pAnnouncement) {
    unsigned char *pBytes = nullptr;
    const int iLength = KTPacketBuild(&pAnnouncement->packet, &pBytes);
    const Bytes release(pBytes);
    if (iLength <= 0) {
        pAnnouncement->bComplete = false;
        return;
    }
    const unsigned int uiCRC = qxapi_crc32(0xFFFFFFFF, pBytes, static_cast<unsigned long>(iLength));
    insert(pAnnouncement, false, tag::kCRC, sizeof uiCRC, &uiCRC);
}

// Lays the items out as the packet's payload and releases the list. Returns the payload's length, 0 for none.
int finish(Announcement *pAnnouncement, KTNET_PACKET *pPacket) {
    pPacket->pPayload = nullptr;
    const int iLength =
        pAnnouncement->bComplete ? KTPacketBuild(&pAnnouncement->packet, &pPacket->pPayload) : 0;
    KTPacketCleanUp(&pAnnouncement->packet);
    pPacket->ulPayloadLen = pPacket->ulPayloadSize = static_cast<unsigned long>(iLength);
    return iLength;
}

Announcement begin(const BCIInfo *pBCI) {
    Announcement announcement{{}, true};
    KTPacketInit(&announcement.packet);
    appendRows(&announcement, kHeadItems, pBCI);
    return announcement;
}

// Reads what the open file holds, with a terminating zero behind it. Returns null when it cannot be read
// whole.
Bytes readWhole(int iFile, off_t lSize) {
    Bytes pContents(static_cast<unsigned char *>(std::calloc(static_cast<size_t>(lSize) + 1, 1)));
    off_t lRead = 0;
    while (pContents != nullptr && lRead < lSize) {
        const ssize_t lGot = read(iFile, pContents.get() + lRead, static_cast<size_t>(lSize - lRead));
        if (lGot <= 0) {
            return nullptr;
        }
        lRead += lGot;
    }
    return pContents;
}

// Appends the station file and its CRC. Returns false, with the reason printed, when it cannot be had.
bool appendStation(Announcement *pAnnouncement) {
    // A FIFO in the file's place must not hold the announcements up.
    const int iFile = open(kStationFile, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (iFile <= 0) {
        if (iFile == 0) { // taken for a failure; it only comes in a host that has closed its standard input
            close(iFile);
        }
        std::printf("Can NOT open CRC32 Source File[%s]\n", kStationFile);
        return false;
    }
    const off_t lSize = lseek(iFile, 0, SEEK_END);
    lseek(iFile, 0, SEEK_SET);
    struct stat status {};
    const bool bRegular = fstat(iFile, &status) == 0 && S_ISREG(status.st_mode);
    const bool bFits = bRegular && lSize >= 0 && lSize <= kStationFileMax;
    const Bytes pContents = bFits ? readWhole(iFile, lSize) : nullptr;
    close(iFile);
    if (pContents == nullptr) {
        std::printf("[%s:%d] \e[2;31m station file %s %s: the cast is not announced \e[1;41m[ERROR]\e[0m\n",
                    kModule, __LINE__, kStationFile,
                    !bRegular ? "is no regular file"
                    : !bFits  ? "is too large for a datagram"
                              : "cannot be read");
        return false;
    }
    const auto ulSize = static_cast<unsigned long>(lSize);
    const unsigned int uiCRC = qxapi_crc32(0xFFFFFFFF, pContents.get(), ulSize);
    insert(pAnnouncement, true, tag::kStationCRC, sizeof uiCRC, &uiCRC);
    insert(pAnnouncement, true, tag::kStation, ulSize, pContents.get());
    return true;
}

// Builds the on-air announcement. Returns the payload's length; 0 when it is abandoned.
int makeOnAirPacket(const BCIInfo *pBCI, KTNET_PACKET *pPacket) {
    Announcement announcement = begin(pBCI);
    appendRows(&announcement, kTimeItems, pBCI);
    if (pBCI->ulFormat == BCI_FORMAT_H264) {
        if (pBCI->pDSTIP != nullptr) {
            appendRows(&announcement, kDestinationItems, pBCI);
        } else {
            std::printf("[%s:%d] \e[2;31m h.264 casting info invalid\e[1;41m[ERROR]\e[0m\n", kModule,
                        __LINE__);
        }
    }
    insertCRC(&announcement);
    if (pBCI->ulFormat == BCI_FORMAT_ASF && !appendStation(&announcement)) {
        announcement.bComplete = false;
    }
    return finish(&announcement, pPacket);
}

} // namespace

int PCCASTtoBCIInfo(const CASTInfo *pInfo, BCIInfo *pBCI) {
    int iResult = -1;
    if (pInfo == nullptr || pBCI == nullptr) {
        return iResult;
    }
    if (pInfo->ulCMD == CAST_CMD_START) {
        pBCI->ulCMD = BCI_CMD_ONAIR;
        iResult = 1;
    } else if (pInfo->ulCMD == CAST_CMD_STOP || pInfo->ulCMD == CAST_CMD_END) {
        pBCI->ulCMD = BCI_CMD_END;
        iResult = 1;
    }
    if (pInfo->ulCASTType == CAST_TYPE_FILE) {
        pBCI->ulType = BCI_TYPE_FILE;
    } else if (isStream(pInfo->ulCASTType)) {
        pBCI->ulType = BCI_TYPE_STREAM;
    } else {
        iResult = -1;
    }
    if (isASFFormat(pInfo->ulSTREAMFormat)) {
        pBCI->ulFormat = BCI_FORMAT_ASF;
    } else if (isH264Format(pInfo->ulSTREAMFormat)) {
        pBCI->ulFormat = BCI_FORMAT_H264;
        pBCI->usDSTPort = pInfo->usDSTPort;
        if (pBCI->pDSTIP == nullptr) {
            KTCOPYString(pInfo->pDSTIP, &pBCI->pDSTIP);
        }
    } else {
        pBCI->ulFormat = static_cast<uint32_t>(pInfo->ulSTREAMFormat);
        std::printf("%s():%d, ALARM, unknown content format[%#lx(%ld)] to re-cast: let it go\n",
                    "PCCASTtoBCIInfo", __LINE__, pInfo->ulSTREAMFormat,
                    static_cast<long>(pInfo->ulSTREAMFormat));
    }
    pBCI->uliEPGID = pInfo->uliEPGID;
    pBCI->ulST = pInfo->ulST;
    pBCI->ulET = pInfo->ulET;
    return iResult;
}

void ELIMINATEBCIInfo(BCIInfo *pBCI) {
    if (pBCI != nullptr) {
        std::free(pBCI->pDSTIP);
        pBCI->pDSTIP = nullptr;
    }
}

int initBCITxNet(KTNET_ENDPOINT **ppDesc) {
    KTNETClose(ppDesc);
    KTNET_ENDPOINT *pDesc = nullptr;
    const int iResult = KTNETOpenSender(&pDesc, KTNET_ANNOUNCEMENT, nullptr, 0, nullptr, nullptr);
    if (iResult <= 0) {
        if (pDesc != nullptr) {
            ktn_xapi_ktnet_delete(&pDesc);
        }
        return iResult;
    }
    *ppDesc = pDesc;
    return iResult;
}

int makeBCIEndPacket(const BCIInfo *pBCI, KTNET_PACKET *pPacket) {
    pPacket->uiCommand = BCI_CMD_END;
    Announcement announcement = begin(pBCI);
    insertCRC(&announcement);
    return finish(&announcement, pPacket);
}

// ---- the announcement engine

namespace {

// What the announcement thread keeps from one request to the next.
struct BCIState {
    KTNET_ENDPOINT *pEndpoint;
    int iNetResult; // of the last opening or sending; 0 or less: the endpoint is opened before the next use
    unsigned long ulLastSend; // time of the last transmission, whatever became of it
    bool bOnAirSent;          // an on-air announcement is the last one sent
    BCIInfo record;
    KTNET_PACKET packet;
};

bool isEndpointOpen(BCIState *pState) {
    if (pState->iNetResult <= 0) {
        pState->iNetResult = initBCITxNet(&pState->pEndpoint);
    }
    return pState->iNetResult > 0;
}

// Replaces the record by that of the request. One that means nothing to the receivers has yet ended the cast
// on air before it, so that cast's record stays and is announced as ended. Returns false when there is
// nothing to announce.
bool mapRequest(BCIState *pState, const CASTInfo *pRequest) {
    BCIInfo mapped{};
    if (PCCASTtoBCIInfo(pRequest, &mapped) < 1) {
        std::printf("[%s:%d] \e[2;31m cast request with command %lu, type %lu is not announced "
                    "\e[1;41m[ERROR]\e[0m\n",
                    kModule, __LINE__, pRequest->ulCMD, pRequest->ulCASTType);
        ELIMINATEBCIInfo(&mapped);
        pState->record.ulCMD = BCI_CMD_END;
        pState->record.ulET = now() + kEndDuration;
        return pState->bOnAirSent;
    }
    if (mapped.ulCMD == BCI_CMD_END) {
        mapped.ulET = now() + kEndDuration;
    }
    ELIMINATEBCIInfo(&pState->record);
    pState->record = mapped;
    return true;
}

void sendAnnouncement(BCIState *pState) {
    pState->packet.uiStatus = 0;
    pState->iNetResult = ktn_xapi_ktnet_tx_data(pState->pEndpoint, &pState->packet);
    if (pState->iNetResult < 0) {
        std::printf("%s():%d KTNetTxData Error[0x%08X(%d), 0x%08X(%d)]\n", "PCCASTBCIEngine", __LINE__,
                    pState->pEndpoint->uiError, static_cast<int>(pState->pEndpoint->uiError),
                    pState->packet.uiStatus, static_cast<int>(pState->packet.uiStatus));
        ktn_xapi_dump_packet_info(&pState->packet);
    } else {
        pState->bOnAirSent = pState->record.ulCMD == BCI_CMD_ONAIR;
    }
    pState->packet.ulReserved = 0;
    pState->ulLastSend = now();
}

// Repeats the announcement until its end time, a failing transmission, or a request to finish or stop.
void announce(const KTPLUGIN_INFO_TAG *pBlock, BCIState *pState) {
    pState->packet = KTNET_PACKET{};
    pState->packet.uiIdent = wire::announcement::kIdent;
    pState->packet.uiService = wire::announcement::kService;
    pState->packet.uiCommand = pState->record.ulCMD;
    const int iLength = pState->record.ulCMD == BCI_CMD_END
                            ? makeBCIEndPacket(&pState->record, &pState->packet)
                            : makeOnAirPacket(&pState->record, &pState->packet);
    const Bytes release(pState->packet.pPayload);
    while (iLength > 0 && pState->iNetResult > 0 && pBlock->eState <= ENGINE_RUNNING &&
           pState->record.ulET > now()) {
        const unsigned long ulNow = now();
        pState->packet.uiParam = static_cast<unsigned int>(ulNow);
        if (ulNow - pState->ulLastSend > kSilence) {
            sendAnnouncement(pState);
        }
        vexa_load_balance();
    }
    pState->packet.pPayload = nullptr;
}

// Takes the request in the slot and announces it. The slot is emptied once the state has left idle or the
// request has been given up.
void takeRequest(KTPLUGIN_INFO_TAG *pBlock, CASTInfo *pRequest, BCIState *pState) {
    const bool bAnnounce = isEndpointOpen(pState) && mapRequest(pState, pRequest);
    if (bAnnounce) {
        engineReport(pBlock, ENGINE_RUNNING);
    }
    engineAcknowledge(pBlock);
    if (bAnnounce) {
        announce(pBlock, pState);
        engineReportIdle(pBlock);
    }
    ELIMINATECASTInfo(&pRequest);
}

// The receivers are told that the cast last announced is over, once.
void announceShutdown(BCIState *pState) {
    if (!pState->bOnAirSent || !isEndpointOpen(pState)) {
        return;
    }
    if (makeBCIEndPacket(&pState->record, &pState->packet) > 0) {
        pState->packet.ulReserved = 0;
        pState->packet.uiStatus = 0;
        pState->packet.uiParam = static_cast<unsigned int>(now());
        ktn_xapi_ktnet_tx_data(pState->pEndpoint, &pState->packet);
    }
    std::free(pState->packet.pPayload);
    pState->packet.pPayload = nullptr;
}

} // namespace

int PCCASTBCIEngine(KTPLUGIN_INFO_TAG *pBlock) {
    if (pBlock == nullptr) {
        return 0;
    }
    ++pBlock->iThreadCount;
    pBlock->eState = ENGINE_IDLE;
    BCIState state{};
    state.iNetResult = -1;
    while (pBlock->eState <= ENGINE_FINISH) {
        CASTInfo *pRequest = enginePeek(pBlock);
        if (pRequest != nullptr) {
            takeRequest(pBlock, pRequest, &state);
        }
        vexa_load_balance();
    }
    announceShutdown(&state);
    ELIMINATEBCIInfo(&state.record);
    KTNETClose(&state.pEndpoint);
    engineEnd(pBlock);
    return 0;
}

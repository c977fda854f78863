// The announcement engine and the bypass relay engine, each on a thread of its own.
#include "bciengine.h"

#include "castformat.h"
#include "engines.h"
#include "ktlist.h"
#include "ktnet.h"
#include "ktpacket.h"
#include "pccastmain/debuglog.h"

#include <qxapi.h>
#include <vexa_pgl.h>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace {

constexpr const char *kModule = "bciengine";

constexpr unsigned int kIdent = 1234;
constexpr unsigned int kService = 204;
constexpr int kHops = 5; // of every multicast sender: the stream reaches where its announcement does
constexpr unsigned long kSilence = 10;     // seconds that must have passed since the last transmission
constexpr unsigned long kEndDuration = 20; // seconds for which an end is announced
// A file that fills a datagram alone cannot be announced, so it is not read into memory either.
constexpr off_t kStationFileMax = KTNET_UDP_FRAME_MAX - 88; // less the frame's header and the other items

enum ItemTag : unsigned short {
    TAG_CRC = 1100,
    TAG_EPG_ID = 0x0701,
    TAG_TYPE = 0x701D,
    TAG_FORMAT = 0x701C,
    TAG_START_TIME = 0x7011,
    TAG_END_TIME = 0x7012,
    TAG_ADDRESS = 0x7014,
    TAG_PORT = 0x7017,
    TAG_STATION_CRC = 1101,
    TAG_STATION = 1103
};

struct Free {
    void operator()(void *p) const { std::free(p); }
};
using Bytes = std::unique_ptr<unsigned char, Free>;

unsigned long now() {
    return vexa_time(nullptr);
}

// ---- announcement packets
// -------------------------------------------------------------------------------------------

// An item list under construction that remembers whether memory ran out on the way.
struct Announcement {
    KTPacket packet;
    bool bComplete;
};

void append(Announcement *pAnnouncement, ItemTag eTag, unsigned long ulLength, const void *pValue) {
    if (KTPacketInsertItem(&pAnnouncement->packet, 1, eTag, ulLength, pValue) < 1) {
        pAnnouncement->bComplete = false;
    }
}

// The low-order bytes of a number, as they stand in memory.
template <typename Number>
void appendNumber(Announcement *pAnnouncement, ItemTag eTag, Number number) {
    append(pAnnouncement, eTag, std::min<size_t>(sizeof number, 4), &number);
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
    if (KTPacketInsertItem(&pAnnouncement->packet, 0, TAG_CRC, sizeof uiCRC, &uiCRC) < 1) {
        pAnnouncement->bComplete = false;
    }
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

// The items that both announcements begin with, behind the CRC.
Announcement begin(const BCIInfo *pBCI) {
    Announcement announcement{{}, true};
    KTPacketInit(&announcement.packet);
    appendNumber(&announcement, TAG_EPG_ID, pBCI->uliEPGID);
    appendNumber(&announcement, TAG_TYPE, pBCI->ulType);
    appendNumber(&announcement, TAG_FORMAT, pBCI->ulFormat);
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
    appendNumber(pAnnouncement, TAG_STATION_CRC, qxapi_crc32(0xFFFFFFFF, pContents.get(), ulSize));
    append(pAnnouncement, TAG_STATION, ulSize, pContents.get());
    return true;
}

// Builds the on-air announcement. Returns the payload's length; 0 when it is abandoned.
int makeOnAirPacket(const BCIInfo *pBCI, KTNET_PACKET *pPacket) {
    Announcement announcement = begin(pBCI);
    appendNumber(&announcement, TAG_START_TIME, pBCI->ulST);
    appendNumber(&announcement, TAG_END_TIME, pBCI->ulET);
    if (pBCI->ulFormat == BCI_FORMAT_H264) {
        if (pBCI->pDSTIP != nullptr) {
            append(&announcement, TAG_ADDRESS, std::strlen(pBCI->pDSTIP), pBCI->pDSTIP);
            appendNumber(&announcement, TAG_PORT, pBCI->usDSTPort);
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
    } else if (pInfo->ulCASTType == CAST_TYPE_STREAM || pInfo->ulCASTType == CAST_TYPE_STREAM_2) {
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
    ktn_xapi_hops_socket(0, pDesc->iSocket, kHops, 1);
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
// ------------------------------------------------------------------------------------------

namespace {

// What the announcement thread keeps from one request to the next.
struct BCIState {
    KTNET_ENDPOINT *pEndpoint;
    int iEndpoint; // last result of opening or using the endpoint; 0 or less: open it before the next use
    unsigned long ulLastSend; // time of the last transmission, whatever became of it
    bool bOnAirSent;          // an on-air announcement is the last one sent
    BCIInfo record;
    KTNET_PACKET packet;
};

bool isEndpointOpen(BCIState *pState) {
    if (pState->iEndpoint <= 0) {
        pState->iEndpoint = initBCITxNet(&pState->pEndpoint);
    }
    return pState->iEndpoint > 0;
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

void transmit(BCIState *pState) {
    pState->packet.uiStatus = 0;
    pState->iEndpoint = ktn_xapi_ktnet_tx_data(pState->pEndpoint, &pState->packet);
    if (pState->iEndpoint < 0) {
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
    pState->packet.uiIdent = kIdent;
    pState->packet.uiService = kService;
    pState->packet.uiCommand = pState->record.ulCMD;
    const int iLength = pState->record.ulCMD == BCI_CMD_END
                            ? makeBCIEndPacket(&pState->record, &pState->packet)
                            : makeOnAirPacket(&pState->record, &pState->packet);
    const Bytes release(pState->packet.pPayload);
    while (iLength > 0 && pState->iEndpoint > 0 && pBlock->eState <= ENGINE_RUNNING &&
           pState->record.ulET > now()) {
        const unsigned long ulNow = now();
        pState->packet.uiParam = static_cast<unsigned int>(ulNow);
        if (ulNow - pState->ulLastSend > kSilence) {
            transmit(pState);
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
    state.iEndpoint = -1;
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

// ---- the bypass relay engine
// --------------------------------------------------------------------------------------------

int initMSTREAMRxNetEx(KTNET_ENDPOINT **ppDesc, const char *pszPeer, unsigned short usPort,
                       const char *pszLocal) {
    KTNETClose(ppDesc);
    KTNET_STEP eStep = KTNET_STEP_INIT;
    const int iResult = KTNETOpenReceiver(ppDesc, KTNET_STREAM_RECEIVER, pszPeer, usPort, pszLocal, &eStep);
    if (eStep == KTNET_STEP_INIT) {
        PCCAST_DEBUG(0, "%s():%d, ERROR, KTNetInit() return %#x(%d)\n", "initMSTREAMRxNetEx", __LINE__,
                     static_cast<unsigned int>(iResult), iResult);
        return iResult;
    }
    PCCAST_DEBUG(4, "%s():%d rx. network reinitializing\n", "initMSTREAMRxNetEx", __LINE__);
    if (iResult <= 0) {
        PCCAST_DEBUG(0, "%s():%d, ERROR, KTNetCreate() return %#x(%d)\n", "initMSTREAMRxNetEx", __LINE__,
                     static_cast<unsigned int>(iResult), iResult);
        return iResult;
    }
    return 1;
}

int initSTREAMTxNet(KTNET_ENDPOINT **ppDesc, const char *pszPeer, const char *pszLocal, int iPort) {
    KTNETClose(ppDesc);
    KTNET_STEP eStep = KTNET_STEP_INIT;
    const auto usPort = static_cast<unsigned short>(iPort);
    const int iResult = KTNETOpenSender(ppDesc, KTNET_STREAM_SENDER, pszPeer, usPort, pszLocal, &eStep);
    if (iResult <= 0) {
        PCCAST_DEBUG(0, "%s():%d, ERROR, %s() return %#x(%d)\n", "initSTREAMTxNet", __LINE__,
                     eStep == KTNET_STEP_INIT ? "KTNetInit" : "KTNetCreate",
                     static_cast<unsigned int>(iResult), iResult);
        return iResult;
    }
    ktn_xapi_hops_socket(0, (*ppDesc)->iSocket, kHops, 1);
    PCCAST_DEBUG(0, "-------------%s():%d, MESSAGE, KTNetCreate(p(%s), l(%s), p(%d)) ok\n", "initSTREAMTxNet",
                 __LINE__, qxapi_check_string(pszPeer), qxapi_check_string(pszLocal), usPort);
    return 1;
}

namespace {

constexpr unsigned long kDatagramMax = 65536;
constexpr unsigned long kKeySize = 16; // what the decryption calls read
constexpr const char *kReceiveInterface = "127.0.0.1";

// One cast on the relay: its endpoints, its key, and how its datagrams are treated.
struct Relay {
    const CASTInfo *pCast;
    KTNET_ENDPOINT *pReceiver;
    KTNET_ENDPOINT *pSender;
    unsigned char key[kKeySize];
};

bool isDecrypted(const CASTInfo *pCast) {
    return pCast->iEncryptionType == CAST_ENCRYPTION_SEED ||
           pCast->iEncryptionType == CAST_ENCRYPTION_FAST_SEED;
}

// Fills the key up with zeros to the size that the decryption reads. Returns false (printed) when one is
// needed and there is none.
bool takeKey(Relay *pRelay) {
    const CASTInfo *pCast = pRelay->pCast;
    if (!isDecrypted(pCast)) {
        return true;
    }
    if (pCast->pEncryptionKey == nullptr || pCast->iEncryptionKeyLen <= 0) {
        std::printf("%s():%d \e[1;41m[cast of EPG id %lu wants decryption but brings no key]\e[0m\n",
                    "PCCASTBYPASSEngine", __LINE__, pCast->uliEPGID);
        return false;
    }
    std::memcpy(pRelay->key, pCast->pEncryptionKey,
                std::min(static_cast<unsigned long>(pCast->iEncryptionKeyLen), kKeySize));
    return true;
}

// A relay onto its own source would feed itself without end. Returns whether it is none (printed).
bool leadsElsewhere(const CASTInfo *pCast) {
    if (pCast->usSRCPort == pCast->usDSTPort && pCast->pSRCIP != nullptr && pCast->pDSTIP != nullptr &&
        std::strcmp(pCast->pSRCIP, pCast->pDSTIP) == 0) {
        std::printf(
            "%s():%d \e[1;41m[cast of EPG id %lu has %s:%u for its source and its destination]\e[0m\n",
            "PCCASTBYPASSEngine", __LINE__, pCast->uliEPGID, pCast->pSRCIP, pCast->usSRCPort);
        return false;
    }
    return true;
}

// Opens both ends. Returns whether the cast can go on air; the reason why not is printed.
bool openRelay(Relay *pRelay) {
    const CASTInfo *pCast = pRelay->pCast;
    if (!takeKey(pRelay) || !leadsElsewhere(pCast) ||
        initMSTREAMRxNetEx(&pRelay->pReceiver, pCast->pSRCIP, pCast->usSRCPort, kReceiveInterface) <= 0) {
        return false;
    }
    if (initSTREAMTxNet(&pRelay->pSender, pCast->pDSTIP, nullptr, pCast->usDSTPort) <= 0) {
        std::printf("%s():%d \e[1;41m[Initialize FAILURE]\e[0m\n", "PCCASTBYPASSEngine", __LINE__);
        PRINTCASTInfo(pCast, "PCCASTBYPASSEngine");
        return false;
    }
    return true;
}

void decrypt(const Relay *pRelay, unsigned char *pData, unsigned long ulLength) {
    switch (pRelay->pCast->iEncryptionType) {
    case CAST_ENCRYPTION_SEED:
        qxapi_seed_decrypt(pData, ulLength, pRelay->key);
        break;
    case CAST_ENCRYPTION_FAST_SEED:
        qxapi_fast_seed_decrypt(pData, ulLength, pRelay->key);
        break;
    default:
        break;
    }
}

int sendPacket(const Relay *pRelay, unsigned char *pData, unsigned long ulLength) {
    KTNET_BUFFER buffer{pData, ulLength};
    return ktn_xapi_ktnet_tx_a_packet(pRelay->pSender, 0, &buffer);
}

// Sends each chunk that lies whole within the datagram; what is left behind the last one is dropped. Returns
// the result of the last send, 1 when there was none.
int sendChunks(const Relay *pRelay, unsigned char *pData, unsigned long ulLength) {
    int iResult = 1;
    unsigned long ulOffset = 0;
    while (ulLength - ulOffset >= 2) {
        const unsigned long ulChunk = ktpacketGetWORD(pData + ulOffset);
        ulOffset += 2;
        if (ulChunk > ulLength - ulOffset) {
            break;
        }
        if (ulChunk > 0) {
            iResult = sendPacket(pRelay, pData + ulOffset, ulChunk);
        }
        ulOffset += ulChunk;
    }
    return iResult;
}

// Sends one received datagram on. Returns false when the cast is to end.
bool forward(const Relay *pRelay, unsigned char *pData, unsigned long ulLength) {
    decrypt(pRelay, pData, ulLength);
    switch (pRelay->pCast->iASFSplit) {
    case CAST_SPLIT_NONE:
        sendPacket(pRelay, pData, ulLength);
        return true;
    case CAST_SPLIT_CHUNKS:
        return sendChunks(pRelay, pData, ulLength) > 0;
    default:
        std::fprintf(stderr, "%s() iASFSplit unknown iASFSplit type[%d] \n", "PCCASTBYPASSEngine",
                     pRelay->pCast->iASFSplit);
        std::fflush(stderr);
        return true;
    }
}

// Relays datagram by datagram until the end time, a request to finish or stop, or the end of the source.
void relay(const KTPLUGIN_INFO_TAG *pBlock, const Relay *pRelay, unsigned char *pBuffer) {
    while (pBlock->eState <= ENGINE_RUNNING && pRelay->pCast->ulET > now()) {
        const int iReadable =
            ktn_xapi_rx_poll_socket(pRelay->pReceiver->iSocket, pRelay->pReceiver->uiTimeoutMs);
        if (iReadable <= 0) {
            std::fprintf(stderr, "%s() waiting for bypass stream source\n", "PCCASTBYPASSEngine");
            std::fflush(stderr);
            if (iReadable < 0) { // an error returns at once: the line is for every time-out
                KTuSleep(static_cast<int>(pRelay->pReceiver->uiTimeoutMs) * 1000);
            }
            continue;
        }
        const ssize_t lLength =
            recvfrom(pRelay->pReceiver->iSocket, pBuffer, kDatagramMax, 0, nullptr, nullptr);
        if (lLength <= 0 || !forward(pRelay, pBuffer, static_cast<unsigned long>(lLength))) {
            return;
        }
    }
}

// Carries the cast in the slot. The slot is emptied once the state has left idle.
void carryCast(KTPLUGIN_INFO_TAG *pBlock, CASTInfo *pCast, unsigned char *pBuffer) {
    Relay cast{pCast, nullptr, nullptr, {}};
    if (openRelay(&cast)) {
        engineReport(pBlock, ENGINE_RUNNING);
        engineAcknowledge(pBlock);
        std::fprintf(stderr, "\e[2;42m\t\t\t\t[PC BYPASS OnAir]\e[0m\n");
        relay(pBlock, &cast, pBuffer);
        KTNETClose(&cast.pSender);
        KTNETClose(&cast.pReceiver);
        ELIMINATECASTInfo(&pCast);
        engineReportIdle(pBlock);
        return;
    }
    KTNETClose(&cast.pSender);
    KTNETClose(&cast.pReceiver);
    engineReport(pBlock, ENGINE_FAILED);
    engineAcknowledge(pBlock);
    ELIMINATECASTInfo(&pCast);
}

} // namespace

int PCCASTBYPASSEngine(KTPLUGIN_INFO_TAG *pBlock) {
    if (pBlock == nullptr) {
        return 0;
    }
    ++pBlock->iThreadCount;
    pBlock->eState = ENGINE_IDLE;
    static_assert(kDatagramMax <= 65536, "the buffer lies on the thread's stack");
    unsigned char buffer[kDatagramMax];
    while (pBlock->eState <= ENGINE_FINISH) {
        CASTInfo *pCast = pBlock->eState == ENGINE_IDLE ? enginePeek(pBlock) : nullptr;
        if (pCast != nullptr) {
            carryCast(pBlock, pCast, buffer);
        }
        vexa_load_balance();
    }
    engineEnd(pBlock);
    return 0;
}

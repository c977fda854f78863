// The bypass engine: relays a live stream from the PC to its group. Runs on a thread of its own. Owns the
// cast on air and the relay's two endpoints.
#include "bypassengine.h"

#include "consoletext.h"
#include "engines.h"
#include "ktlist.h"
#include "ktnet.h"
#include "ktpacket.h"
#include "pccastmain/debuglog.h"
#include "view.h"

#include <qxapi.h>
#include <vexa_pgl.h>

#include <arpa/inet.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace {

// The library's call whose result an opener returned; null when the address did not fit, which is printed.
const char *callOf(KTNET_STEP eStep) {
    switch (eStep) {
    case KTNET_STEP_INIT:
        return "KTNetInit";
    case KTNET_STEP_CREATE:
        return "KTNetCreate";
    default:
        return nullptr;
    }
}

void reportOpening(const char *pOpener, KTNET_STEP eStep, int iResult, int iLine = __builtin_LINE()) {
    if (callOf(eStep) != nullptr) {
        PCCAST_DEBUG(0, "%s():%d, ERROR, %s() return %#x(%d)\n", pOpener, iLine, callOf(eStep),
                     static_cast<unsigned int>(iResult), iResult);
    }
}

} // namespace

int initMSTREAMRxNetEx(KTNET_ENDPOINT **ppDesc, const char *pszPeer, unsigned short usPort,
                       const char *pszLocal) {
    KTNETClose(ppDesc);
    KTNET_STEP eStep = KTNET_STEP_INIT;
    const int iResult =
        KTNETOpenReceiver(ppDesc, KTNET_STREAM_RECEIVER, pszPeer, usPort, pszLocal, &eStep, [] {
            PCCAST_DEBUG(4, "%s():%d rx. network reinitializing\n", "initMSTREAMRxNetEx", __LINE__);
        });
    if (iResult <= 0) {
        reportOpening("initMSTREAMRxNetEx", eStep, iResult);
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
        reportOpening("initSTREAMTxNet", eStep, iResult);
        return iResult;
    }
    PCCAST_DEBUG(0, "-------------%s():%d, MESSAGE, KTNetCreate(p(%s), l(%s), p(%d)) ok\n", "initSTREAMTxNet",
                 __LINE__, qxapi_check_string(pszPeer), qxapi_check_string(pszLocal), usPort);
    return 1;
}

namespace {

constexpr unsigned long kDatagramMax = 65536;
constexpr ViewTraffic &kTraffic = gViewTraffic[VIEW_BYPASS];
constexpr unsigned long kKeySize = 16; // the decryption calls read this many bytes
constexpr const char *kReceiveInterface = "127.0.0.1";

// The cast on air, its endpoints, and its key filled up with zeros.
struct Relay {
    const CASTInfo *pCast;
    KTNET_ENDPOINT *pReceiver;
    KTNET_ENDPOINT *pSender;
    unsigned char key[kKeySize];
    unsigned int uiReason; // PCCAST_REASON_..., why it cannot go on air
};

// Counts the traffic of a cast. Only its own thread uses it; the counts are read elsewhere.
struct Meter {
    unsigned long ulSecond;             // the one that is being counted
    unsigned long ulDatagrams, ulBytes; // counted when it began
};

bool isDecrypted(const CASTInfo *pCast) {
    return pCast->iEncryptionType == CAST_ENCRYPTION_SEED ||
           pCast->iEncryptionType == CAST_ENCRYPTION_FAST_SEED;
}

// Copies the key of an encrypted cast. Returns false if the cast brings no key (printed).
bool takeKey(Relay *pRelay) {
    const CASTInfo *pCast = pRelay->pCast;
    if (!isDecrypted(pCast)) {
        return true;
    }
    pRelay->uiReason = PCCAST_REASON_KEY;
    if (pCast->pEncryptionKey == nullptr || pCast->iEncryptionKeyLen <= 0) {
        std::printf("%s():%d \e[1;41m[cast of EPG id %lu wants decryption but brings no key]\e[0m\n",
                    "PCCASTBYPASSEngine", __LINE__, pCast->uliEPGID);
        return false;
    }
    std::memcpy(pRelay->key, pCast->pEncryptionKey,
                std::min(static_cast<unsigned long>(pCast->iEncryptionKeyLen), kKeySize));
    return true;
}

// Returns false (printed) if the relay would feed itself. Both endpoints are open. A relay feeds itself
// without end if its destination is its source and its datagrams come back to it. They come back from an
// address of this machine, and from a group that is sent through the loopback interface, because the relay
// receives there. A group that is sent through another interface does not come back.
bool leadsElsewhere(const Relay *pRelay) {
    const CASTInfo *pCast = pRelay->pCast;
    if (pCast->usSRCPort != pCast->usDSTPort || std::strcmp(pCast->pSRCIP, pCast->pDSTIP) != 0) {
        return true;
    }
    // The sender is connected. So its own address is the address of the interface through which it sends.
    sockaddr_in local{};
    socklen_t uiLength = sizeof local;
    getsockname(pRelay->pSender->iSocket, reinterpret_cast<sockaddr *>(&local), &uiLength);
    const bool bGroup = IN_MULTICAST(ntohl(inet_addr(pCast->pDSTIP)));
    const bool bByLoopback = ntohl(local.sin_addr.s_addr) >> IN_CLASSA_NSHIFT == IN_LOOPBACKNET;
    if (bGroup && !bByLoopback) {
        return true;
    }
    std::printf("%s():%d \e[1;41m[cast of EPG id %lu would feed itself: %s:%u is its source and its "
                "destination]\e[0m\n",
                "PCCASTBYPASSEngine", __LINE__, pCast->uliEPGID,
                orQuestion(consoleText(pCast->pSRCIP, "NULL")), pCast->usSRCPort);
    return false;
}

// Opens both endpoints. Returns whether the cast can go on air. Reports the reason if it cannot.
bool openRelay(Relay *pRelay) {
    const CASTInfo *pCast = pRelay->pCast;
    if (!takeKey(pRelay)) {
        return false;
    }
    pRelay->uiReason = PCCAST_REASON_SOURCE;
    if (initMSTREAMRxNetEx(&pRelay->pReceiver, pCast->pSRCIP, pCast->usSRCPort, kReceiveInterface) <= 0) {
        return false;
    }
    pRelay->uiReason = PCCAST_REASON_DESTINATION;
    if (initSTREAMTxNet(&pRelay->pSender, pCast->pDSTIP, nullptr, pCast->usDSTPort) <= 0) {
        std::printf("%s():%d \e[1;41m[Initialize FAILURE]\e[0m\n", "PCCASTBYPASSEngine", __LINE__);
        PRINTCASTInfo(pCast, "PCCASTBYPASSEngine");
        return false;
    }
    pRelay->uiReason = PCCAST_REASON_LOOP;
    return leadsElsewhere(pRelay);
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
    const int iResult = ktn_xapi_ktnet_tx_a_packet(pRelay->pSender, 0, &buffer);
    if (iResult <= 0) {
        viewAdd(kTraffic.ulFailed, 1);
    }
    return iResult;
}

// Sends each chunk that lies whole within the datagram. Drops the bytes behind the last whole chunk. Returns
// the result of the last send; 1 if nothing was sent.
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

// Sends one received datagram on. Returns false if the cast must end.
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

// Notes what the kernel has dropped on the receiving socket because it was not fetched in time.
void noteDrops(const Relay *pRelay) {
    uint32_t words[SK_MEMINFO_VARS] = {};
    socklen_t uiLength = sizeof words;
    if (getsockopt(pRelay->pReceiver->iSocket, SOL_SOCKET, SO_MEMINFO, words, &uiLength) == 0) {
        viewSet(kTraffic.ulDropped, words[SK_MEMINFO_DROPS]);
    }
}

// Once a second: what the second that has ended has brought.
void noteSecond(const Relay *pRelay, Meter *pMeter, unsigned long ulNow) {
    const unsigned long ulDatagrams = kTraffic.ulDatagrams.load(std::memory_order_relaxed);
    const unsigned long ulBytes = kTraffic.ulBytes.load(std::memory_order_relaxed);
    viewSet(kTraffic.ulDatagramsPerSecond, ulDatagrams - pMeter->ulDatagrams);
    viewSet(kTraffic.ulBytesPerSecond, ulBytes - pMeter->ulBytes);
    *pMeter = {ulNow, ulDatagrams, ulBytes};
    noteDrops(pRelay);
}

// A second without a datagram has passed.
void noteSilence(unsigned long ulNow) {
    viewAdd(kTraffic.ulSilence, 1);
    if (kTraffic.ulSilentSince == 0) {
        viewSet(kTraffic.ulSilentSince, ulNow);
        viewSilent(VIEW_BYPASS);
    }
}

void noteDatagram(unsigned long ulLength, unsigned long ulNow) {
    viewAdd(kTraffic.ulDatagrams, 1);
    viewAdd(kTraffic.ulBytes, ulLength);
    viewSet(kTraffic.ulLastArrival, ulNow);
    if (kTraffic.ulSilentSince.load(std::memory_order_relaxed) != 0) {
        viewHeard(VIEW_BYPASS);
        viewSet(kTraffic.ulSilentSince, 0);
    }
}

void saySilent(unsigned long ulNow) {
    std::fprintf(stderr, "%s() waiting for bypass stream source\n", "PCCASTBYPASSEngine");
    std::fflush(stderr);
    noteSilence(ulNow);
}

// Waits for a datagram, one time-out of the endpoint at most. Returns whether there is one. Says so if not.
bool awaitDatagram(const Relay *pRelay, unsigned long ulNow) {
    const int iTimeoutMs = static_cast<int>(pRelay->pReceiver->uiTimeoutMs);
    const int iReadable = ktn_xapi_rx_poll_socket(pRelay->pReceiver->iSocket, pRelay->pReceiver->uiTimeoutMs);
    if (iReadable > 0) {
        return true;
    }
    saySilent(ulNow);
    // An error returns at once. The pause keeps the line as rare as after a time-out.
    if (iReadable < 0) {
        KTuSleep(iTimeoutMs * 1000);
    }
    return false;
}

// Relays datagram by datagram until the end time, a request to finish or stop, or the end of the source.
// Returns why it ended: PCCAST_REASON_..., none when it was asked to.
unsigned int relay(const KTPLUGIN_INFO_TAG *pBlock, const Relay *pRelay, unsigned char *pBuffer) {
    Meter meter{vexa_time(nullptr), 0, 0};
    // The last wait brought a datagram. While a stream flows, recvfrom waits for the next datagram itself:
    // the socket has the endpoint's time-out too. That saves a call of the system for each datagram.
    bool bFlows = false;
    while (pBlock->eState <= ENGINE_RUNNING) {
        const unsigned long ulNow = vexa_time(nullptr);
        if (pRelay->pCast->ulET <= ulNow) {
            return PCCAST_REASON_END_TIME;
        }
        if (ulNow != meter.ulSecond) {
            noteSecond(pRelay, &meter, ulNow);
        }
        if (!bFlows && !awaitDatagram(pRelay, ulNow)) {
            continue;
        }
        const ssize_t lLength =
            recvfrom(pRelay->pReceiver->iSocket, pBuffer, kDatagramMax, 0, nullptr, nullptr);
        if (lLength < 0 && errno == EINTR) {
            continue;
        }
        if (lLength < 0 && errno == EAGAIN) {
            if (bFlows) {
                saySilent(ulNow);
            }
            bFlows = false;
            continue;
        }
        if (lLength <= 0) {
            return PCCAST_REASON_SOURCE_LOST;
        }
        bFlows = true;
        noteDatagram(static_cast<unsigned long>(lLength), ulNow);
        if (!forward(pRelay, pBuffer, static_cast<unsigned long>(lLength))) {
            return PCCAST_REASON_SEND;
        }
    }
    return PCCAST_REASON_NONE;
}

// Carries the cast in the slot. Empties the slot only after the state has left idle.
void carryCast(KTPLUGIN_INFO_TAG *pBlock, CASTInfo *pCast, unsigned char *pBuffer) {
    Relay endpoints{pCast, nullptr, nullptr, {}, PCCAST_REASON_NONE};
    viewResetTraffic(VIEW_BYPASS);
    if (openRelay(&endpoints)) {
        viewStarted(VIEW_BYPASS);
        engineReport(pBlock, ENGINE_RUNNING);
        engineAcknowledge(pBlock);
        std::fprintf(stderr, "\e[2;42m\t\t\t\t[PC BYPASS OnAir]\e[0m\n");
        const unsigned int uiReason = relay(pBlock, &endpoints, pBuffer);
        noteDrops(&endpoints);
        KTNETClose(&endpoints.pSender);
        KTNETClose(&endpoints.pReceiver);
        ELIMINATECASTInfo(&pCast);
        viewEnded(VIEW_BYPASS, uiReason);
        engineReportIdle(pBlock);
        return;
    }
    KTNETClose(&endpoints.pSender);
    KTNETClose(&endpoints.pReceiver);
    viewFailed(VIEW_BYPASS, endpoints.uiReason);
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

// ktnendpoint.cpp - libqxapi_ktn: makes, opens, connects, closes and releases endpoints.
//
// Called on the thread that owns the endpoint. ktntransfer.cpp sends and receives on an open one.
#include "ktnendpoint.h"

#include "report.h"
#include "udpsocket.h"

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <netinet/in.h>
#include <new>
#include <sys/time.h>
#include <unistd.h>

namespace {

constexpr unsigned int kMagic = 0x4B544E45;
constexpr int kVersion = 2;
constexpr unsigned int kDefaultTimeoutMs = 1000;

// Compiled callers rely on these offsets.
static_assert(offsetof(KTNET_ENDPOINT, uiKind) == 12 && offsetof(KTNET_ENDPOINT, iSocket) == 16);
static_assert(offsetof(KTNET_ENDPOINT, szPeer) == 20 && offsetof(KTNET_ENDPOINT, szLocal) == 148);
static_assert(offsetof(KTNET_ENDPOINT, uiPort) == 276 && offsetof(KTNET_ENDPOINT, uiListen) == 280);
static_assert(offsetof(KTNET_ENDPOINT, uiAux) == 284 && offsetof(KTNET_ENDPOINT, uiTimeoutMs) == 288);
static_assert(offsetof(KTNET_ENDPOINT, uiError) == 296);
static_assert(sizeof(KTNET_PACKET) == 72 && offsetof(KTNET_PACKET, ulPayloadLen) == 16);
static_assert(offsetof(KTNET_PACKET, ulReserved) == 24 && offsetof(KTNET_PACKET, pPayload) == 40);
static_assert(offsetof(KTNET_PACKET, ulPayloadSize) == 48 && offsetof(KTNET_PACKET, uiStatus) == 56);
static_assert(offsetof(KTNET_BUFFER, ulBufferLen) == 8);
static_assert(offsetof(KtnEndpoint, descriptor) == 0);

// Bounds the socket's own reads and sends. The transfer calls keep to uiTimeoutMs themselves; a caller that
// uses the socket directly does not, nor does a send that the network holds up.
void boundTransfers(int iSocket, unsigned int uiTimeoutMs) {
    const unsigned int uiBound = uiTimeoutMs == 0 ? 1 : uiTimeoutMs;
    const timeval bound{uiBound / 1000, suseconds_t{uiBound % 1000} * 1000};
    setsockopt(iSocket, SOL_SOCKET, SO_RCVTIMEO, &bound, sizeof bound);
    setsockopt(iSocket, SOL_SOCKET, SO_SNDTIMEO, &bound, sizeof bound);
}

// Returns the socket, or a negative errno.
int openUdp(KtnEndpoint &endpoint) {
    const KTNET_ENDPOINT &desc = endpoint.descriptor;
    if (desc.uiPort > 0xFFFF) {
        frameworkReport("ktn_xapi_ktnet_create", "%s: %u is no UDP port", desc.szPeer, desc.uiPort);
        return -EINVAL;
    }
    const auto usPort = static_cast<unsigned short>(desc.uiPort);
    const int iSocket = desc.uiListen != 0 ? udpOpenReceiver(desc.szPeer, usPort, desc.szLocal)
                                           : udpOpenSender(endpoint.sender, desc.szPeer, usPort, nullptr, -1);
    if (iSocket >= 0) {
        boundTransfers(iSocket, desc.uiTimeoutMs);
    }
    return iSocket;
}

// Returns the socket, or a negative errno.
int listenLocal(KtnEndpoint &endpoint) {
    const KTNET_ENDPOINT &desc = endpoint.descriptor;
    const int iSocket = ktnLocalListen(desc.szLocal, desc.uiTimeoutMs, endpoint.socketFile);
    if (iSocket >= 0) {
        ktnLobbyOpen(endpoint.lobby, iSocket, desc.uiTimeoutMs);
    }
    return iSocket;
}

bool isTerminated(const char *pszText) {
    return std::memchr(pszText, 0, KTNET_ADDRESS_SIZE) != nullptr;
}

} // namespace

KtnEndpoint *ktnEndpoint(KTNET_ENDPOINT *pDesc) {
    if (pDesc == nullptr || pDesc->uiLibraryMagic != kMagic) {
        return nullptr;
    }
    return reinterpret_cast<KtnEndpoint *>(pDesc);
}

KTNET_ENDPOINT *ktnEndpointNew(int iMode, int iVersion) {
    auto *pEndpoint = new (std::nothrow) KtnEndpoint{};
    if (pEndpoint == nullptr) {
        frameworkReport("ktn_xapi_ktnet_init_with_version", "no memory for an endpoint");
        return nullptr;
    }
    pEndpoint->descriptor.uiLibraryMagic = kMagic;
    pEndpoint->descriptor.iLibraryMode = iMode;
    pEndpoint->descriptor.iLibraryVersion = iVersion;
    pEndpoint->descriptor.iSocket = -1;
    pEndpoint->descriptor.uiTimeoutMs = kDefaultTimeoutMs;
    return &pEndpoint->descriptor;
}

int ktnFailed(KTNET_ENDPOINT *pDesc, int iErrno) {
    pDesc->uiError = static_cast<unsigned int>(iErrno);
    return -iErrno;
}

int ktn_xapi_ktnet_init_with_version(KTNET_ENDPOINT **ppDesc, int iMode, int iVersion) {
    if (ppDesc == nullptr) {
        return -1;
    }
    *ppDesc = nullptr;
    if (iVersion != kVersion) {
        frameworkReport("ktn_xapi_ktnet_init_with_version", "version %d is asked for, this library has %d",
                        iVersion, kVersion);
        return -1;
    }
    *ppDesc = ktnEndpointNew(iMode, iVersion);
    return *ppDesc != nullptr ? 1 : -1;
}

int ktn_xapi_ktnet_create(KTNET_ENDPOINT *pDesc) {
    KtnEndpoint *pEndpoint = ktnEndpoint(pDesc);
    if (pEndpoint == nullptr) {
        return -EINVAL;
    }
    if (pDesc->iSocket >= 0) {
        frameworkReport("ktn_xapi_ktnet_create", "the endpoint has a socket already");
        return ktnFailed(pDesc, EALREADY);
    }
    if (!isTerminated(pDesc->szPeer) || !isTerminated(pDesc->szLocal)) {
        frameworkReport("ktn_xapi_ktnet_create", "an address is longer than %u bytes",
                        KTNET_ADDRESS_SIZE - 1);
        return ktnFailed(pDesc, ENAMETOOLONG);
    }
    int iSocket = -EINVAL;
    if (pDesc->uiKind == KTNET_KIND_UDP) {
        iSocket = openUdp(*pEndpoint);
    } else if (pDesc->uiKind != KTNET_KIND_LOCAL) {
        frameworkReport("ktn_xapi_ktnet_create", "there is no endpoint of kind 0x%x", pDesc->uiKind);
    } else if (pDesc->uiListen != 0) {
        iSocket = listenLocal(*pEndpoint);
    } else {
        iSocket = ktnLocalClient();
    }
    if (iSocket < 0) {
        return ktnFailed(pDesc, -iSocket);
    }
    pDesc->iSocket = iSocket;
    return 1;
}

int ktn_xapi_ktnet_accept(KTNET_ENDPOINT *pDesc, KTNET_ENDPOINT **ppConn) {
    if (ppConn == nullptr) {
        return -EINVAL;
    }
    *ppConn = nullptr;
    KtnEndpoint *pEndpoint = ktnEndpoint(pDesc);
    if (pEndpoint == nullptr) {
        return -EINVAL;
    }
    if (pEndpoint->lobby.iListener < 0) {
        return ktnFailed(pDesc, EOPNOTSUPP);
    }
    const int iSocket = ktnLobbyTake(pEndpoint->lobby);
    if (iSocket == -EAGAIN) {
        return 0;
    }
    if (iSocket < 0) {
        return ktnFailed(pDesc, -iSocket);
    }
    KTNET_ENDPOINT *pConn = ktnEndpointNew(pDesc->iLibraryMode, pDesc->iLibraryVersion);
    if (pConn == nullptr) {
        close(iSocket);
        return ktnFailed(pDesc, ENOMEM);
    }
    pConn->uiKind = KTNET_KIND_LOCAL;
    pConn->iSocket = iSocket;
    pConn->uiTimeoutMs = pDesc->uiTimeoutMs;
    *ppConn = pConn;
    return 1;
}

int ktn_xapi_ktnet_connect(KTNET_ENDPOINT *pDesc) {
    if (ktnEndpoint(pDesc) == nullptr) {
        return -EINVAL;
    }
    if (pDesc->uiKind != KTNET_KIND_LOCAL || pDesc->uiListen != 0) {
        return ktnFailed(pDesc, EOPNOTSUPP);
    }
    if (!isTerminated(pDesc->szPeer)) {
        return ktnFailed(pDesc, ENAMETOOLONG);
    }
    const int iResult = ktnLocalConnect(pDesc->iSocket, pDesc->szPeer, pDesc->uiTimeoutMs);
    return iResult < 0 ? ktnFailed(pDesc, -iResult) : 1;
}

int ktn_xapi_ktnet_close(KTNET_ENDPOINT *pDesc) {
    KtnEndpoint *pEndpoint = ktnEndpoint(pDesc);
    if (pEndpoint == nullptr || pDesc->iSocket < 0) {
        return 0;
    }
    ktnLobbyClose(pEndpoint->lobby);
    ktnLocalRemove(pEndpoint->socketFile);
    close(pDesc->iSocket);
    pDesc->iSocket = -1;
    pEndpoint->sender.iSocket = -1;
    return 1;
}

int ktn_xapi_ktnet_delete(KTNET_ENDPOINT **ppDesc) {
    if (ppDesc == nullptr || ktnEndpoint(*ppDesc) == nullptr) {
        return 0;
    }
    ktn_xapi_ktnet_close(*ppDesc);
    KtnEndpoint *pEndpoint = ktnEndpoint(*ppDesc);
    pEndpoint->descriptor.uiLibraryMagic = 0;
    delete pEndpoint;
    *ppDesc = nullptr;
    return 1;
}

int ktn_xapi_hops_socket(int iFamily, int iSocket, int iHops, int iOn) {
    if (iFamily != 0 && iFamily != AF_INET) {
        return -EAFNOSUPPORT;
    }
    if (iHops < 0 || iHops > 255) {
        return -EINVAL;
    }
    const int iLoop = iOn != 0 ? 1 : 0;
    if (setsockopt(iSocket, IPPROTO_IP, IP_MULTICAST_TTL, &iHops, sizeof iHops) != 0 ||
        setsockopt(iSocket, IPPROTO_IP, IP_MULTICAST_LOOP, &iLoop, sizeof iLoop) != 0) {
        const int iErrno = errno;
        frameworkReport("ktn_xapi_hops_socket", "hop limit %d not set: %s", iHops, std::strerror(iErrno));
        return -iErrno;
    }
    return 1;
}

void ktn_xapi_dump_packet_info(const KTNET_PACKET *pPacket) {
    if (pPacket == nullptr) {
        std::printf("KTNET_PACKET: NULL\n");
        return;
    }
    std::printf("KTNET_PACKET: ident %u service %u command 0x%x param %u payload %lu bytes status %u\n",
                pPacket->uiIdent, pPacket->uiService, pPacket->uiCommand, pPacket->uiParam,
                pPacket->ulPayloadLen, pPacket->uiStatus);
}

void ktn_xapi_free(void *pPayload) {
    std::free(pPayload);
}

// ktntransfer.cpp - libqxapi_ktn: sends and receives frames and plain datagrams on an open endpoint.
//
// Called on the thread that owns the endpoint. The relay calls ktn_xapi_rx_poll_socket and
// ktn_xapi_ktnet_tx_a_packet for every datagram. These two therefore allocate nothing and make one system
// call each.
#include "deadline.h"
#include "ktnendpoint.h"
#include "ktnframe.h"
#include "report.h"
#include "udpsocket.h"

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <poll.h>
#include <sys/socket.h>

namespace {

constexpr const char *kWhoRx = "ktn_xapi_ktnet_rx_data";
constexpr const char *kWhoTx = "ktn_xapi_ktnet_tx_data";

using HeaderBytes = std::array<unsigned char, KTNET_FRAME_HEADER_SIZE>;
using Payload = std::unique_ptr<unsigned char, void (*)(void *)>;

// A frame while it is being received.
struct ReceivedFrame {
    KTNET_FRAME frame{};
    Payload payload{nullptr, std::free};
};

// Waits for sEvents on the socket until the deadline. Returns 0 or an errno (ETIMEDOUT).
int waitFor(int iSocket, short sEvents, Deadline deadline) {
    for (;;) {
        pollfd readiness{iSocket, sEvents, 0};
        const int iLeft = deadlineLeft(deadline);
        const int iReady = poll(&readiness, 1, iLeft);
        if (iReady > 0) {
            return 0;
        }
        if (iReady < 0 && errno != EINTR) {
            return errno;
        }
        if (iLeft == 0) {
            return ETIMEDOUT;
        }
    }
}

// Reads exactly ulLength bytes of a stream. ulRead takes the number read, also on failure.
// Returns 0 or an errno; EPIPE if the peer closed too early.
int readStream(int iSocket, unsigned char *pData, std::size_t ulLength, Deadline deadline,
               std::size_t &ulRead) {
    ulRead = 0;
    while (ulRead < ulLength) {
        const ssize_t lRead = recv(iSocket, pData + ulRead, ulLength - ulRead, MSG_DONTWAIT);
        if (lRead == 0) {
            return EPIPE;
        }
        if (lRead > 0) {
            ulRead += static_cast<std::size_t>(lRead);
        } else if (errno == EAGAIN) {
            if (const int iErrno = waitFor(iSocket, POLLIN, deadline)) {
                return iErrno;
            }
        } else if (errno != EINTR) {
            return errno;
        }
        // A client that sends a byte at a time never lets waitFor wait, so check the deadline here too.
        if (ulRead < ulLength && deadlineLeft(deadline) == 0) {
            return ETIMEDOUT;
        }
    }
    return 0;
}

// Allocates the payload that a checked header announces. Returns 0 or an errno.
int makePayload(ReceivedFrame &received) {
    if (received.frame.uiPayloadLen == 0) {
        return 0;
    }
    received.payload.reset(static_cast<unsigned char *>(std::malloc(received.frame.uiPayloadLen)));
    return received.payload ? 0 : ENOMEM;
}

// Receives one frame of a local connection. Sets bClosed if the peer closed without sending a byte.
// Returns 0 or an errno (reported).
int receiveLocal(int iSocket, unsigned int uiTimeoutMs, ReceivedFrame &received, bool &bClosed) {
    const Deadline deadline = deadlineIn(uiTimeoutMs);
    HeaderBytes header;
    std::size_t ulRead = 0;
    int iErrno = readStream(iSocket, header.data(), header.size(), deadline, ulRead);
    if (iErrno == EPIPE && ulRead == 0) {
        bClosed = true;
        return 0;
    }
    if (iErrno == 0) {
        const int iResult = ktn_xapi_frame_decode_header(header.data(), header.size(), &received.frame);
        if (iResult != KTNET_FRAME_GOOD) {
            frameworkReport(kWhoRx, "a client sent no frame: %s", ktn_xapi_frame_text(iResult));
            return EPROTO;
        }
        if (received.frame.uiPayloadLen > KTNET_LOCAL_FRAME_MAX - KTNET_FRAME_HEADER_SIZE) {
            frameworkReport(kWhoRx, "a client announced a frame of more than %u bytes",
                            KTNET_LOCAL_FRAME_MAX);
            return EMSGSIZE;
        }
        iErrno = makePayload(received);
    }
    if (iErrno == 0) {
        iErrno = readStream(iSocket, received.payload.get(), received.frame.uiPayloadLen, deadline, ulRead);
    }
    if (iErrno == EPIPE) {
        frameworkReport(kWhoRx, "a client closed in the middle of a frame");
        return EPROTO;
    }
    if (iErrno == ETIMEDOUT) {
        frameworkReport(kWhoRx, "a client sent no whole frame within %u ms", uiTimeoutMs);
    } else if (iErrno != 0) {
        frameworkReport(kWhoRx, "frame not received: %s", std::strerror(iErrno));
    }
    return iErrno;
}

// Receives one frame of a UDP socket. Peeks at the datagram's header first, to allocate what the frame
// needs. Returns 0 or an errno (reported, but for ETIMEDOUT).
int receiveDatagram(int iSocket, unsigned int uiTimeoutMs, ReceivedFrame &received) {
    const Deadline deadline = deadlineIn(uiTimeoutMs);
    HeaderBytes header;
    ssize_t lLength;
    while ((lLength = recv(iSocket, header.data(), header.size(), MSG_PEEK | MSG_TRUNC | MSG_DONTWAIT)) < 0) {
        int iErrno = errno == EAGAIN ? waitFor(iSocket, POLLIN, deadline) : errno == EINTR ? 0 : errno;
        if (iErrno == ETIMEDOUT) {
            return iErrno; // silence on a group is no error
        }
        if (iErrno != 0) {
            frameworkReport(kWhoRx, "datagram not received: %s", std::strerror(iErrno));
            return iErrno;
        }
    }
    const auto ulLength = static_cast<std::size_t>(lLength);
    int iResult = ktn_xapi_frame_decode_header(header.data(), ulLength, &received.frame);
    if (iResult == KTNET_FRAME_GOOD && received.frame.uiPayloadLen != ulLength - header.size()) {
        iResult = KTNET_FRAME_BAD_LENGTH;
    }
    int iErrno = iResult == KTNET_FRAME_GOOD ? makePayload(received) : EPROTO;
    if (iResult != KTNET_FRAME_GOOD) {
        frameworkReport(kWhoRx, "a datagram is no frame: %s", ktn_xapi_frame_text(iResult));
    } else if (iErrno != 0) {
        frameworkReport(kWhoRx, "datagram lost: %s", std::strerror(iErrno));
    }

    // Take the datagram even if it is bad: it must not stay in front of the good ones.
    iovec pieces[2] = {{header.data(), header.size()},
                       {received.payload.get(), iErrno == 0 ? received.frame.uiPayloadLen : 0}};
    msghdr message{};
    message.msg_iov = pieces;
    message.msg_iovlen = 2;
    ssize_t lTaken;
    while ((lTaken = recvmsg(iSocket, &message, MSG_DONTWAIT)) < 0 && errno == EINTR) {
    }
    return iErrno != 0 ? iErrno : lTaken == lLength ? 0 : EPROTO;
}

// Sends a frame's pieces on a stream. Returns 0 or an errno.
int writeStream(int iSocket, msghdr &message, Deadline deadline) {
    while (message.msg_iovlen > 0) {
        const ssize_t lSent = sendmsg(iSocket, &message, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (lSent < 0 && errno == EAGAIN) {
            if (const int iErrno = waitFor(iSocket, POLLOUT, deadline)) {
                return iErrno;
            }
            continue;
        }
        if (lSent < 0 && errno != EINTR) {
            return errno;
        }
        auto ulSent = static_cast<std::size_t>(std::max<ssize_t>(0, lSent));
        while (message.msg_iovlen > 0 && ulSent >= message.msg_iov->iov_len) {
            ulSent -= message.msg_iov->iov_len;
            message.msg_iov++;
            message.msg_iovlen--;
        }
        if (message.msg_iovlen > 0) {
            message.msg_iov->iov_base = static_cast<unsigned char *>(message.msg_iov->iov_base) + ulSent;
            message.msg_iov->iov_len -= ulSent;
            if (deadlineLeft(deadline) == 0) {
                return ETIMEDOUT;
            }
        }
    }
    return 0;
}

} // namespace

int ktn_xapi_rx_poll_socket(int iSocket, unsigned int uiTimeoutMs) {
    if (iSocket < 0) {
        return -EBADF;
    }
    if (KtnLobby *pLobby = ktnLobbyOf(iSocket)) {
        return ktnLobbyWait(*pLobby, uiTimeoutMs);
    }
    pollfd readiness{iSocket, POLLIN, 0};
    const int iReady = poll(&readiness, 1, static_cast<int>(std::min<unsigned int>(uiTimeoutMs, INT_MAX)));
    if (iReady < 0) {
        return errno == EINTR ? 0 : -errno;
    }
    if (iReady > 0 && (readiness.revents & POLLNVAL) != 0) {
        return -EBADF;
    }
    return iReady > 0 ? 1 : 0;
}

int ktn_xapi_ktnet_rx_data(KTNET_ENDPOINT *pConn, KTNET_PACKET *pPacket) {
    if (ktnEndpoint(pConn) == nullptr || pPacket == nullptr) {
        return -EINVAL;
    }
    pPacket->pPayload = nullptr;
    pPacket->ulPayloadLen = 0;
    pPacket->ulPayloadSize = 0;
    ReceivedFrame received;
    bool bClosed = false;
    int iErrno = ENOTCONN;
    if (pConn->iSocket >= 0) {
        iErrno = pConn->uiKind == KTNET_KIND_UDP
                     ? receiveDatagram(pConn->iSocket, pConn->uiTimeoutMs, received)
                     : receiveLocal(pConn->iSocket, pConn->uiTimeoutMs, received, bClosed);
    }
    if (iErrno != 0) {
        pPacket->uiStatus = static_cast<unsigned int>(iErrno);
        return ktnFailed(pConn, iErrno);
    }
    if (bClosed) {
        return 0;
    }
    pPacket->uiIdent = received.frame.uiIdent;
    pPacket->uiService = received.frame.uiService;
    pPacket->uiCommand = received.frame.uiCommand;
    pPacket->uiParam = received.frame.uiParam;
    pPacket->ulPayloadLen = received.frame.uiPayloadLen;
    pPacket->ulPayloadSize = received.frame.uiPayloadLen;
    pPacket->pPayload = received.payload.release();
    return 1;
}

int ktn_xapi_ktnet_tx_data(KTNET_ENDPOINT *pDesc, KTNET_PACKET *pPacket) {
    KtnEndpoint *pEndpoint = ktnEndpoint(pDesc);
    if (pEndpoint == nullptr || pPacket == nullptr) {
        return -EINVAL;
    }
    const bool bUdp = pDesc->uiKind == KTNET_KIND_UDP;
    int iErrno = 0;
    if (pPacket->pPayload == nullptr && pPacket->ulPayloadLen > 0) {
        iErrno = EINVAL;
    } else if (pPacket->ulPayloadLen >
               (bUdp ? KTNET_UDP_FRAME_MAX : KTNET_LOCAL_FRAME_MAX) - KTNET_FRAME_HEADER_SIZE) {
        iErrno = EMSGSIZE;
    } else if (pDesc->iSocket < 0) {
        iErrno = ENOTCONN;
    }
    if (iErrno == 0) {
        HeaderBytes header;
        ktnFrameEncodeHeader(header.data(),
                             {pPacket->uiIdent, pPacket->uiService, pPacket->uiCommand, pPacket->uiParam,
                              static_cast<unsigned int>(pPacket->ulPayloadLen), nullptr});
        iovec pieces[2] = {{header.data(), header.size()}, {pPacket->pPayload, pPacket->ulPayloadLen}};
        msghdr message{};
        message.msg_iov = pieces;
        message.msg_iovlen = pPacket->ulPayloadLen > 0 ? 2 : 1;
        iErrno = bUdp ? -std::min(0, udpSendMessage(pEndpoint->sender, message))
                      : writeStream(pDesc->iSocket, message, deadlineIn(pDesc->uiTimeoutMs));
    }
    if (iErrno == 0) {
        return 1;
    }
    pPacket->uiStatus = static_cast<unsigned int>(iErrno);
    if (bUdp) {
        frameworkReport(kWhoTx, "frame not sent to %s:%u: %s", pDesc->szPeer, pDesc->uiPort,
                        std::strerror(iErrno));
    } else {
        frameworkReport(kWhoTx, "frame not sent to %s: %s", pDesc->szPeer, std::strerror(iErrno));
    }
    return ktnFailed(pDesc, iErrno);
}

int ktn_xapi_ktnet_tx_a_packet(KTNET_ENDPOINT *pDesc, int iFlags, KTNET_BUFFER *pBuffer) {
    KtnEndpoint *pEndpoint = ktnEndpoint(pDesc);
    if (pEndpoint == nullptr || pBuffer == nullptr) {
        return -EINVAL;
    }
    if (iFlags != 0 || pDesc->uiKind != KTNET_KIND_UDP) {
        return ktnFailed(pDesc, EOPNOTSUPP);
    }
    const int iSent = udpSend(pEndpoint->sender, pBuffer->pBuffer, pBuffer->ulBufferLen);
    if (iSent >= 0) {
        return std::max(1, iSent);
    }
    frameworkReport("ktn_xapi_ktnet_tx_a_packet", "datagram not sent to %s:%u: %s", pDesc->szPeer,
                    pDesc->uiPort, std::strerror(-iSent));
    return ktnFailed(pDesc, -iSent);
}

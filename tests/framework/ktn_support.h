// What the KTNet tests share: endpoints and plain sockets that release themselves, frames, and a stopwatch.
#ifndef KTN_SUPPORT_H
#define KTN_SUPPORT_H

#include <qxapi_ktn.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <memory>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <utility>
#include <vector>

using namespace std::chrono_literals;
using BYTES = std::vector<unsigned char>;

struct ENDPOINT_DELETE {
    void operator()(KTNET_ENDPOINT *pDesc) const { ktn_xapi_ktnet_delete(&pDesc); }
};
using ENDPOINT = std::unique_ptr<KTNET_ENDPOINT, ENDPOINT_DELETE>;

inline ENDPOINT endpoint(unsigned int uiKind, const std::string &Peer, const std::string &Local,
                         unsigned int uiPort, unsigned int uiListen, unsigned int uiTimeoutMs = 2000) {
    KTNET_ENDPOINT *pDesc = nullptr;
    ktn_xapi_ktnet_init_with_version(&pDesc, 0, 2);
    pDesc->uiKind = uiKind;
    Peer.copy(pDesc->szPeer, sizeof pDesc->szPeer);
    Local.copy(pDesc->szLocal, sizeof pDesc->szLocal);
    pDesc->uiPort = uiPort;
    pDesc->uiListen = uiListen;
    pDesc->uiTimeoutMs = uiTimeoutMs;
    return ENDPOINT(pDesc);
}

// A socket without the library.
struct PLAIN_SOCKET {
    int iSocket;
    sockaddr_un Address{AF_UNIX, {}};

    explicit PLAIN_SOCKET(const std::string &Path, int iType = SOCK_STREAM | SOCK_NONBLOCK)
        : iSocket(socket(AF_UNIX, iType, 0)) {
        Path.copy(Address.sun_path, sizeof Address.sun_path - 1);
    }
    PLAIN_SOCKET(const PLAIN_SOCKET &) = delete;
    PLAIN_SOCKET &operator=(const PLAIN_SOCKET &) = delete;
    ~PLAIN_SOCKET() { end(); }
    void end() {
        if (iSocket >= 0)
            close(std::exchange(iSocket, -1));
    }
    const sockaddr *address() const { return reinterpret_cast<const sockaddr *>(&Address); }
    bool bindTo() { return bind(iSocket, address(), sizeof Address) == 0; }
    bool listenTo(int iQueue) { return bindTo() && listen(iSocket, iQueue) == 0; }
    bool connectTo() { return connect(iSocket, address(), sizeof Address) == 0; }
    bool put(const BYTES &Bytes) {
        return send(iSocket, Bytes.data(), Bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(Bytes.size());
    }
};

struct STOPWATCH {
    std::chrono::steady_clock::time_point Started = std::chrono::steady_clock::now();
    auto spent() const { return std::chrono::steady_clock::now() - Started; }
};

// A frame as it must be on the wire: ident 200, service 205, command 0x40020, parameter 0x01020304, payload
// abc.
inline const BYTES FrameBytes = {'K',  'T',  'N',  'F',  0x02, 0x00, 0x1C, 0x00, 0xC8, 0x00, 0x00,
                                 0x00, 0xCD, 0x00, 0x00, 0x00, 0x20, 0x00, 0x04, 0x00, 0x04, 0x03,
                                 0x02, 0x01, 0x03, 0x00, 0x00, 0x00, 'a',  'b',  'c'};

// The same for tx_data; Payload must outlive it.
inline KTNET_PACKET packetOf(BYTES &Payload) {
    KTNET_PACKET Packet{};
    Packet.uiIdent = 200;
    Packet.uiService = 205;
    Packet.uiCommand = 0x40020;
    Packet.uiParam = 0x01020304;
    Packet.ulPayloadLen = Packet.ulPayloadSize = Payload.size();
    Packet.pPayload = Payload.empty() ? nullptr : Payload.data();
    return Packet;
}

// Takes a payload over and releases it.
inline BYTES payloadOf(KTNET_PACKET &Packet) {
    BYTES Payload(Packet.pPayload, Packet.pPayload + Packet.ulPayloadLen);
    ktn_xapi_free(std::exchange(Packet.pPayload, nullptr));
    return Payload;
}

// Frames that must be refused, made from FrameBytes: bytes put at an offset, or the frame cut short.
struct BAD_FRAME {
    const char *pszWhat;
    size_t ulAt;
    BYTES Put;
    size_t ulKeep; // bytes of the frame that are sent
    int iLocal;    // what a local receiver returns
    int iDecode;   // what decoding says

    BYTES bytes() const {
        BYTES Bytes = FrameBytes;
        std::copy(Put.begin(), Put.end(), Bytes.begin() + static_cast<std::ptrdiff_t>(ulAt));
        return BYTES(Bytes.data(), Bytes.data() + ulKeep);
    }
};
const std::vector<BAD_FRAME> &badFrames();

#endif

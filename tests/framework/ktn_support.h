// What the KTNet tests share: endpoints and plain sockets that release themselves, and a stopwatch.
#ifndef KTN_SUPPORT_H
#define KTN_SUPPORT_H

#include <qxapi_ktn.h>

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
inline ENDPOINT server(const std::string &Path, unsigned int uiTimeoutMs = 2000) {
    return endpoint(KTNET_KIND_LOCAL, "", Path, 0, 1, uiTimeoutMs);
}
inline ENDPOINT client(const std::string &Path, unsigned int uiTimeoutMs = 2000) {
    return endpoint(KTNET_KIND_LOCAL, Path, "", 0, 0, uiTimeoutMs);
}
inline ENDPOINT sender(const std::string &Address, unsigned int uiPort) {
    return endpoint(KTNET_KIND_UDP, Address, "", uiPort, 0);
}
inline ENDPOINT receiver(const std::string &Address, unsigned int uiPort,
                         const std::string &Local = "127.0.0.1") {
    return endpoint(KTNET_KIND_UDP, Address, Local, uiPort, 1);
}

// A socket without the library.
struct PLAIN_SOCKET {
    int iSocket = -1;
    sockaddr_un Address{};

    explicit PLAIN_SOCKET(const std::string &Path, int iType = SOCK_STREAM | SOCK_NONBLOCK)
        : iSocket(socket(AF_UNIX, iType, 0)) {
        Address.sun_family = AF_UNIX;
        Path.copy(Address.sun_path, sizeof Address.sun_path - 1);
    }
    PLAIN_SOCKET(PLAIN_SOCKET &&Other)
    noexcept : iSocket(std::exchange(Other.iSocket, -1)), Address(Other.Address) {}
    ~PLAIN_SOCKET() { end(); }
    void end() {
        if (iSocket >= 0)
            close(std::exchange(iSocket, -1));
    }
    const sockaddr *address() const { return reinterpret_cast<const sockaddr *>(&Address); }
    bool bindTo() { return bind(iSocket, address(), sizeof Address) == 0; }
    bool connectTo() { return connect(iSocket, address(), sizeof Address) == 0; }
    bool put(const BYTES &Bytes) {
        return send(iSocket, Bytes.data(), Bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(Bytes.size());
    }
};

struct STOPWATCH {
    std::chrono::steady_clock::time_point Started = std::chrono::steady_clock::now();
    std::chrono::milliseconds spent() const {
        return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() -
                                                                     Started);
    }
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

// Frames that must be refused, made from FrameBytes: bytes put at an offset, or the frame cut short.
struct BAD_FRAME {
    const char *pszWhat;
    size_t ulAt;
    BYTES Put;
    size_t ulKeep; // bytes of the frame that are sent
    int iLocal;    // what a local receiver returns; -ETIMEDOUT rows wait for more
    int iDecode;   // what decoding says
};
const std::vector<BAD_FRAME> &badFrames();

// Takes a payload over and releases it.
inline BYTES payloadOf(KTNET_PACKET &Packet) {
    BYTES Payload(Packet.pPayload, Packet.pPayload + Packet.ulPayloadLen);
    ktn_xapi_free(std::exchange(Packet.pPayload, nullptr));
    return Payload;
}

#endif

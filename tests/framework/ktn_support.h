// ktn_support.h - shared by the KTNet tests: endpoints and plain sockets that release themselves, frames,
// and a stopwatch.
#ifndef KTN_SUPPORT_H
#define KTN_SUPPORT_H

#include <qxapi_ktn.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <poll.h>
#include <regex>
#include <sstream>
#include <string>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <utility>
#include <vector>

using namespace std::chrono_literals;
using Bytes = std::vector<unsigned char>;

struct EndpointDelete {
    void operator()(KTNET_ENDPOINT *pDesc) const { ktn_xapi_ktnet_delete(&pDesc); }
};
using Endpoint = std::unique_ptr<KTNET_ENDPOINT, EndpointDelete>;

inline Endpoint makeEndpoint(unsigned int uiKind, const std::string &peer, const std::string &local,
                             unsigned int uiPort, unsigned int uiListen, unsigned int uiTimeoutMs = 2000) {
    KTNET_ENDPOINT *pDesc = nullptr;
    ktn_xapi_ktnet_init_with_version(&pDesc, 0, 2);
    pDesc->uiKind = uiKind;
    peer.copy(pDesc->szPeer, sizeof pDesc->szPeer);
    local.copy(pDesc->szLocal, sizeof pDesc->szLocal);
    pDesc->uiPort = uiPort;
    pDesc->uiListen = uiListen;
    pDesc->uiTimeoutMs = uiTimeoutMs;
    return Endpoint(pDesc);
}

// A local socket without the library.
struct PlainSocket {
    int iSocket;
    sockaddr_un address{AF_UNIX, {}};

    explicit PlainSocket(const std::string &path, int iType = SOCK_STREAM | SOCK_NONBLOCK)
        : iSocket(socket(AF_UNIX, iType, 0)) {
        path.copy(address.sun_path, sizeof address.sun_path - 1);
    }
    PlainSocket(const PlainSocket &) = delete;
    PlainSocket &operator=(const PlainSocket &) = delete;
    ~PlainSocket() { end(); }
    void end() {
        if (iSocket >= 0) {
            close(std::exchange(iSocket, -1));
        }
    }
    const sockaddr *plainAddress() const { return reinterpret_cast<const sockaddr *>(&address); }
    bool bindTo() { return bind(iSocket, plainAddress(), sizeof address) == 0; }
    bool listenTo(int iQueue) { return bindTo() && listen(iSocket, iQueue) == 0; }
    bool connectTo() { return connect(iSocket, plainAddress(), sizeof address) == 0; }
    // Returns whether the other end has closed.
    bool isClosed() const {
        char cByte;
        return recv(iSocket, &cByte, 1, MSG_DONTWAIT) == 0 || errno == ECONNRESET;
    }
    bool put(const Bytes &bytes) {
        return send(iSocket, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
    }
};

// What ktn_fault.cpp does to the system's calls.
struct Faults {
    std::atomic<int> iSendErrno{0}; // every send fails with it, 0 none
    std::atomic<int> iPeer{-1};     // the user that every local peer seems to be, -1 as it is
    std::atomic<int> iBuffer{-1};   // what every receive buffer seems to be, -1 as it is
    std::atomic<const char *> pszCall{
        nullptr}; // this call fails once with iErrno, after it has passed iPass times
    std::atomic<int> iErrno{0}, iPass{0};
    std::atomic<long> lAhead{0};   // seconds that the monotonic clock is ahead; never less than before
    std::atomic<long> lObjects{0}; // that operator new has made and none has deleted
};
Faults &faults();

inline void failOnce(const char *pszCall, int iErrno, int iPass = 0) {
    faults().iErrno = iErrno;
    faults().iPass = iPass;
    faults().pszCall = pszCall;
}

struct Stopwatch {
    std::chrono::steady_clock::time_point started = std::chrono::steady_clock::now();
    auto spent() const { return std::chrono::steady_clock::now() - started; }
};

// Ends the capture of stderr. Returns each line that was reported, once, with $ for what matches the
// expression.
inline std::string reported(const std::string &expression = "\n") {
    std::istringstream printed(testing::internal::GetCapturedStderr());
    std::string all, line;
    while (std::getline(printed, line)) {
        line = std::regex_replace(line, std::regex(expression), "$$") + "\n";
        all += all.find(line) == std::string::npos ? line : "";
    }
    return all;
}

// The bytes of one frame: ident 200, service 205, command 0x40020, parameter 0x01020304, payload abc.
inline const Bytes kFrameBytes = {'K',  'T',  'N',  'F',  0x02, 0x00, 0x1C, 0x00, 0xC8, 0x00, 0x00,
                                  0x00, 0xCD, 0x00, 0x00, 0x00, 0x20, 0x00, 0x04, 0x00, 0x04, 0x03,
                                  0x02, 0x01, 0x03, 0x00, 0x00, 0x00, 'a',  'b',  'c'};

// Returns a packet for tx_data with the header words of kFrameBytes. payload must outlive it.
inline KTNET_PACKET packetOf(Bytes &payload) {
    KTNET_PACKET packet{};
    packet.uiIdent = 200;
    packet.uiService = 205;
    packet.uiCommand = 0x40020;
    packet.uiParam = 0x01020304;
    packet.ulPayloadLen = packet.ulPayloadSize = payload.size();
    packet.pPayload = payload.empty() ? nullptr : payload.data();
    return packet;
}

// Returns the bytes of a received payload and releases it.
inline Bytes payloadOf(KTNET_PACKET &packet) {
    Bytes payload(packet.pPayload, packet.pPayload + packet.ulPayloadLen);
    ktn_xapi_free(std::exchange(packet.pPayload, nullptr));
    return payload;
}

// A frame that must be refused. It is kFrameBytes with other bytes put at an offset, or cut short.
struct BadFrame {
    const char *pszWhat;
    std::size_t ulAt;
    Bytes put;
    std::size_t ulKeep; // bytes of the frame that are sent
    int iLocal;         // result of a local receiver
    int iDecode;        // result of decoding

    Bytes bytes() const {
        Bytes frame = kFrameBytes;
        std::copy(put.begin(), put.end(), frame.begin() + static_cast<std::ptrdiff_t>(ulAt));
        return Bytes(frame.data(), frame.data() + ulKeep);
    }
};
const std::vector<BadFrame> &badFrames();

#endif

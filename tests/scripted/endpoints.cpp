// endpoints.cpp - the scripted libqxapi_ktn. The relay reads its receiver's socket itself, so that is one end
// of a real socket pair. All other sockets are mere numbers.
#include "state.h"

#include <cstdio>
#include <cstring>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

using script::EndpointState;
using script::Enter;
using script::state;
using script::Step;

namespace script {

std::vector<Frame> frames(const std::string &key) {
    std::vector<Frame> found = seen().frames;
    std::erase_if(found, [&](const Frame &frame) { return frame.key.find(key) == std::string::npos; });
    return found;
}

int liveEndpoints() {
    Enter enter;
    return static_cast<int>(state().endpoints.size());
}

void request(const std::string &path, unsigned int uiCommand, unsigned int uiParam, const Bytes &payload) {
    Enter enter;
    state().requests[path].push_back({uiCommand, uiParam, payload});
}

int requestsWaiting() {
    Enter enter;
    size_t ulSum = 0;
    for (const auto &queue : state().requests) {
        ulSum += queue.second.size();
    }
    return static_cast<int>(ulSum);
}

bool datagram(const std::string &address, const Bytes &bytes) {
    Enter enter;
    for (const auto &[pDesc, endpoint] : state().endpoints) {
        if (endpoint.key == "rx " + address && endpoint.iFarEnd >= 0) {
            return send(endpoint.iFarEnd, bytes.data(), bytes.size(), MSG_DONTWAIT) ==
                   static_cast<ssize_t>(bytes.size());
        }
    }
    return false;
}

static std::string keyOf(const KTNET_ENDPOINT &settings) {
    if (settings.uiKind == KTNET_KIND_LOCAL) {
        return settings.uiListen == 1 ? std::string("server ") + settings.szLocal
                                      : std::string("client ") + settings.szPeer;
    }
    return std::string(settings.uiListen == 1 ? "rx " : "tx ") + settings.szPeer + ":" +
           std::to_string(settings.uiPort);
}

// The caller has entered. Returns null for a number that is no socket.
static KTNET_ENDPOINT *endpointOf(int iSocket) {
    for (const auto &known : state().endpoints) {
        if (known.first->iSocket == iSocket) {
            return known.first;
        }
    }
    return nullptr;
}

static std::string keyOf(int iSocket) {
    KTNET_ENDPOINT *pDesc = endpointOf(iSocket);
    return pDesc == nullptr ? "nothing" : state().endpoints.at(pDesc).key;
}

constexpr unsigned int kDefault = 70000; // what every number of a fresh descriptor holds

static KTNET_ENDPOINT *descriptor(const EndpointState &endpoint) {
    auto *pDesc = new KTNET_ENDPOINT{};
    pDesc->iSocket = -1;
    pDesc->uiPort = pDesc->uiListen = pDesc->uiAux = pDesc->uiTimeoutMs = pDesc->uiError = kDefault;
    state().endpoints[pDesc] = endpoint;
    return pDesc;
}

static std::string settingsOf(const KTNET_ENDPOINT &desc, const EndpointState &endpoint) {
    char szText[512];
    std::snprintf(szText, sizeof szText, "mode %d version %d kind %X peer %s local %s", endpoint.iMode,
                  endpoint.iVersion, desc.uiKind, desc.szPeer, desc.szLocal);
    std::string text = szText;
    const auto add = [&](const char *pszName, unsigned int uiValue) {
        text += pszName + (uiValue == kDefault ? "-" : std::to_string(uiValue));
    };
    add(" port ", desc.uiPort);
    add(" listen ", desc.uiListen);
    add(" aux ", desc.uiAux);
    add(" timeout ", desc.uiTimeoutMs);
    add(" error ", desc.uiError);
    return text;
}

// Whether a rule decides this step of the endpoint.
static bool ruled(Step step, KTNET_ENDPOINT *pDesc, int *piResult) {
    return decided(step, state().endpoints.at(pDesc).key, piResult);
}

static void closeSocket(KTNET_ENDPOINT *pDesc, EndpointState &endpoint) {
    if (endpoint.iFarEnd >= 0) {
        close(pDesc->iSocket);
        close(endpoint.iFarEnd);
        endpoint.iFarEnd = -1;
    }
    pDesc->iSocket = -1;
}

} // namespace script

extern "C" {

int ktn_xapi_ktnet_init_with_version(KTNET_ENDPOINT **ppDesc, int iMode, int iVersion) {
    Enter enter;
    int iResult = 1;
    state().seen.calls.push_back("init " + std::to_string(iMode) + " " + std::to_string(iVersion));
    *ppDesc = nullptr;
    if (decided(Step::Init, "mode " + std::to_string(iMode), &iResult)) {
        return iResult;
    }
    *ppDesc = script::descriptor({"fresh", iMode, iVersion});
    return 1;
}

int ktn_xapi_ktnet_create(KTNET_ENDPOINT *pDesc) {
    script::waitWhileHeld([=] { return script::keyOf(*pDesc); });
    Enter enter;
    EndpointState &endpoint = state().endpoints.at(pDesc);
    endpoint.key = script::keyOf(*pDesc);
    state().seen.endpoints.push_back(script::settingsOf(*pDesc, endpoint));
    state().seen.calls.push_back("create " + endpoint.key);
    int iResult = 1;
    if (decided(Step::Create, endpoint.key, &iResult)) {
        return iResult;
    }
    int sockets[2];
    if (pDesc->uiKind == KTNET_KIND_UDP && pDesc->uiListen == 1) {
        if (socketpair(AF_UNIX, SOCK_DGRAM, 0, sockets) != 0) {
            return -errno;
        }
        // Far shorter than a real endpoint's time-out, so that a silent source costs a test nothing.
        const timeval bound{0, 20'000};
        setsockopt(sockets[0], SOL_SOCKET, SO_RCVTIMEO, &bound, sizeof bound);
        pDesc->iSocket = sockets[0];
        endpoint.iFarEnd = sockets[1];
    } else {
        pDesc->iSocket = state().iNextSocket++;
    }
    return 1;
}

int ktn_xapi_rx_poll_socket(int iSocket, unsigned int uiTimeoutMs) {
    script::waitWhileHeld([=] { return script::keyOf(iSocket); });
    {
        Enter enter;
        KTNET_ENDPOINT *pDesc = script::endpointOf(iSocket);
        if (pDesc == nullptr) {
            return -EBADF;
        }
        if (uiTimeoutMs != pDesc->uiTimeoutMs) {
            state().seen.faults.push_back("poll with another time-out than the endpoint's");
        }
        if (pDesc->uiKind == KTNET_KIND_LOCAL && pDesc->uiError != 0) {
            state().seen.faults.push_back("poll with a status word that is not clear");
        }
        int iResult = 1;
        unsigned char ucByte = 0;
        if (ruled(Step::Poll, pDesc, &iResult)) {
            return iResult;
        }
        if (pDesc->uiKind == KTNET_KIND_UDP ? recv(iSocket, &ucByte, 1, MSG_PEEK | MSG_DONTWAIT) >= 0
                                            : !state().requests[pDesc->szLocal].empty()) {
            pDesc->uiError = 0xE2; // the library may leave anything here
            return 1;
        }
        if (state().bPollsTakeTime) {
            state().ulNow += uiTimeoutMs / 1000;
        }
    }
    script::pass();
    return 0;
}

int ktn_xapi_ktnet_accept(KTNET_ENDPOINT *pDesc, KTNET_ENDPOINT **ppConn) {
    Enter enter;
    *ppConn = nullptr;
    if (pDesc->uiError != 0) {
        state().seen.faults.push_back("accept with a status word that is not clear");
    }
    pDesc->uiError = 0xE1; // the library may leave anything here
    auto &queue = state().requests[pDesc->szLocal];
    EndpointState connection{std::string("connection ") + pDesc->szLocal};
    connection.request = queue.front();
    queue.pop_front();
    int iResult = 1;
    if (ruled(Step::Accept, pDesc, &iResult)) {
        return iResult;
    }
    *ppConn = script::descriptor(connection);
    return 1;
}

int ktn_xapi_ktnet_rx_data(KTNET_ENDPOINT *pConn, KTNET_PACKET *pPacket) {
    Enter enter;
    int iResult = 1;
    state().seen.calls.push_back("receive " + std::to_string(pPacket->uiIdent));
    if (pPacket->pPayload != nullptr || pPacket->ulPayloadLen != 0 || pPacket->ulReserved != 0 ||
        pPacket->uiStatus != 0) {
        state().seen.faults.push_back("receive with a header that is not clear");
    }
    if (ruled(Step::Rx, pConn, &iResult)) {
        return iResult;
    }
    const script::Request &request = state().endpoints.at(pConn).request;
    pPacket->uiCommand = request.uiCommand;
    pPacket->uiParam = request.uiParam;
    pPacket->ulPayloadLen = request.payload.size();
    pPacket->pPayload = nullptr;
    if (!request.payload
             .empty()) { // a block of exactly this size, so that the sanitizer sees a read beyond it
        pPacket->pPayload = new unsigned char[request.payload.size()];
        std::memcpy(pPacket->pPayload, request.payload.data(), request.payload.size());
        ++state().iHeld;
    }
    return 1;
}

int ktn_xapi_ktnet_connect(KTNET_ENDPOINT *pDesc) {
    Enter enter;
    int iResult = 1;
    state().seen.calls.push_back("connect " + state().endpoints.at(pDesc).key);
    ruled(Step::Connect, pDesc, &iResult);
    return iResult;
}

int ktn_xapi_ktnet_tx_data(KTNET_ENDPOINT *pDesc, KTNET_PACKET *pPacket) {
    Enter enter;
    int iResult = 1;
    if (ruled(Step::Tx, pDesc, &iResult) && iResult < 0) {
        pDesc->uiError = 0xE1;
        pPacket->uiStatus = 0x5A;
        return iResult;
    }
    script::Frame frame{state().endpoints.at(pDesc).key, state().ulNow, *pPacket, {}};
    frame.payload.assign(pPacket->pPayload, pPacket->pPayload + pPacket->ulPayloadLen);
    frame.header.pPayload = nullptr;
    state().seen.frames.push_back(frame);
    pPacket->ulReserved = 99; // the library may leave anything here
    pPacket->uiStatus = 98;
    if (pDesc->uiKind == KTNET_KIND_LOCAL) {
        state().requests[pDesc->szPeer].push_back(
            {frame.header.uiCommand, frame.header.uiParam, frame.payload});
    }
    return iResult;
}

int ktn_xapi_ktnet_tx_a_packet(KTNET_ENDPOINT *pDesc, int, KTNET_BUFFER *pBuffer) {
    Enter enter;
    int iResult = static_cast<int>(pBuffer->ulBufferLen);
    if (ruled(Step::TxDatagram, pDesc, &iResult)) {
        return iResult;
    }
    if (pDesc->uiListen == 1) {
        state().seen.faults.push_back("transmission by a receiver");
    }
    state().seen.datagrams.emplace_back(pBuffer->pBuffer, pBuffer->pBuffer + pBuffer->ulBufferLen);
    return iResult;
}

int ktn_xapi_ktnet_close(KTNET_ENDPOINT *pDesc) {
    Enter enter;
    EndpointState &endpoint = state().endpoints.at(pDesc);
    state().seen.calls.push_back("close " + endpoint.key);
    script::closeSocket(pDesc, endpoint);
    return 1;
}

int ktn_xapi_ktnet_delete(KTNET_ENDPOINT **ppDesc) {
    Enter enter;
    EndpointState &endpoint = state().endpoints.at(*ppDesc);
    state().seen.calls.push_back("delete " + endpoint.key);
    script::closeSocket(*ppDesc, endpoint);
    state().endpoints.erase(*ppDesc);
    delete *ppDesc;
    *ppDesc = nullptr;
    return 1;
}

int ktn_xapi_hops_socket(int iFamily, int iSocket, int iHops, int iOn) {
    Enter enter;
    state().seen.calls.push_back("hops " + std::to_string(iFamily) + " " + std::to_string(iHops) + " " +
                                 std::to_string(iOn) + " " + script::keyOf(iSocket));
    return 1;
}

void ktn_xapi_dump_packet_info(const KTNET_PACKET *) {
    Enter enter;
    state().seen.calls.push_back("dump");
}

void ktn_xapi_free(void *pPayload) {
    Enter enter;
    state().iHeld -= pPayload != nullptr;
    delete[] static_cast<unsigned char *>(pPayload);
}
}

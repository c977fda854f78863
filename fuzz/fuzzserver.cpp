#include "fuzzserver.h"

#include <qxapi_ktn.h>
#include <vexa_pgl.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <sys/select.h>

namespace {

// The run that is going on. The library's calls below serve it.
struct Run {
    const std::vector<FuzzRequest> *pRequests;
    const std::function<void(const FuzzRequest &)> *pAfter;
    KTPLUGIN_INFO_TAG block;
    std::size_t ulTaken;
};
Run *pRun;

KTNET_ENDPOINT server, connection;

} // namespace

std::vector<FuzzRequest> fuzzRequests(const std::uint8_t *pData, std::size_t ulSize) {
    std::vector<FuzzRequest> requests;
    for (std::size_t ul = 0; ul + 3 <= ulSize;) {
        const std::size_t ulLength = pData[ul + 1] | static_cast<std::size_t>(pData[ul + 2]) << 8;
        const std::size_t ulHere = std::min(ulLength, ulSize - ul - 3);
        const auto *pPayload = reinterpret_cast<const char *>(pData + ul + 3);
        requests.push_back({pData[ul], std::string(pPayload, ulHere)});
        ul += 3 + ulHere;
    }
    return requests;
}

void fuzzServe(int (*pBody)(KTPLUGIN_INFO_TAG *), void *pWork, const std::vector<FuzzRequest> &requests,
               const std::function<void(const FuzzRequest &)> &after) {
    Run run{&requests, &after, {}, 0};
    pRun = &run;
    run.block.eState = ENGINE_STOPPED;
    run.block.pWork = pWork;
    pBody(&run.block);
    promise(run.block.iThreadCount == 0 && run.ulTaken == requests.size());
}

std::map<unsigned int, std::string> fuzzItems(const std::string &sPayload) {
    std::map<unsigned int, std::string> items;
    for (std::size_t ul = 0; ul < sPayload.size();) {
        std::size_t ulHead = 4;
        if (sPayload.size() - ul < ulHead) {
            break;
        }
        std::size_t ulLength = fuzzNumber(sPayload.substr(ul + 2, 2), 2);
        if (ulLength == 0xFFFF) {
            ulHead = 8;
            if (sPayload.size() - ul < ulHead) {
                break;
            }
            ulLength = fuzzNumber(sPayload.substr(ul + 4, 4), 4);
        }
        if (sPayload.size() - ul - ulHead < ulLength) {
            break;
        }
        items[static_cast<unsigned int>(fuzzNumber(sPayload.substr(ul, 2), 2))] =
            sPayload.substr(ul + ulHead, ulLength);
        ul += ulHead + ulLength;
    }
    return items;
}

unsigned long fuzzNumber(const std::string &sValue, std::size_t ulBytes) {
    unsigned long ulNumber = 0;
    for (std::size_t ul = std::min(ulBytes, sValue.size()); ul > 0; ul--) {
        ulNumber = ulNumber << 8 | static_cast<unsigned char>(sValue[ul - 1]);
    }
    return ulNumber;
}

// The calls that the receivers make. The linker prefers these definitions to those of the libraries.
extern "C" {

int ktn_xapi_ktnet_init_with_version(KTNET_ENDPOINT **ppDesc, int, int) {
    server = KTNET_ENDPOINT{};
    *ppDesc = &server;
    return 1;
}

int ktn_xapi_ktnet_create(KTNET_ENDPOINT *) {
    return 1;
}

int ktn_xapi_rx_poll_socket(int, unsigned int) {
    if (pRun->ulTaken > 0) {
        (*pRun->pAfter)((*pRun->pRequests)[pRun->ulTaken - 1]);
    }
    if (pRun->ulTaken < pRun->pRequests->size()) {
        return 1;
    }
    engineRequestStop(&pRun->block);
    return 0;
}

int ktn_xapi_ktnet_accept(KTNET_ENDPOINT *, KTNET_ENDPOINT **ppConn) {
    *ppConn = &connection;
    return 1;
}

int ktn_xapi_ktnet_rx_data(KTNET_ENDPOINT *, KTNET_PACKET *pPacket) {
    const FuzzRequest &request = (*pRun->pRequests)[pRun->ulTaken++];
    pPacket->uiCommand = request.uiCommand;
    pPacket->uiParam = static_cast<unsigned int>(pRun->ulTaken);
    pPacket->ulPayloadLen = request.sPayload.size();
    pPacket->pPayload = nullptr;
    if (!request.sPayload.empty()) { // exactly this size, so that a sanitizer notices a read beyond it
        pPacket->pPayload = static_cast<unsigned char *>(std::malloc(request.sPayload.size()));
        std::memcpy(pPacket->pPayload, request.sPayload.data(), request.sPayload.size());
    }
    return 1;
}

int ktn_xapi_ktnet_close(KTNET_ENDPOINT *) {
    return 1;
}

int ktn_xapi_ktnet_delete(KTNET_ENDPOINT **ppDesc) {
    *ppDesc = nullptr;
    return 1;
}

void ktn_xapi_free(void *pPayload) {
    std::free(pPayload);
}

void vexa_load_balance() {}

// The lists' locks pause with select(). Here they do not wait.
int __wrap_select(int, fd_set *, fd_set *, fd_set *, timeval *) {
    return 0;
}
}

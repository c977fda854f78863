#include "requestsender.h"

#include "pccastmain.h"

#include <cstdio>
#include <cstdlib>

namespace {

int connectAndSend(KTNET_ENDPOINT *pDesc, int iConnected, KTNET_PACKET *pPacket) {
    int iResult = ktn_xapi_ktnet_connect(pDesc);
    if (iResult >= iConnected) {
        iResult = ktn_xapi_ktnet_tx_data(pDesc, pPacket);
        if (iResult < 0) {
            std::printf("[%s:%d] \e[2;31m KTNetTxData() return:%u(0x%X) \e[1;41m[ERROR]\e[0m\n", kModule,
                        __LINE__, static_cast<unsigned int>(iResult), static_cast<unsigned int>(iResult));
        }
    }
    ktn_xapi_ktnet_close(pDesc);
    return iResult;
}

} // namespace

int sendRequest(KTNET_USE eUse, int iConnected, KTNET_PACKET *pPacket) {
    KTNET_ENDPOINT *pDesc = nullptr;
    KTNET_STEP eStep = KTNET_STEP_INIT;
    int iResult = KTNETOpenClient(&pDesc, eUse, &eStep);
    if (pPacket->pPayload != nullptr && eStep == KTNET_STEP_CREATE && iResult > 0) {
        iResult = connectAndSend(pDesc, iConnected, pPacket);
    }
    if (pDesc != nullptr) {
        ktn_xapi_ktnet_delete(&pDesc);
    }
    std::free(pPacket->pPayload);
    pPacket->pPayload = nullptr;
    return iResult;
}

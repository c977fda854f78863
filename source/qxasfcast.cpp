// The ASF file cast driver.
#include "filecast.h"

#include "filecastloop.h"

namespace {

constexpr const char *kModule = "qxasfcast";
constexpr const char *kDriver = "qxbox_asfcast";
constexpr unsigned int kHops = 16;

struct CloseCaster {
    void operator()(ts_qxapi_asfcast *pCaster) const { qxapi_close_asfcast(pCaster); }
};
using Caster = std::unique_ptr<ts_qxapi_asfcast, CloseCaster>;

// Opens the caster for the playout. A station or target that it refuses is reported, and the playout goes on.
Caster openCaster(const ASFCASTARG *pArg) {
    Caster pCaster(qxapi_open_asfcast());
    if (pCaster == nullptr) {
        qxapi_assert_gateway(0, kModule, kDriver, __LINE__, "s_asfcast != ((struct ts_qxapi_asfcast *)0)");
        return nullptr;
    }
    pCaster->uiMode = pArg->uiMode;
    pCaster->uiHops = kHops;
    if (pCaster->pSetStation(pCaster.get(), pArg->pszNSC, pArg->uiFormatIndex) != 1) {
        qxapi_assert_gateway(0, kModule, kDriver, __LINE__, "invalud nsc or format_index");
    }
    if (pArg->pszTarget != nullptr &&
        pCaster->pSetTarget(pCaster.get(), pArg->pszTarget, pArg->uiTargetPort) != 1) {
        qxapi_assert_gateway(0, kModule, kDriver, __LINE__, "invalid target or port");
    }
    return pCaster;
}

} // namespace

int qxbox_asfcast(ASFCASTARG *pArg) {
    qxapi_printf("cast \"\e[1;32m%s\e[0m\"\n", pArg->pszFile);
    const Stream pStream = filecastOpen(pArg->pszFile, kModule, kDriver);
    if (pStream == nullptr) {
        return -1;
    }
    const tm start = filecastNow();
    Caster pCaster;
    const int iResult = filecastPlay(pStream.get(), pArg->pBlock, [&](const ts_qxapi_packet *pPacket) {
        if (pCaster == nullptr) {
            pCaster = openCaster(pArg);
        }
        if (pCaster == nullptr) {
            return -1;
        }
        const int iSent = pCaster->pSend(pCaster.get(), pPacket->pData, pPacket->uiLength);
        if (iSent != 1) {
            qxapi_assert_gateway(0, kModule, kDriver, __LINE__, "cast error");
        }
        return iSent;
    });
    filecastLog(start, filecastNow(), pArg->pInfo, qxapi_check_string_ex(pArg->pszNSC, "NULL"));
    return iResult;
}

// The transport stream file cast driver.
#include "filecast.h"

#include "filecastloop.h"

namespace {

constexpr const char *kModule = "qxtscast";
constexpr const char *kDriver = "qxbox_tscast";
constexpr int kReserved = -1;
constexpr unsigned int kDefaultPort = 2777; // where the target text names none

struct CloseCaster {
    void operator()(ts_qxapi_tscast *pCaster) const { qxapi_close_tscast(pCaster); }
};
using Caster = std::unique_ptr<ts_qxapi_tscast, CloseCaster>;

Caster openCaster(const TSCASTARG *pArg) {
    Caster pCaster(qxapi_open_tscast());
    if (pCaster == nullptr) {
        qxapi_assert_gateway(0, kModule, kDriver, __LINE__, "s_tscast != ((struct ts_qxapi_tscast *)0)");
        return nullptr;
    }
    pCaster->uiMode = pArg->uiMode;
    // A set-up that fails shows in the first send.
    pCaster->pSetUp(pCaster.get(), pArg->pszAux, kReserved, pArg->pszTarget, kDefaultPort,
                    pArg->uiCasterParam);
    return pCaster;
}

} // namespace

int qxbox_tscast(TSCASTARG *pArg) {
    qxapi_printf("cast \"\e[1;32m%s\e[0m\" to \"\e[1;37m%s\e[0m\"\n", pArg->pszFile,
                 qxapi_check_string(pArg->pszTarget));
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
        return pCaster == nullptr ? -1 : pCaster->pSend(pCaster.get(), pPacket->pData, pPacket->uiLength);
    });
    filecastLog(start, filecastNow(), pArg->pInfo, nullptr);
    return iResult;
}

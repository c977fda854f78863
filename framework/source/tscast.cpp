// tscast.cpp - sends runs of transport stream packets, one UDP datagram each.
//
// Called by whoever plays a file, on one thread. A caster owns its socket.
#include "casttarget.h"
#include "report.h"
#include "udpsocket.h"

#include <qxapi.h>

#include <cstring>
#include <memory>
#include <new>
#include <unistd.h>

namespace {

struct TSCAST : ts_qxapi_tscast {
    int iSocket = -1;
    CASTTARGET Target;
};

int setUp(ts_qxapi_tscast *pCaster, const char *pszAux, int, const char *pszTarget, unsigned int uiPort,
          unsigned int uiHops) {
    TSCAST &Caster = *static_cast<TSCAST *>(pCaster);
    try {
        std::string sReason;
        CASTTARGET Target;
        if (!castTargetParse(pszTarget, uiPort, Target, sReason)) {
            frameworkReport("tscast", "%s: nothing can be sent", sReason.c_str());
            return 0;
        }
        if (uiHops > 255) {
            frameworkReport("tscast", "%s: a hop limit of %u is above 255: nothing can be sent", pszTarget,
                            uiHops);
            return 0;
        }
        const int iSocket =
            udpOpenSender(Target.sAddress.c_str(), Target.usPort, pszAux, static_cast<int>(uiHops));
        if (iSocket < 0)
            return 0;
        if (Caster.iSocket >= 0)
            close(Caster.iSocket);
        Caster.iSocket = iSocket;
        Caster.Target = std::move(Target);
        return 1;
    } catch (const std::bad_alloc &) {
        frameworkReport("tscast", "no memory: nothing can be sent");
        return 0;
    }
}

int sendRun(ts_qxapi_tscast *pCaster, const unsigned char *pData, unsigned int uiLength) {
    const TSCAST &Caster = *static_cast<TSCAST *>(pCaster);
    if (Caster.iSocket < 0)
        return 0;
    const int iSent = udpSend(Caster.iSocket, pData, uiLength);
    if (iSent >= 0)
        return 1;
    frameworkReport("tscast", "%s:%u: a datagram of %u bytes cannot be sent: %s",
                    Caster.Target.sAddress.c_str(), Caster.Target.usPort, uiLength, std::strerror(-iSent));
    return -1;
}

} // namespace

ts_qxapi_tscast *qxapi_open_tscast(void) {
    TSCAST *pCaster = new (std::nothrow) TSCAST{};
    if (pCaster) {
        pCaster->pSetUp = setUp;
        pCaster->pSend = sendRun;
    }
    return pCaster;
}

void qxapi_close_tscast(ts_qxapi_tscast *pCaster) {
    if (!pCaster)
        return;
    TSCAST *pOwn = static_cast<TSCAST *>(pCaster);
    if (pOwn->iSocket >= 0)
        close(pOwn->iSocket);
    delete pOwn;
}

// tscast.cpp - sends runs of transport stream packets, each run as one UDP datagram.
//
// Called by the player of a file, on one thread. A caster owns its socket.
#include "casttarget.h"
#include "report.h"
#include "udpsocket.h"

#include <qxapi.h>

#include <cstring>
#include <memory>
#include <new>
#include <unistd.h>

namespace {

struct TsCaster : ts_qxapi_tscast {
    UdpSender sender;
    CastTarget target;
};

int setUp(ts_qxapi_tscast *pCaster, const char *pszAux, int, const char *pszTarget, unsigned int uiPort,
          unsigned int uiHops) {
    TsCaster &caster = *static_cast<TsCaster *>(pCaster);
    try {
        std::string sReason;
        CastTarget target;
        if (!castTargetParse(pszTarget, uiPort, target, sReason)) {
            frameworkReport("tscast", "%s: nothing can be sent", sReason.c_str());
            return 0;
        }
        if (uiHops > 255) {
            frameworkReport("tscast", "%s: a hop limit of %u is above 255: nothing can be sent", pszTarget,
                            uiHops);
            return 0;
        }
        UdpSender sender;
        if (udpOpenSender(sender, target.sAddress.c_str(), target.usPort, pszAux, static_cast<int>(uiHops)) <
            0) {
            return 0;
        }
        if (caster.sender.iSocket >= 0) {
            close(caster.sender.iSocket);
        }
        caster.sender = sender;
        caster.target = std::move(target);
        return 1;
    } catch (const std::bad_alloc &) {
        frameworkReport("tscast", "no memory: nothing can be sent");
        return 0;
    }
}

int sendRun(ts_qxapi_tscast *pCaster, const unsigned char *pData, unsigned int uiLength) {
    TsCaster &caster = *static_cast<TsCaster *>(pCaster);
    if (caster.sender.iSocket < 0) {
        return 0;
    }
    const int iSent = udpSend(caster.sender, pData, uiLength);
    if (iSent >= 0) {
        return 1;
    }
    frameworkReport("tscast", "%s:%u: a datagram of %u bytes cannot be sent: %s",
                    caster.target.sAddress.c_str(), caster.target.usPort, uiLength, std::strerror(-iSent));
    return -1;
}

} // namespace

ts_qxapi_tscast *qxapi_open_tscast(void) {
    TsCaster *pCaster = new (std::nothrow) TsCaster{};
    if (pCaster) {
        pCaster->pSetUp = setUp;
        pCaster->pSend = sendRun;
    }
    return pCaster;
}

void qxapi_close_tscast(ts_qxapi_tscast *pCaster) {
    if (!pCaster) {
        return;
    }
    TsCaster *pOwn = static_cast<TsCaster *>(pCaster);
    if (pOwn->sender.iSocket >= 0) {
        close(pOwn->sender.iSocket);
    }
    delete pOwn;
}

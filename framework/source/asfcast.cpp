// asfcast.cpp - sends ASF data packets as Media Stream Broadcast (MSB) packets, to a station's group or a
// target.
//
// Called by the player of a file, on one thread. A caster owns its socket. One bit of the stream id changes
// with each playout, so that receivers tell one playout from the next. The process counts its playouts for
// that bit.
#include "casttarget.h"
#include "nsc.h"
#include "report.h"
#include "udpsocket.h"

#include <qxapi.h>

#include <atomic>
#include <cstring>
#include <memory>
#include <new>
#include <sys/uio.h>
#include <unistd.h>

namespace {

constexpr std::size_t kMsbHeaderSize = 8;
constexpr unsigned int kMsbPacketMax = 65507; // the most that an IPv4 datagram holds
constexpr unsigned int kStreamIdToggle = 0x8000;

std::atomic<unsigned int> uiPlayouts{0}; // playouts of this process that have sent something

struct AsfCaster : ts_qxapi_asfcast {
    UdpSender sender;
    CastTarget target;
    int iStationHops = -1;       // hop limit of the station file, -1 none
    unsigned int uiFormatID = 0; // of the station's format
    unsigned int uiPacketID = 0; // of the next packet
    unsigned int uiToggle = 0;   // the playout's bit of the stream id
    bool bToggleChosen = false;  // the first packet chooses uiToggle
};

// Opens a socket to target and closes the earlier one. Returns 1. Returns 0 on failure (reported); the
// earlier socket then stays.
int openTarget(AsfCaster &caster, CastTarget target, int iStationHops) {
    const unsigned int uiHops = iStationHops >= 0 ? static_cast<unsigned int>(iStationHops) : caster.uiHops;
    if (uiHops > 255) {
        frameworkReport("asfcast", "%s:%u: a hop limit of %u is above 255: nothing is sent there",
                        target.sAddress.c_str(), target.usPort, uiHops);
        return 0;
    }
    UdpSender sender;
    if (udpOpenSender(sender, target.sAddress.c_str(), target.usPort, nullptr, static_cast<int>(uiHops)) <
        0) {
        return 0;
    }
    if (caster.sender.iSocket >= 0) {
        close(caster.sender.iSocket);
    }
    caster.sender = sender;
    caster.target = std::move(target);
    return 1;
}

int setStation(ts_qxapi_asfcast *pCaster, const char *pszNSC, unsigned int uiFormatIndex) {
    AsfCaster &caster = *static_cast<AsfCaster *>(pCaster);
    const char *pszFile = pszNSC ? pszNSC : "(no file named)";
    try {
        std::string sReason = "no station file is named";
        NscStation station;
        if (!pszNSC || !nscRead(pszNSC, station, sReason)) {
            frameworkReport("asfcast", "%s is no station to send from: %s", pszFile, sReason.c_str());
            return 0;
        }
        const NscFormat *pFormat = nscFindFormat(station, uiFormatIndex);
        if (!pFormat) {
            frameworkReport("asfcast", "%s has no Format%u", pszFile, uiFormatIndex);
            return 0;
        }
        if (!openTarget(caster, {station.sAddress, station.usPort}, station.iHops)) {
            return 0;
        }
        caster.iStationHops = station.iHops;
        caster.uiFormatID = pFormat->uiFormatID;
        return 1;
    } catch (const std::bad_alloc &) {
        frameworkReport("asfcast", "%s: no memory to read it", pszFile);
        return 0;
    }
}

int setTarget(ts_qxapi_asfcast *pCaster, const char *pszTarget, unsigned int uiPort) {
    AsfCaster &caster = *static_cast<AsfCaster *>(pCaster);
    try {
        std::string sReason;
        CastTarget target;
        if (!castTargetParse(pszTarget, uiPort, target, sReason)) {
            frameworkReport("asfcast", "%s: it is not taken as the target", sReason.c_str());
            return 0;
        }
        return openTarget(caster, std::move(target), caster.iStationHops);
    } catch (const std::bad_alloc &) {
        frameworkReport("asfcast", "no memory to take a target");
        return 0;
    }
}

// Writes the header of an MSB packet of uiSize bytes, little-endian: packet id, stream id, size.
void writeHeader(unsigned char *pHeader, unsigned int uiPacketID, unsigned int uiStreamID,
                 unsigned int uiSize) {
    for (unsigned int ui = 0; ui < 4; ui++) {
        pHeader[ui] = static_cast<unsigned char>(uiPacketID >> 8 * ui);
    }
    for (unsigned int ui = 0; ui < 2; ui++) {
        pHeader[4 + ui] = static_cast<unsigned char>(uiStreamID >> 8 * ui);
        pHeader[6 + ui] = static_cast<unsigned char>(uiSize >> 8 * ui);
    }
}

int sendPacket(ts_qxapi_asfcast *pCaster, const unsigned char *pData, unsigned int uiLength) {
    AsfCaster &caster = *static_cast<AsfCaster *>(pCaster);
    if (caster.sender.iSocket < 0) {
        return 0;
    }
    if (uiLength > kMsbPacketMax - kMsbHeaderSize) {
        frameworkReport("asfcast", "%s:%u: a data packet of %u bytes is too large for a datagram",
                        caster.target.sAddress.c_str(), caster.target.usPort, uiLength);
        return -1;
    }
    if (!caster.bToggleChosen) {
        caster.uiToggle = uiPlayouts.fetch_add(1, std::memory_order_relaxed) % 2 * kStreamIdToggle;
        caster.bToggleChosen = true;
    }
    unsigned char aHeader[kMsbHeaderSize];
    const unsigned int uiSize = uiLength + static_cast<unsigned int>(kMsbHeaderSize);
    writeHeader(aHeader, caster.uiPacketID++, caster.uiFormatID | caster.uiToggle, uiSize);
    iovec aPiece[2] = {{aHeader, kMsbHeaderSize}, {const_cast<unsigned char *>(pData), uiLength}};
    msghdr message{};
    message.msg_iov = aPiece;
    message.msg_iovlen = 2;
    const int iSent = udpSendMessage(caster.sender, message);
    if (iSent >= 0) {
        return 1;
    }
    frameworkReport("asfcast", "%s:%u: a packet of %u bytes cannot be sent: %s",
                    caster.target.sAddress.c_str(), caster.target.usPort, uiSize, std::strerror(-iSent));
    return -1;
}

} // namespace

ts_qxapi_asfcast *qxapi_open_asfcast(void) {
    AsfCaster *pCaster = new (std::nothrow) AsfCaster{};
    if (pCaster) {
        pCaster->pSetStation = setStation;
        pCaster->pSetTarget = setTarget;
        pCaster->pSend = sendPacket;
    }
    return pCaster;
}

void qxapi_close_asfcast(ts_qxapi_asfcast *pCaster) {
    if (!pCaster) {
        return;
    }
    AsfCaster *pOwn = static_cast<AsfCaster *>(pCaster);
    if (pOwn->sender.iSocket >= 0) {
        close(pOwn->sender.iSocket);
    }
    delete pOwn;
}

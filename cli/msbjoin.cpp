#include "msbjoin.h"

#include "asffile.h"
#include "ktpacket.h"
#include "nsc.h"

#include <sys/mman.h>
#include <unistd.h>

namespace {

constexpr size_t kHeadSize = 8;          // of a packet
constexpr uint32_t kReach = 64;          // numbers further behind than this are those of another playout
constexpr uint32_t kHeldReach = 1024;    // numbers further ahead are not waited for
constexpr unsigned long kPatience = 100; // ms that a packet waits for those before it
constexpr unsigned long kFlutter = 1000; // ms after the begin of a playout in which no other one begins
constexpr unsigned long kSilence = 2000; // ms after which a lower number begins a new playout

// Reads a format's header as the beginning of a file. Returns false when no file can begin with it.
bool readFormat(const NscFormat &format, MSBFormat *pFormat) {
    const int iFile = memfd_create("asf-header", MFD_CLOEXEC);
    if (iFile < 0) {
        return false;
    }
    FileWindow window;
    AsfHeader header;
    std::string sReason;
    windowOpen(window, iFile, 4096);
    const bool bRead = write(iFile, format.header.data(), format.header.size()) ==
                           static_cast<ssize_t>(format.header.size()) &&
                       asfReadHeader(window, header, sReason) &&
                       header.ullDataOffset + kAsfDataHeaderSize <= format.header.size();
    close(iFile);
    if (!bRead) {
        return false;
    }
    pFormat->uiFormatID = format.uiFormatID;
    pFormat->uiPacketSize = header.uiPacketSize;
    pFormat->sHeader.assign(reinterpret_cast<const char *>(format.header.data()),
                            static_cast<size_t>(header.ullDataOffset) + kAsfDataHeaderSize);
    return true;
}

const MSBFormat *findFormat(const MSBJoin &join, unsigned short usStream) {
    for (const MSBFormat &format : join.formats) {
        if (format.uiFormatID == (usStream & kNscFormatIdMax)) {
            return &format;
        }
    }
    return nullptr;
}

// Hands on the held packets that are due, and moves the others nearer. uiGone: numbers that uiNext has moved.
void advance(MSBJoin *pJoin, uint32_t uiGone, std::vector<MSBPiece> *pPieces) {
    std::map<uint32_t, MSBHeld> later;
    for (auto &[uiDistance, packet] : pJoin->held) {
        const uint32_t uiLeft = uiDistance - uiGone;
        if (uiLeft == 0) {
            pPieces->push_back({false, std::move(packet.sBytes)});
            pJoin->counts.ulPackets++;
            pJoin->uiNext++;
            uiGone++;
        } else {
            later.emplace(uiLeft, std::move(packet));
        }
    }
    pJoin->held = std::move(later);
}

// Gives up what is missing before the first held packet.
void skipGap(MSBJoin *pJoin, std::vector<MSBPiece> *pPieces) {
    const uint32_t uiGap = pJoin->held.begin()->first;
    pJoin->counts.ulLost += uiGap;
    pJoin->uiNext += uiGap;
    advance(pJoin, uiGap, pPieces);
}

bool beginsPlayout(const MSBJoin &join, unsigned short usStream, uint32_t uiNumber, unsigned long ulNow) {
    if (!join.usStream || *join.usStream != usStream) {
        return true;
    }
    const uint32_t uiBehind = join.uiNext - uiNumber;
    const bool bBehind = uiBehind > 0 && uiBehind < 1u << 31;
    return bBehind && (uiBehind > kReach || ulNow - join.ulHeard > kSilence);
}

} // namespace

std::string msbReadStation(const std::string &sStation, std::vector<MSBFormat> *pFormats,
                           std::string *psAddress, unsigned short *pusPort) {
    NscStation station;
    std::string sReason;
    if (!nscParse(sStation, station, sReason)) {
        return sReason;
    }
    std::vector<MSBFormat> formats;
    for (const NscFormat &format : station.formats) {
        MSBFormat usable;
        if (readFormat(format, &usable)) {
            formats.push_back(std::move(usable));
        }
    }
    if (formats.empty()) {
        return "no format in it begins an ASF file";
    }
    *pFormats = std::move(formats);
    *psAddress = station.sAddress;
    *pusPort = station.usPort;
    return "";
}

void msbTake(MSBJoin *pJoin, const unsigned char *pBytes, size_t uLength, unsigned long ulNow,
             std::vector<MSBPiece> *pPieces) {
    const unsigned short usStream = uLength > kHeadSize ? ktpacketGetWORD(pBytes + 4) : 0;
    const MSBFormat *const pFormat = uLength > kHeadSize ? findFormat(*pJoin, usStream) : nullptr;
    unsigned int uiSendTime = 0;
    if (pFormat == nullptr || ktpacketGetWORD(pBytes + 6) != uLength ||
        uLength - kHeadSize > pFormat->uiPacketSize ||
        !asfReadSendTime(pBytes + kHeadSize, uLength - kHeadSize, uiSendTime)) {
        pJoin->counts.ulForeign++;
        return;
    }
    const uint32_t uiNumber = ktpacketGetDWORD(pBytes);
    if (beginsPlayout(*pJoin, usStream, uiNumber, ulNow)) {
        // A late packet of the last playout, or one that somebody else has sent.
        if (pJoin->usStream && ulNow - pJoin->ulChanged < kFlutter) {
            pJoin->counts.ulForeign++;
            return;
        }
        while (!pJoin->held.empty()) {
            skipGap(pJoin, pPieces);
        }
        pJoin->usStream = usStream;
        pJoin->ulChanged = ulNow;
        pJoin->uiNext = uiNumber;
        pPieces->push_back({true, pFormat->sHeader});
    }
    pJoin->ulHeard = ulNow;
    const uint32_t uiAhead = uiNumber - pJoin->uiNext;
    if (uiAhead >= 1u << 31 || pJoin->held.contains(uiAhead)) {
        pJoin->counts.ulRepeated++;
        return;
    }
    // A packet may be sent without its padding; in a file all have one size.
    std::string sPacket(reinterpret_cast<const char *>(pBytes) + kHeadSize, uLength - kHeadSize);
    sPacket.resize(pFormat->uiPacketSize);
    pJoin->held.emplace(uiAhead, MSBHeld{std::move(sPacket), ulNow});
    if (uiAhead == 0) {
        advance(pJoin, 0, pPieces);
    }
    while (pJoin->held.size() > kMSBHeldMost ||
           (!pJoin->held.empty() && pJoin->held.rbegin()->first > kHeldReach)) {
        skipGap(pJoin, pPieces);
    }
    msbTick(pJoin, ulNow, pPieces);
}

void msbTick(MSBJoin *pJoin, unsigned long ulNow, std::vector<MSBPiece> *pPieces) {
    while (!pJoin->held.empty() && ulNow - pJoin->held.begin()->second.ulSince >= kPatience) {
        skipGap(pJoin, pPieces);
    }
}

std::string msbText(const MSBCounts &counts) {
    std::string sText = std::to_string(counts.ulPackets) + " packets, " + std::to_string(counts.ulLost) +
                        " lost, " + std::to_string(counts.ulRepeated) + " repeated";
    return counts.ulForeign == 0 ? sText
                                 : sText + ", " + std::to_string(counts.ulForeign) + " not of this station";
}

// The texts of SAP: pure functions.
#include "sap.h"

#include <arpa/inet.h>
#include <qxapi.h>

#include <algorithm>

namespace {

constexpr unsigned long kNTP = 2'208'988'800; // seconds from 1900 to 1970
constexpr unsigned char kAnnounce = 0x20;     // version 1, IPv4, neither encrypted nor compressed
constexpr unsigned char kDelete = 0x24;

} // namespace

std::string sapDescription(const SapCast &cast, const std::string &sOrigin) {
    const std::string sEPG = std::to_string(cast.ulEPGID);
    // The version of a session grows when its description changes. Here a changed cast is another session.
    return "v=0\r\n"
           "o=- " +
           std::to_string(cast.ulStarted + kNTP) + std::to_string(cast.ulRequest % 10000) + " 1 IN IP4 " +
           sOrigin +
           "\r\n"
           "s=PCCAST programme " +
           sEPG +
           "\r\n"
           "c=IN IP4 " +
           cast.sGroup + "/" + std::to_string(cast.uiHops) +
           "\r\n"
           "t=" +
           std::to_string(cast.ulStarted + kNTP) + " " + std::to_string(cast.ulET + kNTP) +
           "\r\n"
           "a=tool:pccast\r\n"
           "a=type:broadcast\r\n"
           "a=recvonly\r\n"
           // Players know a bare transport stream by the number that it has in RTP.
           "m=video " +
           std::to_string(cast.usPort) +
           " udp 33\r\n"
           "a=rtpmap:33 MP2T/90000\r\n";
}

std::string sapPacket(const std::string &sDescription, const std::string &sOrigin, bool bDelete) {
    const unsigned int uiHash = qxapi_crc32(
        0xFFFFFFFFu, reinterpret_cast<const unsigned char *>(sDescription.data()), sDescription.size());
    struct in_addr origin {};
    inet_pton(AF_INET, sOrigin.c_str(), &origin);
    std::string sPacket;
    sPacket += static_cast<char>(bDelete ? kDelete : kAnnounce);
    sPacket += '\0'; // no authentication
    // The hash tells descriptions apart; 0 would mean that there is none.
    sPacket += static_cast<char>(uiHash >> 8 | 1);
    sPacket += static_cast<char>(uiHash);
    sPacket.append(reinterpret_cast<const char *>(&origin), sizeof origin);
    sPacket += "application/sdp";
    sPacket += '\0';
    // To take a session back, its origin is enough.
    const size_t uOrigin = std::min(sDescription.find("o="), sDescription.size());
    return sPacket + (bDelete ? sDescription.substr(uOrigin, sDescription.find('\n', uOrigin) + 1 - uOrigin)
                              : sDescription);
}

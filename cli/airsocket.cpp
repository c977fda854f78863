#include "airsocket.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

AirSocket joinGroup(const std::string &sGroup, unsigned short usPort, const std::string &sInterface) {
    KTNET_ENDPOINT *pDesc = nullptr;
    ktn_xapi_ktnet_init_with_version(&pDesc, 0, 2);
    AirSocket endpoint(pDesc, [](KTNET_ENDPOINT *pEndpoint) { ktn_xapi_ktnet_delete(&pEndpoint); });
    if (pDesc == nullptr) {
        return endpoint;
    }
    pDesc->uiKind = KTNET_KIND_UDP;
    pDesc->uiListen = 1;
    pDesc->uiPort = usPort;
    std::strncpy(pDesc->szPeer, sGroup.c_str(), sizeof pDesc->szPeer - 1);
    std::strncpy(pDesc->szLocal, sInterface.c_str(), sizeof pDesc->szLocal - 1);
    if (ktn_xapi_ktnet_create(pDesc) <= 0) {
        endpoint.reset();
    }
    return endpoint;
}

int rejoinGroup(const KTNET_ENDPOINT &endpoint) {
    struct ip_mreqn membership {};
    inet_pton(AF_INET, endpoint.szPeer, &membership.imr_multiaddr);
    if (endpoint.szLocal[0] != 0 && inet_pton(AF_INET, endpoint.szLocal, &membership.imr_address) != 1) {
        membership.imr_ifindex = static_cast<int>(if_nametoindex(endpoint.szLocal));
        if (membership.imr_ifindex == 0) {
            return ENODEV;
        }
    }
    setsockopt(endpoint.iSocket, IPPROTO_IP, IP_DROP_MEMBERSHIP, &membership, sizeof membership);
    const int iResult =
        setsockopt(endpoint.iSocket, IPPROTO_IP, IP_ADD_MEMBERSHIP, &membership, sizeof membership);
    // EADDRINUSE: it was joined on another interface, and still is.
    return iResult == 0 || errno == EADDRINUSE ? 0 : errno;
}

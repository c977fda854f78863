#include "airsocket.h"

#include "interface.h"

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

bool rejoinGroup(const std::string &sGroup, std::span<const unsigned short> ports,
                 const std::string &sInterface, std::span<AirSocket> sockets) {
    for (AirSocket &socket : sockets) {
        socket.reset();
    }
    Interface route;
    if (sInterface.empty() ? findRoute(&route) != 0 : !findInterface(sInterface)) {
        return false;
    }
    bool bAll = true;
    for (size_t i = 0; i < ports.size(); ++i) {
        sockets[i] = joinGroup(sGroup, ports[i], sInterface);
        bAll = bAll && sockets[i];
    }
    return bAll;
}

#include "bench.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

namespace bench {

namespace {

sockaddr_in addressOf(const char *pGroup, unsigned short usPort) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(usPort);
    inet_pton(AF_INET, pGroup, &address.sin_addr);
    return address;
}

} // namespace

int openReceiver(const char *pGroup, unsigned short usPort, int iBuffer) {
    const int iSocket = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    require(iSocket >= 0, "receiver");
    const int iOn = 1;
    setsockopt(iSocket, SOL_SOCKET, SO_REUSEADDR, &iOn, sizeof iOn);
    if (iBuffer > 0 && setsockopt(iSocket, SOL_SOCKET, SO_RCVBUFFORCE, &iBuffer, sizeof iBuffer) != 0) {
        setsockopt(iSocket, SOL_SOCKET, SO_RCVBUF, &iBuffer, sizeof iBuffer);
    }
    const sockaddr_in address = addressOf(pGroup, usPort);
    require(bind(iSocket, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0, "bind");
    const ip_mreq request{address.sin_addr, {htonl(INADDR_LOOPBACK)}};
    require(setsockopt(iSocket, IPPROTO_IP, IP_ADD_MEMBERSHIP, &request, sizeof request) == 0, "join");
    return iSocket;
}

int openSender(const char *pGroup, unsigned short usPort) {
    const int iSocket = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    require(iSocket >= 0, "sender");
    const sockaddr_in address = addressOf(pGroup, usPort);
    require(connect(iSocket, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0, "connect");
    return iSocket;
}

} // namespace bench

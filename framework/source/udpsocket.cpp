#include "udpsocket.h"

#include "report.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <net/if.h>
#include <poll.h>
#include <unistd.h>

namespace {

// The space that 100 ms of 1316-byte datagrams at 400 Mbit/s take in a socket's queue. The kernel counts
// all the memory of a datagram: its 2 KiB buffer and the 256 bytes of its descriptor.
constexpr int kStallDatagrams = 400'000'000 / 10 / (1316 * 8);
constexpr int kDatagramCharge = 2048 + 256;
constexpr int kStallBytes = kStallDatagrams * kDatagramCharge;
constexpr int kSendBytes = 2 * 1024 * 1024;

// During a fault: between two tries, and between two searches for the way once the fault has lasted.
constexpr int kRetryPauseMs = 10;
constexpr int kSearchPauseMs = 1000;

constexpr const char *kWhoSender = "udpOpenSender";

int closeWith(int iSocket, int iErrno) {
    close(iSocket);
    return -iErrno;
}

int setInteger(int iSocket, int iLevel, int iOption, int iValue) {
    return setsockopt(iSocket, iLevel, iOption, &iValue, sizeof iValue);
}

bool isGroup(const sockaddr_in &address) {
    return IN_MULTICAST(ntohl(address.sin_addr.s_addr));
}

// Reads address and port into Address. Returns 0, or an errno (reported).
int readAddress(const char *pszWho, const char *pszAddress, unsigned short usPort, sockaddr_in &address) {
    address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(usPort);
    if (pszAddress == nullptr || inet_pton(AF_INET, pszAddress, &address.sin_addr) != 1) {
        frameworkReport(pszWho, "\"%s\" is no IPv4 address (four numbers with dots)",
                        pszAddress == nullptr ? "" : pszAddress);
        return EINVAL;
    }
    if (address.sin_addr.s_addr == htonl(INADDR_ANY) || usPort == 0) {
        frameworkReport(pszWho, "%s:%u names no target: neither the address nor the port may be zero",
                        pszAddress, usPort);
        return EINVAL;
    }
    return 0;
}

// Reads an interface's name or one of this machine's addresses. Returns 0, or an errno (reported).
int readInterface(const char *pszWho, const char *pszFrom, const char *pszInterface, ip_mreqn &interface) {
    if (inet_pton(AF_INET, pszInterface, &interface.imr_address) == 1) {
        return 0;
    }
    interface.imr_address.s_addr = htonl(INADDR_ANY);
    interface.imr_ifindex = static_cast<int>(if_nametoindex(pszInterface));
    if (interface.imr_ifindex != 0) {
        return 0;
    }
    frameworkReport(pszWho, "\"%s\" (%s) is neither a network interface nor an address of this machine",
                    pszInterface, pszFrom);
    return ENODEV;
}

// Asks for a receive buffer that holds all datagrams of a 100 ms stall. The kernel doubles the number asked
// for, and the doubled size is needed: drivers differ in the memory they use, and while a reader catches
// up, up to a quarter of the buffer still counts as full.
void askForReceiveBuffer(int iSocket, const char *pszAddress, unsigned short usPort) {
    if (setInteger(iSocket, SOL_SOCKET, SO_RCVBUFFORCE, kStallBytes) != 0) {
        setInteger(iSocket, SOL_SOCKET, SO_RCVBUF, kStallBytes);
    }
    int iGiven = 0;
    socklen_t uiLength = sizeof iGiven;
    getsockopt(iSocket, SOL_SOCKET, SO_RCVBUF, &iGiven, &uiLength);
    if (iGiven < kStallBytes / 10 * 9) {
        frameworkReport("udpOpenReceiver",
                        "%s:%u: the kernel gives a receive buffer of %d bytes; %d ride out a 100 ms stall at "
                        "400 Mbit/s: raise net.core.rmem_max to %d",
                        pszAddress, usPort, iGiven, kStallBytes, kStallBytes);
    }
}

// Chooses the interface that sends to a group: the one given, else the one that KTNET_MULTICAST_IF names,
// else the routing table's. Returns 0, or an errno (reported).
int setGroupInterface(int iSocket, const char *pszAddress, const char *pszInterface) {
    const char *pszFrom = "given";
    if (pszInterface == nullptr || *pszInterface == 0) {
        pszInterface = std::getenv("KTNET_MULTICAST_IF");
        pszFrom = "from KTNET_MULTICAST_IF";
    }
    if (pszInterface == nullptr || *pszInterface == 0) {
        return 0;
    }
    ip_mreqn interface {};
    if (const int iErrno = readInterface(kWhoSender, pszFrom, pszInterface, interface)) {
        return iErrno;
    }
    if (setsockopt(iSocket, IPPROTO_IP, IP_MULTICAST_IF, &interface, sizeof interface) != 0) {
        const int iErrno = errno;
        frameworkReport(kWhoSender, "can not send to %s through \"%s\" (%s): %s", pszAddress, pszInterface,
                        pszFrom, std::strerror(iErrno));
        return iErrno;
    }
    return 0;
}

// Sets the hop limit and the local copy for datagrams to a group. Returns 0, or an errno (reported).
int setGroupReach(int iSocket, const char *pszAddress, int iHops) {
    if (setInteger(iSocket, IPPROTO_IP, IP_MULTICAST_LOOP, 1) != 0 ||
        (iHops >= 0 && setInteger(iSocket, IPPROTO_IP, IP_MULTICAST_TTL, iHops) != 0)) {
        const int iErrno = errno;
        frameworkReport(kWhoSender, "%s: can not set the hop limit %d: %s", pszAddress, iHops,
                        std::strerror(iErrno));
        return iErrno;
    }
    return 0;
}

// Returns whether the errno of a send may pass by itself. EINVAL, EADDRNOTAVAIL: the socket's own address has
// gone with its interface. EDESTADDRREQ: looking for the way has failed and left the socket unconnected.
bool mayPass(int iErrno) {
    switch (iErrno) {
    case ENOBUFS:
    case ENOMEM:
    case ENETDOWN:
    case ENETUNREACH:
    case EHOSTUNREACH:
    case ENODEV:
    case ENXIO:
    case EADDRNOTAVAIL:
    case EINVAL:
    case EDESTADDRREQ:
        return true;
    default:
        return false;
    }
}

// Looks for the way to the target anew: the interface may have another number now, the machine another
// address. The socket keeps its number and its settings.
void findWay(UdpSender &sender) {
    char szAddress[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, &sender.target.sin_addr, szAddress, sizeof szAddress);
    if (isGroup(sender.target) && setGroupInterface(sender.iSocket, szAddress, sender.szInterface) != 0) {
        return;
    }
    // Without the first call the socket would keep its old address. If one fails, the next send tells.
    const sockaddr none{AF_UNSPEC, {}};
    (void)connect(sender.iSocket, &none, sizeof none);
    (void)connect(sender.iSocket, reinterpret_cast<const sockaddr *>(&sender.target), sizeof sender.target);
}

// Calls sendOnce until it has sent, at most twice: an ICMP answer to an earlier datagram may have left an
// error, and reporting clears it. Returns the bytes sent, or a negative errno.
template <typename SendOnce>
int sendTwice(const SendOnce &sendOnce) {
    bool bSecond = false;
    for (;;) {
        const ssize_t lSent = sendOnce();
        if (lSent >= 0) {
            return static_cast<int>(lSent);
        }
        switch (errno) {
        case EINTR:
            break;
        case ECONNREFUSED:
        case ENETUNREACH:
        case EHOSTUNREACH:
        case EHOSTDOWN:
        case ENONET:
        case ENOPROTOOPT:
            if (bSecond) {
                return -errno;
            }
            bSecond = true;
            break;
        default:
            return -errno;
        }
    }
}

// Sends when the first try has failed with iResult. Returns the bytes sent, or the negative errno of the
// fault.
template <typename SendOnce>
int sendInFault(UdpSender &sender, int iResult, const SendOnce &sendOnce) {
    const Deadline deadline = deadlineIn(sender.bFault ? 0 : kUdpRideOutMs);
    while (mayPass(-iResult)) {
        const Deadline now = std::chrono::steady_clock::now();
        if (iResult != -ENOBUFS && iResult != -ENOMEM && (!sender.bFault || now >= sender.nextSearch)) {
            sender.nextSearch = now + std::chrono::milliseconds(kSearchPauseMs);
            findWay(sender);
        } else if (sender.bFault) {
            return iResult;
        }
        const int iAgain = sendTwice(sendOnce);
        if (iAgain >= 0) {
            sender.bFault = false;
            return iAgain;
        }
        if (deadlineLeft(deadline) == 0) {
            sender.bFault = true;
            return iResult;
        }
        poll(nullptr, 0, kRetryPauseMs);
    }
    return iResult;
}

} // namespace

int udpOpenSender(UdpSender &sender, const char *pszAddress, unsigned short usPort, const char *pszInterface,
                  int iHops) {
    sender = {};
    sockaddr_in &address = sender.target;
    if (const int iErrno = readAddress(kWhoSender, pszAddress, usPort, address)) {
        return -iErrno;
    }
    if (pszInterface != nullptr) {
        std::strncpy(sender.szInterface, pszInterface, sizeof sender.szInterface - 1);
    }
    const int iSocket = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (iSocket < 0) {
        const int iErrno = errno;
        frameworkReport(kWhoSender, "no socket for %s:%u: %s", pszAddress, usPort, std::strerror(iErrno));
        return -iErrno;
    }
    setInteger(iSocket, SOL_SOCKET, SO_SNDBUF, kSendBytes);
    if (isGroup(address)) {
        int iErrno = setGroupInterface(iSocket, pszAddress, pszInterface);
        if (iErrno == 0) {
            iErrno = setGroupReach(iSocket, pszAddress, iHops);
        }
        if (iErrno != 0) {
            return closeWith(iSocket, iErrno);
        }
    }
    if (connect(iSocket, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
        const int iErrno = errno;
        frameworkReport(kWhoSender, "no way to %s:%u: %s%s", pszAddress, usPort, std::strerror(iErrno),
                        iErrno == ENETUNREACH && isGroup(address)
                            ? " (KTNET_MULTICAST_IF can name the sending interface)"
                            : "");
        return closeWith(iSocket, iErrno);
    }
    sender.iSocket = iSocket;
    return iSocket;
}

int udpOpenReceiver(const char *pszAddress, unsigned short usPort, const char *pszInterface) {
    static constexpr const char *kWho = "udpOpenReceiver";
    sockaddr_in address;
    if (const int iErrno = readAddress(kWho, pszAddress, usPort, address)) {
        return -iErrno;
    }
    const int iSocket = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (iSocket < 0) {
        const int iErrno = errno;
        frameworkReport(kWho, "no socket for %s:%u: %s", pszAddress, usPort, std::strerror(iErrno));
        return -iErrno;
    }
    // Bind to the group itself, to get no other group's datagrams for that port. Turn IP_MULTICAST_ALL off,
    // to get none from interfaces on which only other programs joined.
    if (isGroup(address)) {
        setInteger(iSocket, SOL_SOCKET, SO_REUSEADDR, 1);
        setInteger(iSocket, IPPROTO_IP, IP_MULTICAST_ALL, 0);
    }
    if (bind(iSocket, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
        const int iErrno = errno;
        frameworkReport(kWho, "can not receive on %s:%u: %s", pszAddress, usPort,
                        iErrno == EADDRNOTAVAIL ? "neither a multicast group nor an address of this machine"
                                                : std::strerror(iErrno));
        return closeWith(iSocket, iErrno);
    }
    if (isGroup(address)) {
        const bool bNamed = pszInterface != nullptr && *pszInterface != 0;
        ip_mreqn membership{};
        if (bNamed) {
            if (const int iErrno = readInterface(kWho, "given", pszInterface, membership)) {
                return closeWith(iSocket, iErrno);
            }
        }
        membership.imr_multiaddr = address.sin_addr;
        if (setsockopt(iSocket, IPPROTO_IP, IP_ADD_MEMBERSHIP, &membership, sizeof membership) != 0) {
            const int iErrno = errno;
            frameworkReport(kWho, "can not join %s:%u on %s: %s%s", pszAddress, usPort,
                            bNamed ? pszInterface : "the routing table's interface", std::strerror(iErrno),
                            iErrno == ENODEV && !bNamed ? " (no route leads to 224.0.0.0/4)" : "");
            return closeWith(iSocket, iErrno);
        }
    }
    askForReceiveBuffer(iSocket, pszAddress, usPort);
    return iSocket;
}

int udpSend(UdpSender &sender, const void *pData, unsigned long ulLength) {
    const auto sendOnce = [&] { return send(sender.iSocket, pData, ulLength, MSG_NOSIGNAL); };
    const int iResult = sendTwice(sendOnce);
    if (iResult < 0) {
        return sendInFault(sender, iResult, sendOnce);
    }
    sender.bFault = false;
    return iResult;
}

int udpSendMessage(UdpSender &sender, const msghdr &message) {
    const auto sendOnce = [&] { return sendmsg(sender.iSocket, &message, MSG_NOSIGNAL); };
    const int iResult = sendTwice(sendOnce);
    if (iResult < 0) {
        return sendInFault(sender, iResult, sendOnce);
    }
    sender.bFault = false;
    return iResult;
}

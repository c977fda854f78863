#include "bench.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstring>
#include <ctime>
#include <thread>

namespace bench {

namespace {

constexpr size_t kDatagram = 1316;
constexpr size_t kNumberAt = kDatagram - 4;
constexpr int kReceiveBuffer = 64 << 20;
constexpr int kSilenceMs = 300;
constexpr int kAwakeRate = 25'000;

sockaddr_in addressOf(const char *pGroup, unsigned short usPort) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(usPort);
    inet_pton(AF_INET, pGroup, &address.sin_addr);
    return address;
}

int openReceiver(const char *pGroup, unsigned short usPort) {
    const int iSocket = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    require(iSocket >= 0, "receiver");
    const int iOn = 1;
    setsockopt(iSocket, SOL_SOCKET, SO_REUSEADDR, &iOn, sizeof iOn);
    if (setsockopt(iSocket, SOL_SOCKET, SO_RCVBUFFORCE, &kReceiveBuffer, sizeof kReceiveBuffer) != 0) {
        setsockopt(iSocket, SOL_SOCKET, SO_RCVBUF, &kReceiveBuffer, sizeof kReceiveBuffer);
    }
    const sockaddr_in address = addressOf(pGroup, usPort);
    require(bind(iSocket, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0, "bind");
    ip_mreq request{};
    request.imr_multiaddr = address.sin_addr;
    request.imr_interface.s_addr = htonl(INADDR_LOOPBACK);
    require(setsockopt(iSocket, IPPROTO_IP, IP_ADD_MEMBERSHIP, &request, sizeof request) == 0, "join");
    return iSocket;
}

} // namespace

Traffic runTraffic(const char *pSourceGroup, const char *pDestinationGroup, unsigned short usPort, int iRate,
                   double dSeconds) {
    Traffic traffic{};
    const auto lCount = static_cast<long>(iRate * dSeconds);
    std::vector<int64_t> sentAt(static_cast<size_t>(lCount));
    traffic.delaysUs.reserve(static_cast<size_t>(lCount));
    const int iReceiver = openReceiver(pDestinationGroup, usPort);
    std::atomic<bool> bDone{false};

    std::thread receiver([&] {
        std::array<unsigned char, 2048> datagram;
        pollfd wait{iReceiver, POLLIN, 0};
        // The run ends with a silence behind the last datagram. What has not come by then is lost.
        while (poll(&wait, 1, kSilenceMs) > 0 || !bDone) {
            const ssize_t lLength = recv(iReceiver, datagram.data(), datagram.size(), MSG_DONTWAIT);
            if (lLength != static_cast<ssize_t>(kDatagram)) {
                continue;
            }
            uint32_t uiNumber = 0;
            std::memcpy(&uiNumber, &datagram[kNumberAt], sizeof uiNumber);
            if (uiNumber < sentAt.size()) {
                ++traffic.lReceived;
                traffic.delaysUs.push_back(static_cast<double>(now() - sentAt[uiNumber]) / 1000);
            }
        }
    });

    const int iSender = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    require(iSender >= 0, "sender");
    const sockaddr_in address = addressOf(pSourceGroup, usPort);
    require(connect(iSender, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0, "connect");
    std::array<unsigned char, kDatagram> datagram{};
    prctl(PR_SET_TIMERSLACK, 1); // else the kernel lets it sleep up to 50 us too long
    const int64_t lStart = now();
    for (long i = 0; i < lCount; ++i) {
        const int64_t lDue = lStart + i * 1'000'000'000 / iRate;
        // Sleeping takes about as long as two datagrams of a high rate are apart: wait for these awake.
        while (iRate > kAwakeRate && lDue > now()) {
        }
        if (lDue > now()) {
            const timespec until{lDue / 1'000'000'000, lDue % 1'000'000'000};
            clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr);
        }
        const auto uiNumber = static_cast<uint32_t>(i);
        std::memcpy(&datagram[kNumberAt], &uiNumber, sizeof uiNumber);
        sentAt[static_cast<size_t>(i)] = now();
        traffic.lSent +=
            send(iSender, datagram.data(), datagram.size(), 0) == static_cast<ssize_t>(kDatagram);
    }
    traffic.dSeconds = static_cast<double>(now() - lStart) / 1e9;
    bDone = true;
    receiver.join();
    close(iSender);
    close(iReceiver);
    return traffic;
}

} // namespace bench

#include "bench.h"

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

} // namespace

Traffic runTraffic(const char *pSourceGroup, const char *pDestinationGroup, unsigned short usPort, int iRate,
                   double dSeconds) {
    Traffic traffic{};
    const auto lCount = static_cast<long>(iRate * dSeconds);
    std::vector<int64_t> sentAt(static_cast<size_t>(lCount));
    traffic.delaysUs.reserve(static_cast<size_t>(lCount));
    const int iReceiver = openReceiver(pDestinationGroup, usPort, kReceiveBuffer);
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

    const int iSender = openSender(pSourceGroup, usPort);
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

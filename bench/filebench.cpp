// Measures how exactly a stored transport stream is played. It makes a file of constant rate, lets the driver
// cast it, and compares the arrival of each datagram with the file's own clock.
#include "bench.h"

#include "filecast.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <thread>

namespace bench {

namespace {

constexpr const char *kFile = "/tmp/bench.ts";
constexpr const char *kGroup = "239.3.3.3";
constexpr unsigned short kPort = 5004;
constexpr double kBitRate = 8e6;
constexpr size_t kPacket = 188;
constexpr int kPacketsPerPCR = 200; // about every 38 ms
constexpr double kPaceBoundMs = 2.0;
constexpr double kLastBoundMs = 5.0;
constexpr double kCostBound = 2.0; // per cent of one core

} // namespace

double dueSeconds(long lPacket) {
    return static_cast<double>(lPacket) * kPacket * 8 / kBitRate;
}

namespace {

void makePacket(std::array<unsigned char, kPacket> &packet, long lNumber) {
    packet.fill(0xFF);
    packet[0] = 0x47;
    packet[1] = 0x01;
    packet[2] = 0x00;
    packet[3] = static_cast<unsigned char>(0x10 | (lNumber & 0x0F));
    if (lNumber % kPacketsPerPCR == 0) {
        const auto ulPCR = static_cast<uint64_t>(dueSeconds(lNumber) * 27e6);
        const uint64_t ulBase = ulPCR / 300, ulExtension = ulPCR % 300;
        packet[3] |= 0x20;
        packet[4] = 7;
        packet[5] = 0x10;
        for (size_t i = 0; i < 4; ++i) {
            packet[6 + i] = static_cast<unsigned char>(ulBase >> (25 - 8 * i));
        }
        packet[10] = static_cast<unsigned char>((ulBase & 1) << 7 | 0x7E | ulExtension >> 8);
        packet[11] = static_cast<unsigned char>(ulExtension);
    }
    const auto uiNumber = static_cast<uint32_t>(lNumber);
    std::memcpy(&packet[kFileNumberAt], &uiNumber, sizeof uiNumber);
}

} // namespace

long makeFile(const char *pszFile, double dSeconds) {
    std::FILE *pFile = std::fopen(pszFile, "wb");
    require(pFile != nullptr, pszFile);
    const long lPackets = std::lround(dSeconds * kBitRate / 8 / kPacket / 7) * 7;
    std::array<unsigned char, kPacket> packet;
    for (long i = 0; i < lPackets; ++i) {
        makePacket(packet, i);
        require(std::fwrite(packet.data(), 1, packet.size(), pFile) == packet.size(), pszFile);
    }
    require(std::fclose(pFile) == 0, pszFile); // writes what is still buffered
    return lPackets;
}

namespace {

struct Arrival {
    long lPacket; // number of the datagram's first packet
    int64_t lAt;
};

std::vector<Arrival> receive(const std::atomic<bool> *pDone) {
    const int iSocket = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(kPort);
    inet_pton(AF_INET, kGroup, &address.sin_addr);
    ip_mreq request{address.sin_addr, {htonl(INADDR_LOOPBACK)}};
    require(bind(iSocket, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0 &&
                setsockopt(iSocket, IPPROTO_IP, IP_ADD_MEMBERSHIP, &request, sizeof request) == 0,
            "file receiver");
    std::vector<Arrival> arrivals;
    std::array<unsigned char, 2048> datagram;
    pollfd wait{iSocket, POLLIN, 0};
    while (poll(&wait, 1, 200) > 0 || !*pDone) {
        if (recv(iSocket, datagram.data(), datagram.size(), MSG_DONTWAIT) > 0) {
            uint32_t uiNumber = 0;
            std::memcpy(&uiNumber, &datagram[kFileNumberAt], sizeof uiNumber);
            arrivals.push_back({uiNumber, now()});
        }
    }
    close(iSocket);
    return arrivals;
}

} // namespace

bool fileBench(double dSeconds) {
    const long lPackets = makeFile(kFile, dSeconds);
    std::atomic<bool> bDone{false};
    std::vector<Arrival> arrivals;
    std::thread receiver([&] { arrivals = receive(&bDone); });
    std::this_thread::sleep_for(std::chrono::milliseconds(200));

    KTPLUGIN_INFO_TAG block{};
    block.eState = ENGINE_RUNNING;
    CASTInfo *pInfo = nullptr;
    require(MAKECASTInfo(&pInfo, nullptr, kGroup, kFile, CAST_TYPE_FILE) == 1, "cast record");
    const std::string target = std::string(kGroup) + ":" + std::to_string(kPort);
    TSCASTARG argument{};
    argument.pszFile = kFile;
    argument.pszTarget = target.c_str();
    argument.uiCasterParam = 16;
    argument.pBlock = &block;
    argument.pInfo = pInfo;
    timespec before{}, after{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &before);
    const int iResult = qxbox_tscast(&argument);
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &after);
    bDone = true;
    receiver.join();
    ELIMINATECASTInfo(&pInfo);
    unlink(kFile);
    if (iResult != 1 || static_cast<long>(arrivals.size()) != lPackets / 7) {
        std::fprintf(stderr, "file: result %d, %zu of %ld datagrams arrived\n", iResult, arrivals.size(),
                     lPackets / 7);
        return false;
    }
    // The median datagram tells when the playout began on the receiver's clock.
    std::vector<double> offsets;
    offsets.reserve(arrivals.size());
    for (const Arrival &arrival : arrivals) {
        offsets.push_back(static_cast<double>(arrival.lAt) / 1e6 - dueSeconds(arrival.lPacket) * 1000);
    }
    std::vector<double> sorted = offsets;
    const double dStart = percentile(sorted, 0.5);
    std::vector<double> errors;
    errors.reserve(offsets.size());
    for (const double dOffset : offsets) {
        errors.push_back(std::fabs(dOffset - dStart));
    }
    const double dLast = errors.back();
    const double dCost = (static_cast<double>(after.tv_sec - before.tv_sec) +
                          static_cast<double>(after.tv_nsec - before.tv_nsec) / 1e9) /
                         dSeconds * 100;
    row("file.pace_p50", percentile(errors, 0.5), "ms");
    bool bHolds = rowAtMost("file.pace_p99", percentile(errors, 0.99), "ms", kPaceBoundMs);
    bHolds &= rowAtMost("file.last", dLast, "ms", kLastBoundMs);
    bHolds &= rowAtMost("file.cost", dCost, "%_of_a_core", kCostBound);
    return bHolds;
}

} // namespace bench

// Makes the file that is played beside busy programs.
#include "bench.h"

#include <array>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>

namespace bench {

namespace {

constexpr double kBitRate = 8e6;
constexpr size_t kPacket = 188;
constexpr int kPacketsPerPCR = 200; // about every 38 ms

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

} // namespace bench

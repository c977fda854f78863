// media_files.h - shared by the tests of stored files: bytes, files in memory, and the packets of a reader.
#ifndef TESTS_MEDIA_FILES_H
#define TESTS_MEDIA_FILES_H

#include "mediapacket.h"

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <string>
#include <sys/mman.h>
#include <unistd.h>
#include <vector>

// A file in memory. It has a path while it is open and is gone once it is closed.
struct MemoryFile {
    int iFile;
    std::string sPath;

    explicit MemoryFile(const std::string &sBytes)
        : iFile(memfd_create("media", MFD_CLOEXEC)), sPath("/proc/self/fd/" + std::to_string(iFile)) {
        EXPECT_EQ(pwrite(iFile, sBytes.data(), sBytes.size(), 0), static_cast<ssize_t>(sBytes.size()));
    }
    MemoryFile(const MemoryFile &) = delete;
    MemoryFile &operator=(const MemoryFile &) = delete;
    ~MemoryFile() { close(iFile); }
};

// Returns the bytes of a file in the samples folder.
inline std::string sampleBytes(const char *pszName) {
    std::ifstream file(std::string(SAMPLES) + pszName, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

struct Drained {
    std::string sBytes;            // of all packets
    std::vector<double> dueMs;     // of each packet
    std::vector<unsigned> lengths; // of each packet
};

// Reads all packets of a reader.
template <typename Reader>
Drained drain(Reader &reader, int (*pNext)(Reader &, MediaPacket &)) {
    Drained drained;
    MediaPacket packet{};
    for (int iStep = MEDIA_BUSY; iStep != MEDIA_END;) {
        iStep = pNext(reader, packet);
        if (iStep != MEDIA_PACKET) {
            continue;
        }
        drained.sBytes.append(reinterpret_cast<const char *>(packet.pData), packet.uiLength);
        drained.lengths.push_back(packet.uiLength);
        drained.dueMs.push_back(static_cast<double>(packet.llDue) / 1e6);
    }
    return drained;
}

// Returns the low uiBytes bytes of the value, the least significant first.
inline std::string little(unsigned long long ullValue, unsigned int uiBytes) {
    std::string sBytes;
    for (unsigned int ui = 0; ui < uiBytes; ui++) {
        sBytes += static_cast<char>(ullValue >> 8 * ui);
    }
    return sBytes;
}

// Returns a transport stream packet that holds its number. llClock: its clock reference in ticks, -1 none.
inline std::string tsPacketBytes(std::size_t ulNumber, long long llClock, unsigned int uiPID = 0x100,
                                 bool bDiscontinuity = false) {
    std::string sBytes = {0x47, static_cast<char>(uiPID >> 8), static_cast<char>(uiPID), 0x10};
    if (llClock >= 0 || bDiscontinuity) {
        const int iFlags = (bDiscontinuity ? 0x80 : 0) | (llClock >= 0 ? 0x10 : 0);
        sBytes[3] = 0x30;
        sBytes += {static_cast<char>(llClock >= 0 ? 7 : 1), static_cast<char>(iFlags)};
    }
    if (llClock >= 0) {
        const long long llBase = llClock / 300, llExtension = llClock % 300;
        for (const int iShift : {25, 17, 9, 1}) {
            sBytes += static_cast<char>(llBase >> iShift);
        }
        sBytes += static_cast<char>((llBase & 1) << 7 | 0x7E | llExtension >> 8);
        sBytes += static_cast<char>(llExtension);
    }
    sBytes += little(ulNumber, 4);
    sBytes.resize(188, static_cast<char>(0x80 + ulNumber % 64)); // never a sync byte by chance
    return sBytes;
}

#endif

// media_files.h - what the tests of stored files share: files in memory, and everything that a reader hands
// out.
#ifndef TESTS_MEDIA_FILES_H
#define TESTS_MEDIA_FILES_H

#include "mediapacket.h"

#include <gtest/gtest.h>

#include <string>
#include <sys/mman.h>
#include <unistd.h>
#include <vector>

// A file that is gone when it is closed, with a path for those who want one.
struct MEMORYFILE {
    int iFile;
    std::string sPath;

    explicit MEMORYFILE(const std::string &sBytes)
        : iFile(memfd_create("media", MFD_CLOEXEC)), sPath("/proc/self/fd/" + std::to_string(iFile)) {
        EXPECT_EQ(pwrite(iFile, sBytes.data(), sBytes.size(), 0), static_cast<ssize_t>(sBytes.size()));
    }
    MEMORYFILE(const MEMORYFILE &) = delete;
    MEMORYFILE &operator=(const MEMORYFILE &) = delete;
    ~MEMORYFILE() { close(iFile); }
};

struct DRAINED {
    std::string sBytes;            // of all packets
    std::vector<double> DueMs;     // of each
    std::vector<unsigned> Lengths; // of each
};

// Takes everything out of a reader.
template <typename READER>
DRAINED drain(READER &Reader, int (*pNext)(READER &, MEDIAPACKET &)) {
    DRAINED Drained;
    MEDIAPACKET Packet{};
    for (int iStep = MEDIA_BUSY; iStep != MEDIA_END;) {
        iStep = pNext(Reader, Packet);
        if (iStep != MEDIA_PACKET)
            continue;
        Drained.sBytes.append(reinterpret_cast<const char *>(Packet.pData), Packet.uiLength);
        Drained.Lengths.push_back(Packet.uiLength);
        Drained.DueMs.push_back(static_cast<double>(Packet.llDue) / 1e6);
    }
    return Drained;
}

inline void appendLittle(std::string &sBytes, unsigned long long ullValue, unsigned int uiBytes) {
    for (unsigned int ui = 0; ui < uiBytes; ui++)
        sBytes += static_cast<char>(ullValue >> 8 * ui);
}

#endif

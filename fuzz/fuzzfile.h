// fuzzfile.h - what the fuzz targets of file readers share: the input as a file, and the promises of a
// reader.
#ifndef FUZZ_FUZZFILE_H
#define FUZZ_FUZZFILE_H

#include "mediapacket.h"
#include "promise.h"

#include <cstdint>
#include <sys/mman.h>
#include <unistd.h>

// One file for all inputs of the process, set to the input's bytes.
inline int fuzzFile(const std::uint8_t *pData, std::size_t ulSize) {
    static const int iFile = memfd_create("fuzz", MFD_CLOEXEC);
    promise(ftruncate(iFile, 0) == 0 && pwrite(iFile, pData, ulSize, 0) == static_cast<ssize_t>(ulSize));
    return iFile;
}

// Takes everything out of a reader: it comes to its end in so many steps as the file has room for, no packet
// is due before the one in front of it or more than llPauseMax behind it.
template <typename Reader>
void fuzzDrain(Reader &reader, int (*pNext)(Reader &, MediaPacket &), std::size_t ulSize,
               long long llPauseMax) {
    MediaPacket packet{};
    long long llDue = 0;
    std::size_t ulBytes = 0;
    std::size_t ulSteps = 0;
    for (int iStep = MEDIA_BUSY; iStep != MEDIA_END; ulSteps++) {
        promise(ulSteps <= ulSize + 10);
        iStep = pNext(reader, packet);
        if (iStep != MEDIA_PACKET) {
            continue;
        }
        promise(packet.llDue >= llDue && packet.llDue - llDue <= llPauseMax);
        llDue = packet.llDue;
        ulBytes += packet.uiLength;
        promise(packet.uiLength > 0 && ulBytes <= ulSize);
        promise(packet.pData[0] + packet.pData[packet.uiLength - 1] >= 0); // all of it can be read
    }
}

#endif

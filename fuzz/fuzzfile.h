// fuzzfile.h - shared by the fuzz targets of file readers: makes the input a file, and checks what a reader
// promises.
#ifndef FUZZ_FUZZFILE_H
#define FUZZ_FUZZFILE_H

#include "mediapacket.h"
#include "promise.h"

#include <cstdint>
#include <sys/mman.h>
#include <unistd.h>

// Returns a file that holds the input's bytes. The process uses one file for all inputs.
inline int fuzzFile(const std::uint8_t *pData, std::size_t ulSize) {
    static const int iFile = memfd_create("fuzz", MFD_CLOEXEC);
    promise(ftruncate(iFile, 0) == 0 && pwrite(iFile, pData, ulSize, 0) == static_cast<ssize_t>(ulSize));
    return iFile;
}

// Reads all packets of a reader. The reader must end after no more steps than the file has bytes. No packet
// may be due before the packet in front of it, nor more than llPauseMax nanoseconds after it.
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
        promise(packet.pData[0] + packet.pData[packet.uiLength - 1] >= 0); // the whole packet is readable
    }
}

#endif

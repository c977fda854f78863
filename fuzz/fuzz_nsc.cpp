// Runs the station file reader on any bytes. Writes what it accepts and reads that again: nothing may be
// lost.
#include "fuzzfile.h"
#include "nsc.h"

#include <cstring>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *pData, std::size_t ulSize) {
    NscStation station;
    std::string sReason;
    if (!nscParse(std::string(pData, pData + ulSize), station, sReason)) {
        promise(!sReason.empty());
        return 0;
    }
    promise(station.usPort != 0 && station.formats.size() <= kNscFormatsMax);
    NscStation again;
    promise(nscParse(nscWrite(station), again, sReason));
    promise(again.sAddress == station.sAddress && again.usPort == station.usPort &&
            again.iHops == station.iHops);
    promise(again.formats.size() == station.formats.size());
    for (std::size_t ul = 0; ul < station.formats.size(); ul++) {
        promise(again.formats[ul].header == station.formats[ul].header &&
                again.formats[ul].uiFormatID == station.formats[ul].uiFormatID);
    }
    return 0;
}

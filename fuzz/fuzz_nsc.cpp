// The station file reader on any bytes; what it takes is written and read again without loss.
#include "fuzzfile.h"
#include "nsc.h"

#include <cstring>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *pData, std::size_t ulSize) {
    NSCSTATION Station;
    std::string sReason;
    if (!nscParse(std::string(pData, pData + ulSize), Station, sReason)) {
        promise(!sReason.empty());
        return 0;
    }
    promise(Station.usPort != 0 && Station.Formats.size() <= NSC_FORMATS_MAX);
    NSCSTATION Again;
    promise(nscParse(nscWrite(Station), Again, sReason));
    promise(Again.sAddress == Station.sAddress && Again.usPort == Station.usPort &&
            Again.iHops == Station.iHops);
    promise(Again.Formats.size() == Station.Formats.size());
    for (std::size_t ul = 0; ul < Station.Formats.size(); ul++)
        promise(Again.Formats[ul].Header == Station.Formats[ul].Header &&
                Again.Formats[ul].uiFormatID == Station.Formats[ul].uiFormatID);
    return 0;
}

// The transport stream reader on any bytes.
#include "fuzzfile.h"
#include "tsstream.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *pData, std::size_t ulSize) {
    constexpr long long PAUSE_MAX = 7'000'001'000; // seven packets of the slowest clock that is believed
    TSREADER Reader;
    std::string sReason;
    const int iFile = fuzzFile(pData, ulSize);
    if (tsReaderRecognises(iFile) && tsReaderStart(Reader, iFile, "fuzz", sReason))
        fuzzDrain(Reader, tsReaderNext, ulSize, PAUSE_MAX);
    return 0;
}

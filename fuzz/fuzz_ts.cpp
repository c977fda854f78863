// Runs the transport stream reader on any bytes.
#include "fuzzfile.h"
#include "tsstream.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *pData, std::size_t ulSize) {
    // The longest interval between two clock references that is believed.
    constexpr long long kPauseMax = 60'000'001'000;
    TsReader reader;
    std::string sReason;
    const int iFile = fuzzFile(pData, ulSize);
    if (tsReaderRecognises(iFile) && tsReaderStart(reader, iFile, "fuzz", sReason)) {
        fuzzDrain(reader, tsReaderNext, ulSize, kPauseMax);
    }
    return 0;
}

// Runs the ASF reader on any bytes.
#include "asfstream.h"
#include "fuzzfile.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *pData, std::size_t ulSize) {
    constexpr long long kPauseMax = 30'000'000'000;
    AsfReader reader;
    std::string sReason;
    if (asfReaderStart(reader, fuzzFile(pData, ulSize), "fuzz", sReason)) {
        fuzzDrain(reader, asfReaderNext, ulSize, kPauseMax);
    } else {
        promise(!sReason.empty());
    }
    return 0;
}

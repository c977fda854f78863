// The ASF reader on any bytes.
#include "asfstream.h"
#include "fuzzfile.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *pData, std::size_t ulSize) {
    constexpr long long PAUSE_MAX = 30'000'000'000;
    ASFREADER Reader;
    std::string sReason;
    if (asfReaderStart(Reader, fuzzFile(pData, ulSize), "fuzz", sReason))
        fuzzDrain(Reader, asfReaderNext, ulSize, PAUSE_MAX);
    else
        promise(!sReason.empty());
    return 0;
}

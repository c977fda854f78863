// fill COUNT - submits COUNT relays that start in an hour, through the plug-in's sender.
#include <pccast/pccast.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>

int main(int iArguments, char **ppArguments) {
    const unsigned long ulCount = iArguments == 2 ? std::strtoul(ppArguments[1], nullptr, 10) : 0;
    const auto ulNow = static_cast<unsigned long>(std::time(nullptr));
    CASTInfo *pInfo = nullptr;
    if (MAKECASTInfo(&pInfo, "239.77.0.1", "239.77.0.2", nullptr, CAST_TYPE_STREAM) != 1) {
        return 70;
    }
    pInfo->ulCT = ulNow;
    pInfo->ulSTREAMFormat = CAST_FORMAT_TS;
    pInfo->ulET = ulNow + 7200;
    pInfo->usSRCPort = 4000;
    pInfo->usDSTPort = 5000;
    int iStatus = 0;
    for (unsigned long i = 1; i <= ulCount && iStatus == 0; ++i) {
        pInfo->uliEPGID = i;
        pInfo->ulST = ulNow + 3600 + i % 600;
        if (TxCASTInfoToPlugIn(CAST_CMD_START, pInfo) <= 0) {
            std::fprintf(stderr, "fill: request %lu was not sent\n", i);
            iStatus = 69;
        }
    }
    ELIMINATECASTInfo(&pInfo);
    return iStatus;
}

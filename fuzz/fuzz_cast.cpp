// The cast receiver on any requests: what is filed is whole, and says what the request says.
#include "castlistmgr.h"
#include "fuzzserver.h"

#include <cstring>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *pData, std::size_t ulSize) {
    CASTList Bypass{}, Recast{};
    promise(CREATECASTList(&Bypass) == 1 && CREATECASTList(&Recast) == 1);
    CASTList *pLists[] = {&Bypass, &Recast};
    const auto Check = [&](const FUZZREQUEST &Request) {
        auto Items = fuzzItems(Request.sPayload);
        CASTInfo *pInfo = nullptr;
        const bool bStream = PATCHaCASTInfo(&Bypass, &pInfo) == 1;
        if (bStream || PATCHaCASTInfo(&Recast, &pInfo) == 1) {
            promise(Items.has_value() && pInfo->ulCMD == Request.uiCommand);
            promise(bStream ? pInfo->ulCASTType - 2 <= 1 && pInfo->pSRCIP != nullptr
                            : pInfo->ulCASTType == 1 && pInfo->pCASTFile != nullptr);
            promise(pInfo->pDSTIP != nullptr && std::strlen(pInfo->pDSTIP) <= ulSize);
            promise(Items->count(10) == 0 || fuzzIsText(pInfo->pDSTIP, (*Items)[10]));
            promise(Items->count(9) == 0 || pInfo->usDSTPort == fuzzNumber((*Items)[9], 2));
            promise(Items->count(16) == 0 || pInfo->pEncryptionKey == nullptr ||
                    (*Items)[16] == std::string(reinterpret_cast<const char *>(pInfo->pEncryptionKey),
                                                static_cast<std::size_t>(pInfo->iEncryptionKeyLen)));
        }
        ELIMINATECASTInfo(&pInfo);
        promise(Bypass.pList->iCount == 0 && Recast.pList->iCount == 0);
    };
    fuzzServe(RxCASTInfoEngine, pLists, fuzzRequests(pData, ulSize), Check);
    DESTROYCASTList(&Bypass);
    DESTROYCASTList(&Recast);
    return 0;
}

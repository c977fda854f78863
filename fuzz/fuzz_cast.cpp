// Runs the cast receiver on any requests. Each record that it files must be complete and hold what the
// request says.
#include "castlistmgr.h"
#include "fuzzserver.h"

#include <cstring>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *pData, std::size_t ulSize) {
    CASTList bypass{}, recast{};
    promise(CREATECASTList(&bypass) == 1 && CREATECASTList(&recast) == 1);
    CASTList *pLists[] = {&bypass, &recast};
    const auto check = [&](const FuzzRequest &request) {
        auto items = fuzzItems(request.sPayload);
        CASTInfo *pInfo = nullptr;
        const bool bStream = PATCHaCASTInfo(&bypass, &pInfo) == 1;
        if (bStream || PATCHaCASTInfo(&recast, &pInfo) == 1) {
            promise(pInfo->ulCMD == request.uiCommand);
            promise(bStream ? pInfo->ulCASTType - 2 <= 1 && pInfo->pSRCIP != nullptr
                            : pInfo->ulCASTType == 1 && pInfo->pCASTFile != nullptr);
            promise(pInfo->pDSTIP != nullptr && std::strlen(pInfo->pDSTIP) <= ulSize);
            promise(items.count(10) == 0 || fuzzIsText(pInfo->pDSTIP, items[10]));
            promise(items.count(9) == 0 || pInfo->usDSTPort == fuzzNumber(items[9], 2));
            promise(items.count(16) == 0 || pInfo->pEncryptionKey == nullptr ||
                    items[16] == std::string(reinterpret_cast<const char *>(pInfo->pEncryptionKey),
                                             static_cast<std::size_t>(pInfo->iEncryptionKeyLen)));
        }
        ELIMINATECASTInfo(&pInfo);
        promise(bypass.pList->iCount == 0 && recast.pList->iCount == 0);
    };
    fuzzServe(RxCASTInfoEngine, pLists, fuzzRequests(pData, ulSize), check);
    DESTROYCASTList(&bypass);
    DESTROYCASTList(&recast);
    return 0;
}

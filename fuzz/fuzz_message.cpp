// Runs the message receiver on any requests. It must file each complete request unchanged, in the list that
// the request names.
#include "fuzzserver.h"
#include "msglistmgr.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *pData, std::size_t ulSize) {
    MSGList priority{}, normal{};
    promise(CREATEMSGList(&priority) == 1 && CREATEMSGList(&normal) == 1);
    MSGList *pLists[] = {&priority, &normal};
    const auto check = [&](const FuzzRequest &request) {
        auto items = fuzzItems(request.sPayload);
        const bool bFiled = !items[0x500B].empty();
        const bool bUrgent = bFiled && fuzzNumber(items[0x000E], 4) == 1;
        MSGInfo *pInfo = nullptr;
        promise(PATCHaMSGInfo(bUrgent ? &priority : &normal, &pInfo) == (bFiled ? 1 : 0));
        if (pInfo != nullptr) {
            promise(pInfo->ulCMD == request.uiCommand && fuzzIsText(pInfo->pMSGSTR, items[0x500B]));
            promise(items.count(0x000C) == 0 || pInfo->ulET == fuzzNumber(items[0x000C], 4));
            promise(pInfo->ulRepeat <= 0xFFFF);
        }
        ELIMINATEMSGInfo(&pInfo);
        promise(priority.pList->iCount == 0 && normal.pList->iCount == 0);
    };
    fuzzServe(RxPCMBCInfoEngine, pLists, fuzzRequests(pData, ulSize), check);
    DESTROYMSGList(&priority);
    DESTROYMSGList(&normal);
    return 0;
}

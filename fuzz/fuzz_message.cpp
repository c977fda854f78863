// The message receiver on any requests: what is filed is what the request says, in the list that it names.
#include "fuzzserver.h"
#include "msglistmgr.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *pData, std::size_t ulSize) {
    MSGList Priority{}, Normal{};
    promise(CREATEMSGList(&Priority) == 1 && CREATEMSGList(&Normal) == 1);
    MSGList *pLists[] = {&Priority, &Normal};
    const auto Check = [&](const FUZZREQUEST &Request) {
        auto Items = fuzzItems(Request.sPayload);
        const bool bFiled = Items && !(*Items)[0x500B].empty();
        const bool bUrgent = bFiled && fuzzNumber((*Items)[0x000E], 4) == 1;
        MSGInfo *pInfo = nullptr;
        promise(PATCHaMSGInfo(bUrgent ? &Priority : &Normal, &pInfo) == (bFiled ? 1 : 0));
        if (pInfo != nullptr) {
            promise(pInfo->ulCMD == Request.uiCommand && fuzzIsText(pInfo->pMSGSTR, (*Items)[0x500B]));
            promise(Items->count(0x000C) == 0 || pInfo->ulET == fuzzNumber((*Items)[0x000C], 4));
            promise(pInfo->ulRepeat <= 0xFFFF);
        }
        ELIMINATEMSGInfo(&pInfo);
        promise(Priority.pList->iCount == 0 && Normal.pList->iCount == 0);
    };
    fuzzServe(RxPCMBCInfoEngine, pLists, fuzzRequests(pData, ulSize), Check);
    DESTROYMSGList(&Priority);
    DESTROYMSGList(&Normal);
    return 0;
}

// The two ends of a control block: how a controller waits for a thread to end, and how a thread signs off.

#include "engines.h"

#include <vexa_pgl.h>

#include <cstdio>

int ktWaitForAEngine(KTPLUGIN_INFO_TAG *pBlock, int iLimit) {
    int iResult = -1;
    if (pBlock != nullptr) {
        long lPasses = 0;
        while (pBlock->iThreadCount > 0) {
            ++lPasses;
            vexa_load_balance();
            if (lPasses / 100 > iLimit) {
                break;
            }
        }
        iResult = static_cast<int>(iLimit - lPasses / 100);
    }
    if (iResult <= 0) {
        std::printf("ktWaitForAEngine: [FATAL-ERROR] \e[1;31mTimeout wait thread !\e[0m\n");
        std::fflush(stdout);
    }
    return iResult;
}

void engineEnd(KTPLUGIN_INFO_TAG *pBlock) {
    CASTInfo *pLeft = enginePeek(pBlock);
    if (pLeft != nullptr) {
        ELIMINATECASTInfo(&pLeft);
        engineAcknowledge(pBlock);
    }
    --pBlock->iThreadCount;
    pBlock->eState = ENGINE_STOPPED;
}

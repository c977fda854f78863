// The list, the mutex, the pause and the text copy of ktlist.h.
#include "ktlist.h"

#include <sys/select.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

namespace {

constexpr int kLockPauseMicroseconds = 10'000;

// The result of an insertion without memory for its copy.
constexpr int kCopyFailed = -2;

// Where an insertion goes: to the head, behind a node, or to the tail.
struct Place {
    bool bHead;
    KTLIST_NODE *pAfter; // null: the tail
};

void link(KTLIST *pList, KTLIST_NODE *pNode, Place place) {
    KTLIST_NODE *pAfter = place.bHead ? nullptr : (place.pAfter != nullptr ? place.pAfter : pList->pTail);
    pNode->pNext = pAfter != nullptr ? pAfter->pNext : pList->pHead;
    (pAfter != nullptr ? pAfter->pNext : pList->pHead) = pNode;
    if (pNode->pNext == nullptr) {
        pList->pTail = pNode;
    }
}

// Returns the new iCount; kCopyFailed; -1 any other failure.
int insert(KTLIST *pList, const void *pData, unsigned long ulSize, Place place, bool bCopy) {
    if (pList == nullptr || pData == nullptr || pList->iCount == INT32_MAX) {
        return -1;
    }
    auto *pNode = static_cast<KTLIST_NODE *>(std::calloc(1, sizeof(KTLIST_NODE)));
    if (pNode == nullptr) {
        return -1;
    }
    if (bCopy) {
        pNode->pData = std::calloc(ulSize > 0 ? ulSize : 1, 1);
        if (pNode->pData == nullptr) {
            std::free(pNode);
            return kCopyFailed;
        }
        std::memcpy(pNode->pData, pData, ulSize);
    } else {
        pNode->pData = const_cast<void *>(pData);
    }
    pNode->ulSize = ulSize;
    link(pList, pNode, place);
    pList->ulTotalSize += ulSize;
    return ++pList->iCount;
}

// Takes the node behind the place out of the list. Does not release it.
void unlinkAfter(KTLIST *pList, KTLIST_NODE *pPlace) {
    KTLIST_NODE *pNode = ktlistAfter(pList, pPlace);
    if (pNode == pList->pTail) {
        pList->pTail = pPlace;
    }
    (pPlace != nullptr ? pPlace->pNext : pList->pHead) = pNode->pNext;
    --pList->iCount;
}

// Finds the node and takes it out of the list. Returns whether it was there.
bool unlink(KTLIST *pList, const KTLIST_NODE *pNode) {
    KTLIST_NODE *pPlace = nullptr;
    KTLIST_NODE *pWalk = nullptr;
    while ((pWalk = ktlistAfter(pList, pPlace)) != pNode) {
        if (pWalk == nullptr) {
            return false;
        }
        pPlace = pWalk;
    }
    unlinkAfter(pList, pPlace);
    return true;
}

int release(KTLIST *pList, bool bPayload) {
    if (pList == nullptr) {
        return -1;
    }
    for (KTLIST_NODE *pNode = pList->pHead; pNode != nullptr;) {
        KTLIST_NODE *pNext = pNode->pNext;
        if (bPayload) {
            std::free(pNode->pData);
        }
        std::free(pNode);
        pNode = pNext;
    }
    std::free(pList);
    return 1;
}

int attempt(KTMUTEX pMutex) {
    switch (const int iError = pthread_mutex_trylock(pMutex)) {
    case 0:
        return 1;
    case EBUSY:
        return 0;
    case EINVAL:
        return -1;
    default:
        return iError;
    }
}

} // namespace

int KTuSleep(int iMicroseconds) {
    timeval pause{iMicroseconds / 1'000'000, iMicroseconds % 1'000'000};
    return select(0, nullptr, nullptr, nullptr, &pause);
}

int KTMUTEXCreate(KTMUTEX *ppMutex) {
    if (ppMutex == nullptr || *ppMutex != nullptr) {
        return -1;
    }
    auto pMutex = static_cast<KTMUTEX>(std::calloc(1, sizeof(pthread_mutex_t)));
    if (pMutex == nullptr) {
        return -1;
    }
    if (pthread_mutex_init(pMutex, nullptr) != 0) {
        std::free(pMutex);
        return -1;
    }
    *ppMutex = pMutex;
    return 1;
}

int KTMUTEXTryLock(KTMUTEX pMutex, int iRetries) {
    if (pMutex == nullptr) {
        return -1;
    }
    // The pause follows success too. It slows down the threads that poll a list.
    int iResult = attempt(pMutex);
    KTuSleep(kLockPauseMicroseconds);
    for (int i = 0; iResult <= 0 && i < iRetries; ++i) {
        iResult = attempt(pMutex);
        KTuSleep(kLockPauseMicroseconds);
    }
    return iResult;
}

int KTMUTEXUnLock(KTMUTEX pMutex) {
    return pMutex == nullptr ? -1 : pthread_mutex_unlock(pMutex);
}

int KTMUTEXDelete(KTMUTEX *ppMutex) {
    if (ppMutex == nullptr || *ppMutex == nullptr) {
        return -1;
    }
    const int iResult = pthread_mutex_destroy(*ppMutex);
    std::free(*ppMutex);
    return iResult;
}

KTMUTEXHold KTMUTEXLock(KTMUTEX pMutex) {
    // A positive result other than 1 is an errno: nothing is locked then.
    return KTMUTEXHold(KTMUTEXTryLock(pMutex, kMutexRetries) == 1 ? pMutex : nullptr);
}

int KTLISTCreate(KTLIST **ppList) {
    if (ppList == nullptr || *ppList != nullptr) {
        return -1;
    }
    void *pBlock = std::calloc(1, sizeof(KTLIST));
    if (pBlock == nullptr) {
        return -1;
    }
    *ppList = ::new (pBlock) KTLIST{};
    return 1;
}

int KTLISTpDelete(KTLIST **ppList) {
    return ppList == nullptr ? -1 : release(*ppList, false);
}

int KTLISTmDelete(KTLIST **ppList) {
    return ppList == nullptr ? -1 : release(*ppList, true);
}

int KTLISTpInsert(KTLIST *pList, void *pData, unsigned long ulSize, KTLIST_NODE *pAfter) {
    return insert(pList, pData, ulSize, {false, pAfter}, false);
}

int KTLISTpAInsert(KTLIST *pList, void *pData, unsigned long ulSize, KTLIST_NODE *pAfter) {
    return KTLISTpInsert(pList, pData, ulSize, pAfter);
}

int KTLISTpInsertHead(KTLIST *pList, void *pData, unsigned long ulSize) {
    return insert(pList, pData, ulSize, {true, nullptr}, false);
}

int KTLISTmInsert(KTLIST *pList, const void *pData, unsigned long ulSize, KTLIST_NODE *pAfter) {
    const int iResult = insert(pList, pData, ulSize, {false, pAfter}, true);
    return iResult == kCopyFailed ? 0 : iResult;
}

int KTLISTmAInsert(KTLIST *pList, const void *pData, unsigned long ulSize, KTLIST_NODE *pAfter) {
    const int iResult = insert(pList, pData, ulSize, {false, pAfter}, true);
    return iResult == kCopyFailed ? -1 : iResult;
}

int KTLISTmInsertHead(KTLIST *pList, const void *pData, unsigned long ulSize) {
    const int iResult = insert(pList, pData, ulSize, {true, nullptr}, true);
    return iResult == kCopyFailed ? 0 : iResult;
}

int KTLISTpRemove(KTLIST *pList, KTLIST_NODE *pNode) {
    if (pList == nullptr || pNode == nullptr || !unlink(pList, pNode)) {
        return -1;
    }
    std::free(pNode);
    return 1;
}

int KTLISTmRemove(KTLIST *pList, KTLIST_NODE *pNode) {
    if (pList == nullptr || pNode == nullptr) {
        return -1;
    }
    if (!unlink(pList, pNode)) {
        std::printf("[%s:%d] \e[2;31m can NOT found NODE to REMOVE \e[1;41m[ERROR]\e[0m\n", "ktlist",
                    __LINE__);
        return -1;
    }
    pList->ulTotalSize -= pNode->ulSize;
    std::free(pNode->pData);
    std::free(pNode);
    return 1;
}

KTLIST_NODE *ktlistUnlinkAfter(KTLIST *pList, KTLIST_NODE *pPlace) {
    KTLIST_NODE *pNode = ktlistAfter(pList, pPlace);
    unlinkAfter(pList, pPlace);
    return pNode;
}

void *ktlistRemoveAfter(KTLIST *pList, KTLIST_NODE *pPlace) {
    KTLIST_NODE *pNode = ktlistUnlinkAfter(pList, pPlace);
    void *pData = pNode->pData;
    std::free(pNode);
    return pData;
}

int KTCOPYString(const char *pSource, char **ppTarget) {
    if (ppTarget == nullptr) {
        return 0;
    }
    if (pSource == nullptr) {
        std::free(*ppTarget);
        *ppTarget = nullptr;
        return 0;
    }
    const size_t ulLength = std::strlen(pSource);
    if (*ppTarget == nullptr || std::strlen(*ppTarget) <= ulLength) {
        std::free(*ppTarget);
        *ppTarget = static_cast<char *>(std::malloc(ulLength + 1));
        if (*ppTarget == nullptr) {
            return 0;
        }
    }
    std::memset(*ppTarget, 0, ulLength + 1);
    std::memcpy(*ppTarget, pSource, ulLength);
    return 1;
}

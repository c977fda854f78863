// ktlist.h - the pointer list under the cast and message lists, their mutex, the pause, and the text copy.
//
// The list takes no lock: its owner pairs it with a KTMUTEX and holds that around every use. The one
// exception is iCount, which a poller may read without the lock to learn whether a look is worth it.
//
// The p-operations store the caller's pointer and never touch what it points at; the m-operations keep a copy
// of their own and release it with the node.
#ifndef PCCAST_KTLIST_H
#define PCCAST_KTLIST_H

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <memory>

extern "C" {

// One heap-allocated mutex, not recursive; null means none.
typedef pthread_mutex_t *KTMUTEX;

typedef struct KTLIST_NODE {
    unsigned long ulSize; // the size given at insertion
    void *pData;
    struct KTLIST_NODE *pNext; // towards the tail
} KTLIST_NODE;

typedef struct KTLIST {
    std::atomic<int32_t> iCount; // written under the owner's mutex; read anywhere as a hint
    KTLIST_NODE *pHead;
    KTLIST_NODE *pTail;
    unsigned long ulTotalSize; // informational
} KTLIST;

// How every list operation of the system takes its lock: about ten seconds of attempts.
constexpr int KTMUTEX_RETRIES = 1000;

// Pauses iMicroseconds. Returns 0 after the full pause, -1 when interrupted or for a negative pause.
int KTuSleep(int iMicroseconds);

// Makes a mutex in *ppMutex. Returns 1; -1 when one is set already or memory runs out.
int KTMUTEXCreate(KTMUTEX *ppMutex);

// Makes up to iRetries + 1 attempts, each followed by a pause of 10 ms, the successful one included.
// Returns 1 locked; 0 still busy; -1 no mutex or an invalid one; any other positive errno of the last attempt
// as it came (the mutex is then not locked, but the attempts end).
int KTMUTEXTryLock(KTMUTEX pMutex, int iRetries);

// Returns 0 unlocked, -1 for no mutex, else the errno.
int KTMUTEXUnLock(KTMUTEX pMutex);

// Destroys and releases the mutex; the caller's handle keeps its old value and must not be used again.
// Returns 0, -1 for no mutex, else the errno of the destruction.
int KTMUTEXDelete(KTMUTEX *ppMutex);

// Makes an empty list. Returns 1; -1 when the pointer is set already or memory runs out.
int KTLISTCreate(KTLIST **ppList);

// Release every node and the list (m: the payloads too); the caller's pointer keeps its old value.
// Return 1, -1 for no list.
int KTLISTpDelete(KTLIST **ppList);
int KTLISTmDelete(KTLIST **ppList);

// Put a new node after pAfter, a node of this list, or at the tail when it is null. Return the new iCount; -1
// for no list, no data, no memory or a full list; mInsert returns 0 when its copy cannot be allocated.
int KTLISTpInsert(KTLIST *pList, void *pData, unsigned long ulSize, KTLIST_NODE *pAfter);
int KTLISTpAInsert(KTLIST *pList, void *pData, unsigned long ulSize, KTLIST_NODE *pAfter);
int KTLISTmInsert(KTLIST *pList, const void *pData, unsigned long ulSize, KTLIST_NODE *pAfter);
int KTLISTmAInsert(KTLIST *pList, const void *pData, unsigned long ulSize, KTLIST_NODE *pAfter);

// Put a new node at the head. Results as above.
int KTLISTpInsertHead(KTLIST *pList, void *pData, unsigned long ulSize);
int KTLISTmInsertHead(KTLIST *pList, const void *pData, unsigned long ulSize);

// Unlink and release the node (m: its payload too). Return 1; -1 for no list, no node, or a node that is not
// in the list (m: printed).
int KTLISTpRemove(KTLIST *pList, KTLIST_NODE *pNode);
int KTLISTmRemove(KTLIST *pList, KTLIST_NODE *pNode);

// Copies pSource into the block at *ppTarget, which is reused when it holds a longer text. A null source
// releases the block. Returns 1 copied; 0 no source or no memory (*ppTarget is then null).
int KTCOPYString(const char *pSource, char **ppTarget);
}

// To remove nodes while walking, hold a place: the node before the one you look at, or null at the head.

// The node behind the place; null at the end.
inline KTLIST_NODE *ktlistAfter(const KTLIST *pList, const KTLIST_NODE *pPlace) {
    return pPlace != nullptr ? pPlace->pNext : pList->pHead;
}

// Unlinks and releases the node behind the place; there must be one. It does not search, so a walk that
// removes many nodes holds the lock no longer than one that removes none. Returns what the node carried.
void *ktlistRemoveAfter(KTLIST *pList, KTLIST_NODE *pPlace);

struct KTMUTEXRelease {
    void operator()(pthread_mutex_t *pMutex) const { KTMUTEXUnLock(pMutex); }
};

// A lock that is given back when it goes out of scope; empty when it was not obtained.
using KTMUTEXHold = std::unique_ptr<pthread_mutex_t, KTMUTEXRelease>;

// Takes the lock of a list of the system, as KTMUTEXTryLock with KTMUTEX_RETRIES.
KTMUTEXHold KTMUTEXLock(KTMUTEX pMutex);

#endif

// ktlist.h - the list under the cast and message lists, their mutex, a pause, and a text copy.
//
// Any thread may call these. The list takes no lock. Its owner pairs it with a KTMUTEX and holds the mutex
// around every use. Only iCount may be read without the lock, to see whether the list is worth locking.
//
// The p-operations store the caller's pointer and never touch the data behind it. The m-operations store a
// copy of the data and release it with the node.
#ifndef PCCAST_KTLIST_H
#define PCCAST_KTLIST_H

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <memory>

extern "C" {

// A mutex on the heap, not recursive; null for none.
typedef pthread_mutex_t *KTMUTEX;

typedef struct KTLIST_NODE {
    unsigned long ulSize; // as given at insertion
    void *pData;
    struct KTLIST_NODE *pNext; // towards the tail
} KTLIST_NODE;

typedef struct KTLIST {
    std::atomic<int32_t> iCount; // written under the owner's mutex; any thread may read it as a hint
    KTLIST_NODE *pHead;
    KTLIST_NODE *pTail;
    unsigned long ulTotalSize; // informational
} KTLIST;

// The retries with which every list operation takes its lock. They last about ten seconds.
constexpr int kMutexRetries = 1000;

// Pauses for iMicroseconds. Returns 0 after the full pause, -1 if interrupted or for a negative pause.
int KTuSleep(int iMicroseconds);

// Makes a mutex in *ppMutex. Returns 1; -1 *ppMutex is set already or memory runs out.
int KTMUTEXCreate(KTMUTEX *ppMutex);

// Tries to lock the mutex up to iRetries + 1 times. Pauses for 10 ms after each attempt, also after success.
// Returns 1 locked; 0 still busy; -1 no mutex, or an invalid one. Any other errno ends the attempts and is
// returned as it is: the mutex is then not locked.
int KTMUTEXTryLock(KTMUTEX pMutex, int iRetries);

// Unlocks the mutex. Returns 0 unlocked, -1 no mutex, else the errno.
int KTMUTEXUnLock(KTMUTEX pMutex);

// Destroys and releases the mutex. *ppMutex keeps its old value and must not be used again.
// Returns 0 destroyed, -1 no mutex, else the errno of the destruction.
int KTMUTEXDelete(KTMUTEX *ppMutex);

// Makes an empty list in *ppList. Returns 1; -1 *ppList is set already or memory runs out.
int KTLISTCreate(KTLIST **ppList);

// Release the list and its nodes (m: the data too). *ppList keeps its old value and must not be used again.
// Return 1, -1 no list.
int KTLISTpDelete(KTLIST **ppList);
int KTLISTmDelete(KTLIST **ppList);

// Put a new node after pAfter, a node of this list. If pAfter is null, they put it at the tail.
// Return the new iCount; -1 no list, no data, no memory or a full list. KTLISTmInsert returns 0 if there is
// no memory for its copy.
int KTLISTpInsert(KTLIST *pList, void *pData, unsigned long ulSize, KTLIST_NODE *pAfter);
int KTLISTpAInsert(KTLIST *pList, void *pData, unsigned long ulSize, KTLIST_NODE *pAfter);
int KTLISTmInsert(KTLIST *pList, const void *pData, unsigned long ulSize, KTLIST_NODE *pAfter);
int KTLISTmAInsert(KTLIST *pList, const void *pData, unsigned long ulSize, KTLIST_NODE *pAfter);

// Put a new node at the head. Return the same results. KTLISTmInsertHead too returns 0 without memory for its
// copy.
int KTLISTpInsertHead(KTLIST *pList, void *pData, unsigned long ulSize);
int KTLISTmInsertHead(KTLIST *pList, const void *pData, unsigned long ulSize);

// Unlink and release the node (m: its data too).
// Return 1; -1 no list, no node, or the node is not in the list (m: printed).
int KTLISTpRemove(KTLIST *pList, KTLIST_NODE *pNode);
int KTLISTmRemove(KTLIST *pList, KTLIST_NODE *pNode);

// Copies the text pSource into the block *ppTarget. Uses the same block again if its text was longer, else a
// new block. The caller owns the block. If pSource is null, the block is released.
// Returns 1 copied; 0 no ppTarget, no source or no memory (*ppTarget is null in the last two cases).
int KTCOPYString(const char *pSource, char **ppTarget);
}

// To remove nodes while walking, hold a place: the node before the one you look at, or null at the head.

// Returns the node behind the place; null at the end.
inline KTLIST_NODE *ktlistAfter(const KTLIST *pList, const KTLIST_NODE *pPlace) {
    return pPlace != nullptr ? pPlace->pNext : pList->pHead;
}

// Unlinks the node behind the place; there must be one. The caller releases it with free.
KTLIST_NODE *ktlistUnlinkAfter(KTLIST *pList, KTLIST_NODE *pPlace);

// Unlinks and releases the node behind the place. There must be one. Returns the node's data. It does not
// search, so a walk that removes many nodes holds the lock no longer than a walk that removes none.
void *ktlistRemoveAfter(KTLIST *pList, KTLIST_NODE *pPlace);

struct KTMUTEXRelease {
    void operator()(pthread_mutex_t *pMutex) const { KTMUTEXUnLock(pMutex); }
};

// A lock that is released at the end of its scope; null if it was not obtained.
using KTMUTEXHold = std::unique_ptr<pthread_mutex_t, KTMUTEXRelease>;

// Takes the lock of a list: KTMUTEXTryLock with kMutexRetries.
KTMUTEXHold KTMUTEXLock(KTMUTEX pMutex);

#endif

// recordlist.h - what the list of casts and the list of messages have in common.
//
// A handle holds a mutex and a list. The list keeps its records by creation time, newest first. Records are
// taken out when they are due. Only castlistmgr.cpp and msglistmgr.cpp include this file. An operation takes
// the list's mutex for its whole run, unless its comment says that the caller holds it. It skips a node
// without a record.
#ifndef PCCAST_RECORDLIST_H
#define PCCAST_RECORDLIST_H

#include "ktlist.h"

#include <vexa_pgl.h>

#include <cstdio>

// What differs between the two kinds of list. The type of the handle selects the kind.
//   Record                      the record, with its times ulCT and ulET
//   kHandle, kSlot              the names of a handle and of a caller's slot in printed messages
//   lock(pHandle, iLine)        takes the mutex; iLine is the operation's line, for a printed message
//   eliminate, copy, compare    the record's own operations
//   print(pRecord)              prints one record of a listing
template <typename List>
struct RecordKind;

template <typename List>
using RecordOf = typename RecordKind<List>::Record;

constexpr unsigned long kRecordNodeSize = 100; // every node is filed with this size; nothing reads it

template <typename List>
bool isUsable(const List *pHandle) {
    return pHandle != nullptr && pHandle->pMutex != nullptr && pHandle->pList != nullptr;
}

// Whether the caller's slot is empty. A full slot is printed, with the operation's name.
template <typename List>
bool isEmptySlot(RecordOf<List> *const *ppRecord, const char *pOperation) {
    if (*ppRecord != nullptr) {
        std::printf("%s(): %s is NOT NULL\n", pOperation, RecordKind<List>::kSlot);
        return false;
    }
    return true;
}

template <typename List>
RecordOf<List> *recordOf(const KTLIST_NODE *pNode) {
    return static_cast<RecordOf<List> *>(pNode->pData);
}

// The head's record; null if there is no node or the node has no record.
template <typename List>
RecordOf<List> *headRecord(const List *pHandle) {
    return pHandle->pList->pHead == nullptr ? nullptr : recordOf<List>(pHandle->pList->pHead);
}

// Takes out the record behind the place. The caller owns it. The caller of take and drop holds the mutex.
template <typename List>
RecordOf<List> *take(List *pHandle, KTLIST_NODE *pPlace) {
    return static_cast<RecordOf<List> *>(ktlistRemoveAfter(pHandle->pList, pPlace));
}

template <typename List>
void drop(List *pHandle, KTLIST_NODE *pPlace) {
    RecordOf<List> *pRecord = take(pHandle, pPlace);
    RecordKind<List>::eliminate(&pRecord);
}

template <typename List>
int createRecordList(List *pHandle, const char *pOperation) {
    if (pHandle == nullptr) {
        return 0;
    }
    pHandle->iFLAGChange = 0;
    if (pHandle->pMutex != nullptr || pHandle->pList != nullptr) {
        std::printf("%s(): %s is NOT NULL: maybe uninitialized\n", pOperation, RecordKind<List>::kHandle);
        return -1;
    }
    KTMUTEXCreate(&pHandle->pMutex);
    KTLISTCreate(&pHandle->pList);
    return pHandle->pMutex != nullptr && pHandle->pList != nullptr ? 1 : 0;
}

// Releases the list and its records. The caller holds the mutex, or nobody else uses the list any more.
// Returns 1 if there was a record, else 0.
template <typename List>
int releaseRecords(List *pHandle) {
    if (pHandle->pList == nullptr) {
        return 0;
    }
    int iResult = 0;
    for (const KTLIST_NODE *pNode = pHandle->pList->pHead; pNode != nullptr; pNode = pNode->pNext) {
        RecordOf<List> *pRecord = recordOf<List>(pNode);
        iResult |= RecordKind<List>::eliminate(&pRecord);
    }
    KTLISTpDelete(&pHandle->pList);
    return iResult;
}

// Files a request that takes another one back. The caller holds the mutex. The first equal record is
// released, and so is the request. If no record is equal, the request goes to the head, to be taken first. A
// node without a record is never equal. Returns whether the list has taken the request.
template <typename List>
bool insertRevocation(List *pHandle, RecordOf<List> *pRecord) {
    KTLIST_NODE *pPlace = nullptr;
    while (KTLIST_NODE *pNode = ktlistAfter(pHandle->pList, pPlace)) {
        if (RecordKind<List>::compare(pRecord, recordOf<List>(pNode), 0) == 0) {
            drop(pHandle, pPlace);
            RecordKind<List>::eliminate(&pRecord);
            return true;
        }
        pPlace = pNode;
    }
    return KTLISTpInsertHead(pHandle->pList, pRecord, kRecordNodeSize) > 0;
}

// Files a record behind all that are as new or newer. The caller holds the mutex. *pbLast: whether the record
// is now the oldest in the list. Returns whether the list has taken the record.
template <typename List>
bool insertInOrder(List *pHandle, RecordOf<List> *pRecord, bool *pbLast) {
    KTLIST *pList = pHandle->pList;
    KTLIST_NODE *pPlace = nullptr;
    KTLIST_NODE *pNode = nullptr;
    while ((pNode = ktlistAfter(pList, pPlace)) != nullptr &&
           (recordOf<List>(pNode) == nullptr || recordOf<List>(pNode)->ulCT >= pRecord->ulCT)) {
        pPlace = pNode;
    }
    *pbLast = pNode == nullptr;
    return (pPlace == nullptr ? KTLISTpInsertHead(pList, pRecord, kRecordNodeSize)
                              : KTLISTpInsert(pList, pRecord, kRecordNodeSize, pPlace)) > 0;
}

// Takes out the first record for which isDue(pRecord) is true. Drops the expired records before it.
// Returns 1 taken; 0 none due or no lock; -1 the caller's slot is full (printed).
template <typename List, typename IsDue>
int takeDueRecord(List *pHandle, IsDue isDue, RecordOf<List> **ppRecord, const char *pOperation,
                  int iLine = __builtin_LINE()) {
    if (!isUsable(pHandle)) {
        return 0;
    }
    if (!isEmptySlot<List>(ppRecord, pOperation)) {
        return -1;
    }
    const KTMUTEXHold hold = RecordKind<List>::lock(pHandle, iLine);
    if (hold == nullptr) {
        return 0;
    }
    KTLIST_NODE *pPlace = nullptr;
    while (KTLIST_NODE *pNode = ktlistAfter(pHandle->pList, pPlace)) {
        const RecordOf<List> *pRecord = recordOf<List>(pNode);
        if (pRecord != nullptr && pRecord->ulET <= vexa_time(nullptr)) {
            drop(pHandle, pPlace);
        } else if (pRecord != nullptr && isDue(pRecord)) {
            *ppRecord = take(pHandle, pPlace);
            return 1;
        } else {
            pPlace = pNode;
        }
    }
    return 0;
}

// Calls fill() under the lock if the head has a record and the caller's slot is empty.
// Returns 1 called; 0 no record or no lock; -1 the slot is full (printed).
template <typename List, typename Fill>
int fillFromHead(List *pHandle, RecordOf<List> *const *ppRecord, const char *pOperation, int iLine,
                 Fill fill) {
    if (!isUsable(pHandle)) {
        return 0;
    }
    if (!isEmptySlot<List>(ppRecord, pOperation)) {
        return -1;
    }
    const KTMUTEXHold hold = RecordKind<List>::lock(pHandle, iLine);
    if (hold == nullptr || headRecord(pHandle) == nullptr) {
        return 0;
    }
    fill();
    return 1;
}

template <typename List>
int takeHeadRecord(List *pHandle, RecordOf<List> **ppRecord, const char *pOperation,
                   int iLine = __builtin_LINE()) {
    return fillFromHead(pHandle, ppRecord, pOperation, iLine, [=] {
        *ppRecord = take(pHandle, nullptr);
        pHandle->iFLAGChange = 1;
    });
}

template <typename List>
int copyHeadRecord(List *pHandle, RecordOf<List> **ppRecord, const char *pOperation,
                   int iLine = __builtin_LINE()) {
    return fillFromHead(pHandle, ppRecord, pOperation, iLine,
                        [=] { RecordKind<List>::copy(headRecord(pHandle), ppRecord); });
}

// Removes and releases every record for which isWanted(pRecord) is true. Returns 1 if there was one, else 0.
template <typename List, typename IsWanted>
int removeRecords(List *pHandle, IsWanted isWanted, int iLine = __builtin_LINE()) {
    if (!isUsable(pHandle)) {
        return 0;
    }
    const KTMUTEXHold hold = RecordKind<List>::lock(pHandle, iLine);
    if (hold == nullptr) {
        return 0;
    }
    int iResult = 0;
    KTLIST_NODE *pPlace = nullptr;
    while (KTLIST_NODE *pNode = ktlistAfter(pHandle->pList, pPlace)) {
        if (isWanted(recordOf<List>(pNode))) {
            drop(pHandle, pPlace);
            pHandle->iFLAGChange = 1;
            iResult = 1;
        } else {
            pPlace = pNode;
        }
    }
    return iResult;
}

template <typename List>
int removeEqualRecords(List *pHandle, const RecordOf<List> *pKey, int iLine = __builtin_LINE()) {
    return removeRecords(
        pHandle,
        [=](const RecordOf<List> *pRecord) { return RecordKind<List>::compare(pKey, pRecord, 0) == 0; },
        iLine);
}

template <typename List>
int removeHeadRecord(List *pHandle, int iLine = __builtin_LINE()) {
    if (!isUsable(pHandle)) {
        return 0;
    }
    const KTMUTEXHold hold = RecordKind<List>::lock(pHandle, iLine);
    if (hold == nullptr || headRecord(pHandle) == nullptr) {
        return 0;
    }
    drop(pHandle, nullptr);
    pHandle->iFLAGChange = 1;
    return 1;
}

template <typename List>
void printRecordList(List *pHandle, const char *pCaller, int iLine = __builtin_LINE()) {
    if (pHandle == nullptr || pHandle->pMutex == nullptr) {
        return;
    }
    {
        const KTMUTEXHold hold = RecordKind<List>::lock(pHandle, iLine);
        if (hold == nullptr) {
            return;
        }
        std::printf("-----------------[ SHOW LIST: Caller::%s()\n", pCaller == nullptr ? "UNKNOWN" : pCaller);
        if (pHandle->pList != nullptr) {
            for (const KTLIST_NODE *pNode = pHandle->pList->pHead; pNode != nullptr; pNode = pNode->pNext) {
                RecordKind<List>::print(recordOf<List>(pNode));
            }
        }
    }
    std::printf("SHOW LIST: %d total, iFLAGChange:%d ]------------------\n",
                pHandle->pList == nullptr ? 0 : pHandle->pList->iCount.load(), pHandle->iFLAGChange.load());
}

#endif

// recordlist.h - what the list of casts and the list of messages have in common: a handle of a mutex and a
// list, its records filed by their creation time, newest first, taken out when they are due.
//
// Included by the two lists' own files alone. Each operation takes the list's mutex for its whole run. A node
// without a record is passed over.
#ifndef PCCAST_RECORDLIST_H
#define PCCAST_RECORDLIST_H

#include "ktlist.h"

#include <vexa_pgl.h>

#include <cstdio>

// What tells a kind of list from the other, by the type of its handle:
//   Record                      the record; ulCT, ulST, ulET are read here
//   kHandle, kSlot              how messages name a handle and a caller's slot for a record
//   lock(pHandle, iLine)        takes the mutex; iLine: of the operation, for a message
//   eliminate, copy, compare    the record's own operations
//   print(pRecord)              prints one record of a listing
template <typename List>
struct RecordKind;

template <typename List>
using RecordOf = typename RecordKind<List>::Record;

constexpr unsigned long kRecordNodeSize = 100; // what every node is filed with; nothing reads it

template <typename List>
bool isUsable(const List *pHandle) {
    return pHandle != nullptr && pHandle->pMutex != nullptr && pHandle->pList != nullptr;
}

// Whether a caller's slot may be filled; a full one is refused in the name of the operation.
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

// The head's record; null when there is no node, or none in it.
template <typename List>
RecordOf<List> *headRecord(const List *pHandle) {
    return pHandle->pList->pHead == nullptr ? nullptr : recordOf<List>(pHandle->pList->pHead);
}

// Takes out the record behind the place in the list; it is the caller's.
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

// Releases the list and its records; the caller holds the mutex, or nobody else knows the list any more.
// Returns 1 when there was a record, else 0.
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
// released, and so is the request. If none is equal, the request goes to the head, where it is met first. A
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

// The caller holds the mutex. Returns whether the list has taken the record; *pbLast: it is the oldest one.
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

// Takes the first record of which isDue(pRecord) is true, and drops the expired ones before it.
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

// Has the caller's slot filled from the head's record, if there is one. Returns 1; 0 for none, -1 for a full
// slot.
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

template <typename List>
int removeEqualRecords(List *pHandle, const RecordOf<List> *pKey, int iLine = __builtin_LINE()) {
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
        if (RecordKind<List>::compare(pKey, recordOf<List>(pNode), 0) == 0) {
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

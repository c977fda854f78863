// castlistmgr.h - the locked list of cast requests, newest first.
//
// The request receiver files requests. The supervisor takes them out and puts them back. Every operation
// locks the list's own mutex and no other. The list owns the records in it.
#ifndef PCCAST_CASTLISTMGR_H
#define PCCAST_CASTLISTMGR_H

#include <pccast/castinfo.h>

#include "ktlist.h"

extern "C" {

// The owner zeroes the handle before it creates the list. The list's users never change pMutex and pList.
typedef struct CASTList {
    KTMUTEX pMutex;
    KTLIST *pList;
    // Whoever changes the list writes this under pMutex. Nobody clears it. The supervisor reads it without
    // the lock: not 0 means that something has been filed since the list was created.
    std::atomic<int32_t> iFLAGChange;
} CASTList;

// Makes the mutex and the list.
// Returns 1 created; 0 no handle, or no mutex or list could be made; -1 the handle is not empty (printed).
int CREATECASTList(CASTList *pCASTList);

// Releases the records, the list and the mutex. No other thread may use the list any more. The handle's
// pointers keep their old values. Returns 1 if at least one record was released, else 0.
int DESTROYCASTList(CASTList *pCASTList);

// Files pInfo in descending ulCT order. A stop request releases the first equal waiting request and itself.
// If no request is equal, the stop request goes to the head.
// Returns 1 the list has taken pInfo; 0 no list, no lock (after about 10 s) or no memory: the caller still
// owns pInfo.
int INSERTCASTInfo(CASTList *pCASTList, CASTInfo *pInfo);

// Takes the first due record out of the list into *ppCASTInfo. Drops the expired records before it.
// ulOnAirCT: creation time of the cast on air, 0 for none. ulDueTime: latest start accepted, in seconds.
// Returns 1 taken (the caller owns it), 0 none or no lock, -1 *ppCASTInfo was not empty (printed).
int PATCHaNode(CASTList *pCASTList, unsigned long ulOnAirCT, unsigned long ulDueTime, CASTInfo **ppCASTInfo);

// Takes the head record. Returns 1 taken (the caller owns it), 0 none or no lock, -1 *ppCASTInfo was not
// empty (printed).
int PATCHaCASTInfo(CASTList *pCASTList, CASTInfo **ppCASTInfo);

// Copies the head record into *ppCASTInfo. Returns 1 there is a head record (*ppCASTInfo stays null if memory
// runs out), 0 none or no lock, -1 *ppCASTInfo was not empty (printed).
int GETCOPYaCASTInfo(CASTList *pCASTList, CASTInfo **ppCASTInfo);

// Removes and releases every record equal to pInfo. Returns 1 removed, 0 none or no lock.
int REMOVECASTInfo(CASTList *pCASTList, const CASTInfo *pInfo);

// Removes and releases the head record. Returns 1 removed, 0 none or no lock.
int REMOVEHeadCASTList(CASTList *pCASTList);

// Prints the list on standard output, with the caller's name.
void PRINTCASTList(CASTList *pCASTList, const char *pCaller);
}

// Removes and releases the first record that equals pInfo and has the same ulCT. Returns 1 removed, 0 none or
// no lock.
int castlistRemoveRequest(CASTList *pCASTList, const CASTInfo *pInfo);

#endif

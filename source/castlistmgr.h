// castlistmgr.h - the locked list of cast requests, newest first.
//
// Used by the request receiver, which files, and by the supervisor, which takes out and puts back. Every
// operation holds the list's own mutex for its whole run and no other. The list owns the records in it.
#ifndef PCCAST_CASTLISTMGR_H
#define PCCAST_CASTLISTMGR_H

#include <pccast/castinfo.h>

#include "ktlist.h"

extern "C" {

// The owner zeroes the handle before it creates the list; the list's users never change pMutex and pList.
typedef struct CASTList {
    KTMUTEX pMutex;
    KTLIST *pList;
    // Written under pMutex by whoever changes the list; never cleared. The supervisor reads it without the
    // lock: not 0 means that something has been filed since creation.
    std::atomic<int32_t> iFLAGChange;
} CASTList;

// Returns 1 created; 0 no handle, no mutex or no list; -1 the handle is not empty (printed).
int CREATECASTList(CASTList *pCASTList);

// Releases the records, the list and the mutex; no other thread may use the list any more. The handle's
// pointers are not cleared. Returns 1 when at least one record was released, else 0.
int DESTROYCASTList(CASTList *pCASTList);

// Files pInfo in descending ulCT order; a stop request releases the first equal waiting request and itself,
// or goes to the head when none is equal. Returns 1 the list has taken pInfo; 0 no list or no lock (about 10
// s) or no memory: the caller still owns it.
int INSERTCASTInfo(CASTList *pCASTList, CASTInfo *pInfo);

// Takes the first due record out of the list into *ppCASTInfo, dropping expired ones on the way.
// ulOnAirCT: creation time of the cast on air, 0 for none. ulDueTime: latest start accepted, seconds.
// Returns 1 taken (the caller owns it), 0 none or no lock, -1 *ppCASTInfo was not empty (printed).
int PATCHaNode(CASTList *pCASTList, unsigned long ulOnAirCT, unsigned long ulDueTime, CASTInfo **ppCASTInfo);

// Takes the head record. Returns 1 taken, 0 none or no lock, -1 *ppCASTInfo was not empty (printed).
int PATCHaCASTInfo(CASTList *pCASTList, CASTInfo **ppCASTInfo);

// Copies the head record. Returns 1 there is one (copied if memory allowed), 0 none or no lock, -1
// *ppCASTInfo was not empty (printed).
int GETCOPYaCASTInfo(CASTList *pCASTList, CASTInfo **ppCASTInfo);

// Removes and releases every record equal to pInfo, which is only read. Returns 1 removed, 0 none or no lock.
int REMOVECASTInfo(CASTList *pCASTList, const CASTInfo *pInfo);

// Removes and releases the head record. Returns 1 removed, 0 none or no lock.
int REMOVEHeadCASTList(CASTList *pCASTList);

// Prints the list on standard output, under the caller's name.
void PRINTCASTList(CASTList *pCASTList, const char *pCaller);
}

// Removes and releases the first record equal to pInfo and as old. Returns 1 removed, 0 none or no lock.
int castlistRemoveRequest(CASTList *pCASTList, const CASTInfo *pInfo);

#endif

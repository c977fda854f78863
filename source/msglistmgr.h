// msglistmgr.h - the locked list of PC messages, newest first.
//
// The message receiver files messages. The broadcast engine takes them out and puts them back. Every
// operation holds the list's own mutex, and no other mutex. If it does not get the lock within about 10 s, it
// prints that. The list owns the records in it.
#ifndef PCCAST_MSGLISTMGR_H
#define PCCAST_MSGLISTMGR_H

#include <pccast/msginfo.h>

#include "ktlist.h"

extern "C" {

// The owner zeroes the handle before it creates the list. The list's users never change pMutex and pList.
typedef struct MSGList {
    KTMUTEX pMutex;
    KTLIST *pList;
    // Whoever changes the list writes this under pMutex. Nobody clears it.
    std::atomic<int32_t> iFLAGChange;
} MSGList;

// Makes the mutex and the list.
// Returns 1 created; 0 no handle, or no mutex or list could be made; -1 the handle is not empty (printed).
int CREATEMSGList(MSGList *pMSGList);

// Releases the records, the list and the mutex. No other thread may use the list any more. Without the lock
// it releases the mutex alone. If the mutex was never made, it needs no lock. Returns 1 if at least one
// record was released, else 0.
int DESTROYMSGList(MSGList *pMSGList);

// Files pInfo in descending ulCT order. A cancel request releases the first message of the same identity and
// itself. If there is no such message, the cancel request goes to the head.
// Returns 1 the list has taken pInfo; 0 no list, no lock or no memory: the caller still owns pInfo.
int INSERTMSGInfo(MSGList *pMSGList, MSGInfo *pInfo);

// Removes and releases every record with the identity of pKey. Returns 1 removed, 0 none or no lock.
int REMOVEMSGInfo(MSGList *pMSGList, const MSGInfo *pKey);

// Removes and releases the head record. Returns 1 removed, 0 none or no lock.
int REMOVEHeadMSGList(MSGList *pMSGList);

// Takes the head record. Returns 1 taken (the caller owns it), 0 none or no lock, -1 *ppMSGInfo was not empty
// (printed).
int PATCHaMSGInfo(MSGList *pMSGList, MSGInfo **ppMSGInfo);

// Takes the first due record: it starts by ulDueTime (seconds), and its creation time is ulOnAirCT or later.
// Drops the expired records before it. ulOnAirCT: creation time of the message on air, 0 for none.
// Returns 1 taken (the caller owns it), 0 none or no lock, -1 *ppMSGInfo was not empty (printed).
int PATCHaMSGNode(MSGList *pMSGList, unsigned long ulOnAirCT, unsigned long ulDueTime, MSGInfo **ppMSGInfo);

// Copies the head record into *ppMSGInfo. Returns 1 there is a head record (*ppMSGInfo stays null if memory
// runs out), 0 none or no lock, -1 *ppMSGInfo was not empty (printed).
int GETCOPYaMSGInfo(MSGList *pMSGList, MSGInfo **ppMSGInfo);

// Prints the list on standard output, with the caller's name.
void PRINTMSGList(MSGList *pMSGList, const char *pCaller);

// Tries out a list of its own with built-in records. Prints what happens.
// Returns the result of the last insertion. If the list or the first record cannot be made, it returns that
// result.
int diagMSGListMain(void);
}

#endif

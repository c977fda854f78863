// msglistmgr.h - the locked list of PC messages, newest first.
//
// Used by the message receiver, which files, and by the broadcast engine, which takes out and puts back.
// Every operation looks at the list under the list's own mutex and takes no other; a lock that cannot be had
// (about 10 s) is printed. The list owns the records in it.
#ifndef PCCAST_MSGLISTMGR_H
#define PCCAST_MSGLISTMGR_H

#include <pccast/msginfo.h>

#include "ktlist.h"

extern "C" {

// The owner zeroes the handle before it creates the list; the list's users never change pMutex and pList.
typedef struct MSGList {
    KTMUTEX pMutex;
    KTLIST *pList;
    std::atomic<int32_t> iFLAGChange; // written under pMutex by whoever changes the list; never cleared
} MSGList;

// Returns 1 created; 0 no handle, no mutex or no list; -1 the handle is not empty (printed).
int CREATEMSGList(MSGList *pMSGList);

// Releases the records and the list, unless the lock cannot be had, and the mutex in any case; a list whose
// mutex was never made is released too. No other thread may use the list any more. Returns 1 when at least
// one record was released, else 0.
int DESTROYMSGList(MSGList *pMSGList);

// Files pInfo in descending ulCT order; a cancel request releases the first message of the same identity and
// itself, or goes to the head when there is none. Returns 1 the list has taken pInfo; 0 no list, no lock or
// no memory: the caller still owns it.
int INSERTMSGInfo(MSGList *pMSGList, MSGInfo *pInfo);

// Removes and releases every record of the key's identity. Returns 1 removed, 0 none or no lock.
int REMOVEMSGInfo(MSGList *pMSGList, const MSGInfo *pKey);

// Removes and releases the head record. Returns 1 removed, 0 none or no lock.
int REMOVEHeadMSGList(MSGList *pMSGList);

// Takes the head record. Returns 1 taken, 0 none or no lock, -1 *ppMSGInfo was not empty (printed).
int PATCHaMSGInfo(MSGList *pMSGList, MSGInfo **ppMSGInfo);

// Takes the first record that starts by ulDueTime and is not older than ulOnAirCT, dropping expired ones on
// the way. Returns 1 taken, 0 none or no lock, -1 *ppMSGInfo was not empty (printed).
int PATCHaMSGNode(MSGList *pMSGList, unsigned long ulOnAirCT, unsigned long ulDueTime, MSGInfo **ppMSGInfo);

// Copies the head record. Returns 1 there is one (copied if memory allowed), 0 none or no lock, -1 *ppMSGInfo
// was not empty (printed).
int GETCOPYaMSGInfo(MSGList *pMSGList, MSGInfo **ppMSGInfo);

// Prints the list on standard output, under the caller's name.
void PRINTMSGList(MSGList *pMSGList, const char *pCaller);

// Exercises a list of its own with built-in records and prints what happens. Returns the result of the last
// insertion, or the failing result of making the list or the first record.
int diagMSGListMain(void);
}

#endif

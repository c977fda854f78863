// view.h - what the service tells of itself: the requests that live, the events, the counters.
//
// The threads of the service write here, each at the place in its code where the thing happens. A host reads
// through the public header pccast/view.h. Nothing in the service reads back what it has written, so the view
// decides nothing; when memory for it runs out, it loses an event and counts the loss.
//
// One mutex guards requests and events. A thread of the service holds it for one short change, and takes no
// other lock meanwhile: it never calls this while it holds the lock of a list. Readers copy in small pieces,
// and step back while a thread of the service waits. The counters of the traffic are atomics, written by one
// thread each.
#ifndef PCCAST_VIEW_INTERNAL_H
#define PCCAST_VIEW_INTERNAL_H

#include <pccast/view.h>

#include "engines.h"

#include <atomic>

// The engines that carry casts.
enum ViewEngine { VIEW_BYPASS, VIEW_RECAST, VIEW_ENGINES };

// ---- the service: called by the supervisor

// pThreads: the control blocks of supervisor and engines, with their names; they stay readable until
// viewClose.
struct ViewThread {
    const char *pName;
    const KTPLUGIN_INFO_TAG *pBlock;
};
void viewOpen(const ViewThread (&threads)[PCCAST_VIEW_THREADS]) noexcept;
// pSelf: the supervisor's block. A view that another supervisor has opened since stays open.
void viewClose(const KTPLUGIN_INFO_TAG *pSelf) noexcept;
void viewPass() noexcept; // one pass of the supervisor

// ---- requests
//
// A request is known by the address of its record, from viewArrives until the record is released: whoever is
// about to release a record that was filed says what becomes of it. A call with an unknown address does
// nothing.

// A request is about to be filed. Returns its number, for viewFiled.
unsigned long viewArrives(const CASTInfo *pInfo) noexcept;
unsigned long viewArrives(const MSGInfo *pInfo) noexcept;
// It is in its list. The list's other user may have met it by now; the event comes first all the same.
void viewFiled(unsigned long ulRequest) noexcept;
// It is not taken, and never was in a list. Also for one that viewArrives has not seen.
void viewRefused(const CASTInfo *pInfo, unsigned int uiReason) noexcept;
void viewRefused(const MSGInfo *pInfo, unsigned int uiReason) noexcept;
// pBy, a stop or cancel request, takes pRecord back. A cast that is on air is not told as cancelled: it ends.
void viewCancelled(const void *pRecord, const void *pBy) noexcept;
void viewExpired(const void *pRecord) noexcept;
void viewDropped(const void *pRecord, unsigned int uiReason) noexcept;
// A stop or cancel request has done what it could.
void viewDone(const void *pRecord) noexcept;

// ---- casts
void viewTaken(const CASTInfo *pInfo) noexcept;
void viewPutBack(const CASTInfo *pInfo) noexcept;
// The supervisor is done with the record, whatever became of it. Of one that never went on air: it has
// expired.
void viewReleased(const CASTInfo *pInfo) noexcept;
// The engine's next cast is this request.
void viewHandedOver(ViewEngine eEngine, const CASTInfo *pInfo) noexcept;
// Why the cast on air will have to end, before the engine is asked. pBy: the newer or the stop request; null:
// the service closes.
void viewEndsFor(ViewEngine eEngine, const CASTInfo *pBy) noexcept;
// Called by the engine. Ended: uiReason is the engine's own, PCCAST_REASON_NONE when it was asked to end.
void viewStarted(ViewEngine eEngine) noexcept;
void viewEnded(ViewEngine eEngine, unsigned int uiReason) noexcept;
void viewFailed(ViewEngine eEngine, unsigned int uiReason) noexcept;
void viewSilent(ViewEngine eEngine) noexcept;
void viewHeard(ViewEngine eEngine) noexcept;

// ---- messages: called by the broadcast engine
//
// Two messages that are equally old change places in every pass. So a message is told as current, and as
// replaced, only when it is broadcast in between.
void viewCurrent(const MSGInfo *pInfo) noexcept;
void viewSent(const MSGInfo *pInfo, bool bSent) noexcept;
void viewReplaced(const MSGInfo *pInfo, const MSGInfo *pBy) noexcept;
void viewFinished(const MSGInfo *pInfo, unsigned int uiReason) noexcept;

// ---- counters

// As PCCASTTraffic. Written by the engine alone; any reader.
struct ViewTraffic {
    std::atomic<unsigned long> ulDatagrams, ulBytes, ulFailed, ulDropped, ulSilence, ulSilentSince,
        ulLastArrival, ulDatagramsPerSecond, ulBytesPerSecond, ulPositionMs, ulLengthMs, ulLate;
};
extern ViewTraffic gViewTraffic[VIEW_ENGINES];

// As PCCASTViewSender. Written by the announcement and the broadcast engine alone.
struct ViewSender {
    std::atomic<unsigned long> ulSent, ulFailed, ulLast;
};
extern ViewSender gViewAnnouncements;
extern ViewSender gViewBroadcasts;

// The calling thread is the only writer of the word, so it needs no locked instruction.
inline void viewSet(std::atomic<unsigned long> &ulWord, unsigned long ulValue) {
    ulWord.store(ulValue, std::memory_order_relaxed);
}

inline void viewAdd(std::atomic<unsigned long> &ulWord, unsigned long ulMore) {
    viewSet(ulWord, ulWord.load(std::memory_order_relaxed) + ulMore);
}

// Called by the engine before a cast.
void viewResetTraffic(ViewEngine eEngine) noexcept;

// One attempt to send.
inline void viewCount(ViewSender &sender, bool bSent, unsigned long ulNow) {
    viewAdd(bSent ? sender.ulSent : sender.ulFailed, 1);
    viewSet(sender.ulLast, ulNow);
}

#endif

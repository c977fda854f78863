/* view.h - what the service is doing: a snapshot of this moment, and numbered events of what has happened.
 *
 * The host calls these in the process of the service. Several threads may call them at once. A call delays
 * the service by a short copy at most. Nothing that the service does depends on these calls.
 *
 * The records that these calls give are copies, cut to 128 bytes of an address, 64 of a key, PATH_MAX of a
 * file's path and PCMBC_TEXT_MAX of a text.
 *
 * Times are whole seconds since the epoch unless a field says otherwise. */
#ifndef PCCAST_VIEW_H
#define PCCAST_VIEW_H

#include <pccast/castinfo.h>
#include <pccast/msginfo.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---- places of a request */

/* In its list. */
#define PCCAST_PLACE_WAITING 1
/* Taken out of its list. It waits for its start time, or for a relay to end. */
#define PCCAST_PLACE_PENDING 2
/* On air. */
#define PCCAST_PLACE_ON_AIR 3
/* Over, but still current. Older requests of its list do not start before its end time. */
#define PCCAST_PLACE_OVER 4

/* ---- kinds of event */

/* The request is in its list. */
#define PCCAST_EVENT_FILED 1
/* The request has arrived and is not taken. */
#define PCCAST_EVENT_REFUSED 2
/* pOther, a stop or cancel request, has taken the request back. */
#define PCCAST_EVENT_CANCELLED 3
/* The end of the request came before its start. */
#define PCCAST_EVENT_EXPIRED 4
/* The service has lost the request. */
#define PCCAST_EVENT_DROPPED 5
/* Cast: it is on air. */
#define PCCAST_EVENT_STARTED 6
/* Cast: it is on air again, after the cast that preempted it. */
#define PCCAST_EVENT_RETURNED 7
/* Cast: it is off the air, for pOther. */
#define PCCAST_EVENT_PREEMPTED 8
/* Cast: it is off the air. */
#define PCCAST_EVENT_ENDED 9
/* Cast: it could not start, or could not go on. */
#define PCCAST_EVENT_FAILED 10
/* Relay: nothing has come from its source for a second. */
#define PCCAST_EVENT_SILENT 11
/* Relay: its source is heard again. */
#define PCCAST_EVENT_HEARD 12
/* Message: it is on air. */
#define PCCAST_EVENT_CURRENT 13
/* Message: it has been broadcast once more. */
#define PCCAST_EVENT_SENT 14
/* Message: it is back in its list, for pOther. */
#define PCCAST_EVENT_REPLACED 15
/* Message: it is off the air for good. */
#define PCCAST_EVENT_FINISHED 16
/* Stop or cancel request: it has done what it could. */
#define PCCAST_EVENT_DONE 17

/* ---- reasons of an event */

/* No reason. */
#define PCCAST_REASON_NONE 0
/* The end time has come. */
#define PCCAST_REASON_END_TIME 1
/* pOther, a stop or cancel request. */
#define PCCAST_REASON_STOP 2
/* pOther, a newer request. */
#define PCCAST_REASON_NEWER 3
/* The relay's socket gave an error. */
#define PCCAST_REASON_SOURCE_LOST 4
/* The file has ended. */
#define PCCAST_REASON_FILE_END 5
/* The message has been broadcast as often as asked. */
#define PCCAST_REASON_REPEATS 6
/* The service closes. */
#define PCCAST_REASON_CLOSING 7
/* A send failed. */
#define PCCAST_REASON_SEND 8
/* The source cannot be opened. */
#define PCCAST_REASON_SOURCE 9
/* The destination cannot be opened. */
#define PCCAST_REASON_DESTINATION 10
/* The cast must be decrypted, but there is no key. */
#define PCCAST_REASON_KEY 11
/* The relay would feed itself. */
#define PCCAST_REASON_LOOP 12
/* The file cannot be opened or played. */
#define PCCAST_REASON_FILE 13
/* No driver plays this content format. */
#define PCCAST_REASON_FORMAT 14
/* A field is missing, or the type is unknown. */
#define PCCAST_REASON_INCOMPLETE 15
/* Memory has run out. */
#define PCCAST_REASON_MEMORY 16
/* The lock of the list could not be taken. */
#define PCCAST_REASON_LOCK 17
/* A stop or cancel request has found nothing to end. */
#define PCCAST_REASON_NOTHING 18

/* ---- traffic of a cast */

typedef struct PCCASTTraffic {
    /* Relay: datagrams received. File: datagrams sent. */
    unsigned long ulDatagrams;
    /* Bytes in these datagrams. */
    unsigned long ulBytes;
    /* Sends that failed. */
    unsigned long ulFailed;

    /* ---- relay */

    /* Datagrams that the kernel dropped because they were not fetched in time. */
    unsigned long ulDropped;
    /* Seconds without a datagram, in total. */
    unsigned long ulSilence;
    /* Time from which the source is silent; 0: it is heard. */
    unsigned long ulSilentSince;
    /* Time of the last datagram; 0: none has come. */
    unsigned long ulLastArrival;
    /* Datagrams and bytes of the last full second. */
    unsigned long ulDatagramsPerSecond;
    unsigned long ulBytesPerSecond;

    /* ---- file */

    /* Milliseconds played so far. */
    unsigned long ulPositionMs;
    /* Milliseconds of the whole file; 0: not known. */
    unsigned long ulLengthMs;
    /* Datagrams sent more than 10 ms after their time. */
    unsigned long ulLate;
} PCCASTTraffic;

/* ---- events */

/* One event. The event owns its records: only read them. Exactly one of pCast and pMessage is set. */
typedef struct PCCASTEvent {
    /* From 1, without gaps. A reader that finds a gap has missed events that are no longer kept. */
    unsigned long ulNumber;
    unsigned long ulTime;
    /* Milliseconds of the second ulTime. */
    unsigned int uiMilliseconds;
    /* PCCAST_EVENT_... */
    unsigned int uiKind;
    /* PCCAST_REASON_... */
    unsigned int uiReason;
    /* Number of the request, from 1. It is unique in this process. */
    unsigned long ulRequest;
    const CASTInfo *pCast;
    const MSGInfo *pMessage;
    /* Number of the request that caused the event; 0: none. */
    unsigned long ulOther;
    const CASTInfo *pOtherCast;
    const MSGInfo *pOtherMessage;
    /* Message: broadcasts still to be made. 0 with PCCAST_EVENT_SENT means: until its end. */
    unsigned long ulRepeatsLeft;
    /* Cast: its traffic, when it goes off the air. Else zero. */
    PCCASTTraffic traffic;
    /* Keeps the records. The library owns it. */
    void *pKeep;
} PCCASTEvent;

/* How many events the service keeps. */
#define PCCAST_EVENTS_KEPT 1024

/* Copies the oldest kept events with numbers above ulAfter into pEvents, which has room for iMost. Release
 * each event with ELIMINATEPCCASTEvents. Returns the number of events copied; 0 no event, no room, or the
 * plug-in is closed. */
int READPCCASTEvents(unsigned long ulAfter, PCCASTEvent *pEvents, int iMost);

/* Releases what iCount events own, and clears the events. */
void ELIMINATEPCCASTEvents(PCCASTEvent *pEvents, int iCount);

/* ---- snapshot */

/* A request that lives. The snapshot owns its record: only read it. Exactly one of pCast and pMessage is set.
 */
typedef struct PCCASTViewRequest {
    unsigned long ulRequest;
    /* PCCAST_PLACE_... */
    unsigned int uiPlace;
    const CASTInfo *pCast;
    const MSGInfo *pMessage;
    /* When it was filed. */
    unsigned long ulFiled;
    /* Cast: when it last went on air; 0: never. */
    unsigned long ulStarted;
    /* Cast: number of the request that took it off the air; 0: none. */
    unsigned long ulPreemptedBy;
    /* Message: broadcasts still to be made; 0: until its end. */
    unsigned long ulRepeatsLeft;
} PCCASTViewRequest;

typedef struct PCCASTViewThread {
    const char *pszName;
    /* -1 failed, 0 idle, 1 running or on air, 2 asked to end its cast, 3 asked to stop, 4 stopped. */
    int iState;
    /* 1: the thread runs. */
    int iAlive;
} PCCASTViewThread;

#define PCCAST_VIEW_THREADS 7

/* What one sender has put on the network since the service was opened. */
typedef struct PCCASTViewSender {
    unsigned long ulSent;
    unsigned long ulFailed;
    /* Time of the last attempt; 0: none. */
    unsigned long ulLast;
} PCCASTViewSender;

typedef struct PCCASTView {
    unsigned long ulTime;
    /* When the service was opened. */
    unsigned long ulSince;
    /* Number of the last event before the snapshot. */
    unsigned long ulEvents;
    /* Events lost because memory had run out. */
    unsigned long ulLost;
    /* Passes of the supervisor since it started. */
    unsigned long ulPasses;
    /* The requests in the order of filing. */
    PCCASTViewRequest *pRequests;
    int iRequests;
    PCCASTViewThread threads[PCCAST_VIEW_THREADS];
    /* Number of the request on the relay; 0: none. Then relay holds the traffic of the last relay. */
    unsigned long ulRelay;
    PCCASTTraffic relay;
    /* Number of the request whose file is played; 0: none. */
    unsigned long ulPlayout;
    PCCASTTraffic playout;
    PCCASTViewSender announcements;
    PCCASTViewSender broadcasts;
    /* Keeps the records. The library owns it. */
    void *pKeep;
} PCCASTView;

/* Makes a snapshot in *ppView, which must hold null.
 * Returns 1 made; 0 the plug-in is closed, or no memory; -1 *ppView is not empty. */
int MAKEPCCASTView(PCCASTView **ppView);

/* Releases the snapshot and sets *ppView to null. Returns 1; 0 *ppView was null already. */
int ELIMINATEPCCASTView(PCCASTView **ppView);

#ifdef __cplusplus
}
#endif
#endif

/* view.h - what the service is doing: a snapshot of this moment, and numbered events of what has happened.
 *
 * For the host, in the process of the service. Any thread may call, several at once. No call holds the
 * service up for longer than a short copy, and nothing that the service does depends on these calls.
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

#define PCCAST_PLACE_WAITING 1 /* in its list */
#define PCCAST_PLACE_PENDING 2 /* taken out: it waits for its second, or for a relay to end */
#define PCCAST_PLACE_ON_AIR 3
#define PCCAST_PLACE_OVER                                                                                    \
    4 /* over, but still current: older requests of its list do not start before its end */

/* ---- kinds of event */

#define PCCAST_EVENT_FILED 1     /* the request is in its list */
#define PCCAST_EVENT_REFUSED 2   /* it has arrived, and is not taken */
#define PCCAST_EVENT_CANCELLED 3 /* pOther, a stop or cancel request, has taken it back */
#define PCCAST_EVENT_EXPIRED 4   /* its end came before its start */
#define PCCAST_EVENT_DROPPED 5   /* the service has lost it */
#define PCCAST_EVENT_STARTED 6   /* cast: on air */
#define PCCAST_EVENT_RETURNED 7  /* cast: on air again, after the one that preempted it */
#define PCCAST_EVENT_PREEMPTED 8 /* cast: off the air for pOther */
#define PCCAST_EVENT_ENDED 9     /* cast: off the air */
#define PCCAST_EVENT_FAILED 10   /* cast: it could not start, or not go on */
#define PCCAST_EVENT_SILENT 11   /* relay: nothing has come from its source for a second */
#define PCCAST_EVENT_HEARD 12    /* relay: its source is heard again */
#define PCCAST_EVENT_CURRENT 13  /* message: on air */
#define PCCAST_EVENT_SENT 14     /* message: broadcast once more */
#define PCCAST_EVENT_REPLACED 15 /* message: back in its list for pOther */
#define PCCAST_EVENT_FINISHED 16 /* message: off the air for good */
#define PCCAST_EVENT_DONE 17     /* stop or cancel request: it has done what it could */

/* ---- reasons of an event */

#define PCCAST_REASON_NONE 0
#define PCCAST_REASON_END_TIME 1
#define PCCAST_REASON_STOP 2        /* pOther, a stop or cancel request */
#define PCCAST_REASON_NEWER 3       /* pOther, a newer request */
#define PCCAST_REASON_SOURCE_LOST 4 /* the relay's socket gave an error */
#define PCCAST_REASON_FILE_END 5
#define PCCAST_REASON_REPEATS 6      /* broadcast as often as asked */
#define PCCAST_REASON_CLOSING 7      /* the service closes */
#define PCCAST_REASON_SEND 8         /* a send failed */
#define PCCAST_REASON_SOURCE 9       /* the source cannot be opened */
#define PCCAST_REASON_DESTINATION 10 /* the destination cannot be opened */
#define PCCAST_REASON_KEY 11         /* decryption is wanted, and there is no key */
#define PCCAST_REASON_LOOP 12        /* it would feed itself */
#define PCCAST_REASON_FILE 13        /* the file cannot be opened or played */
#define PCCAST_REASON_FORMAT 14      /* nobody plays this content format */
#define PCCAST_REASON_INCOMPLETE 15  /* a field is missing, or the type is unknown */
#define PCCAST_REASON_MEMORY 16
#define PCCAST_REASON_LOCK 17    /* the list's lock could not be had */
#define PCCAST_REASON_NOTHING 18 /* a stop or cancel request met nothing */

/* ---- traffic of a cast */

typedef struct PCCASTTraffic {
    unsigned long ulDatagrams; /* relay: received; file: sent */
    unsigned long ulBytes;     /* in them */
    unsigned long ulFailed;    /* sends that failed */
    /* relay */
    unsigned long ulDropped;     /* datagrams that the kernel dropped because they were not fetched in time */
    unsigned long ulSilence;     /* seconds without a datagram, in all */
    unsigned long ulSilentSince; /* 0: its source is heard */
    unsigned long ulLastArrival; /* 0: nothing has come */
    unsigned long ulDatagramsPerSecond; /* in the last full second */
    unsigned long ulBytesPerSecond;
    /* file */
    unsigned long ulPositionMs; /* played so far, milliseconds */
    unsigned long ulLengthMs;   /* 0: not known */
    unsigned long ulLate;       /* datagrams sent more than 10 ms after their time */
} PCCASTTraffic;

/* ---- events */

/* One event. The records belong to the event and are only read; exactly one of pCast and pMessage is set. */
typedef struct PCCASTEvent {
    unsigned long ulNumber; /* from 1, without gaps: a gap in what was read is what the ring has lost */
    unsigned long ulTime;
    unsigned int uiMilliseconds; /* of the second */
    unsigned int uiKind;         /* PCCAST_EVENT_... */
    unsigned int uiReason;       /* PCCAST_REASON_... */
    unsigned long ulRequest;     /* number of the request, from 1, unique in this process */
    const CASTInfo *pCast;
    const MSGInfo *pMessage;
    unsigned long ulOther; /* number of the request that caused the event; 0: none */
    const CASTInfo *pOtherCast;
    const MSGInfo *pOtherMessage;
    unsigned long
        ulRepeatsLeft;     /* message: broadcasts still to be made; 0 with PCCAST_EVENT_SENT: until its end */
    PCCASTTraffic traffic; /* cast, when it goes off the air; else zero */
    void *pKeep;           /* keeps the records; the library's */
} PCCASTEvent;

/* How many events the service keeps. */
#define PCCAST_EVENTS_KEPT 1024

/* Copies the oldest kept events with numbers above ulAfter, at most iMost, into pEvents, which the caller
 * provides. Each one read is released with ELIMINATEPCCASTEvents.
 * Returns how many; 0 none, no room, or the plug-in is closed. */
int READPCCASTEvents(unsigned long ulAfter, PCCASTEvent *pEvents, int iMost);

/* Releases what iCount events keep, and clears them. */
void ELIMINATEPCCASTEvents(PCCASTEvent *pEvents, int iCount);

/* ---- snapshot */

/* A request that lives. The record is only read; exactly one of pCast and pMessage is set. */
typedef struct PCCASTViewRequest {
    unsigned long ulRequest;
    unsigned int uiPlace; /* PCCAST_PLACE_... */
    const CASTInfo *pCast;
    const MSGInfo *pMessage;
    unsigned long ulFiled;
    unsigned long ulStarted;     /* cast: when it last went on air; 0: never */
    unsigned long ulPreemptedBy; /* cast: number of the request that took it off the air; 0: none */
    unsigned long ulRepeatsLeft; /* message: broadcasts still to be made; 0: until its end */
} PCCASTViewRequest;

typedef struct PCCASTViewThread {
    const char *pszName;
    int iState; /* -1 failed, 0 idle, 1 running or on air, 2 asked to end its cast, 3 asked to stop, 4 stopped
                 */
    int iAlive; /* 1: it runs */
} PCCASTViewThread;

#define PCCAST_VIEW_THREADS 7

/* What one sender has put on the network since the service was opened. */
typedef struct PCCASTViewSender {
    unsigned long ulSent;
    unsigned long ulFailed;
    unsigned long ulLast; /* time of the last attempt; 0: none */
} PCCASTViewSender;

typedef struct PCCASTView {
    unsigned long ulTime;
    unsigned long ulSince;        /* when the service was opened */
    unsigned long ulEvents;       /* number of the last event before the snapshot */
    unsigned long ulLost;         /* events that were lost for want of memory */
    unsigned long ulPasses;       /* of the supervisor, since it started */
    PCCASTViewRequest *pRequests; /* in the order in which they were filed */
    int iRequests;
    PCCASTViewThread threads[PCCAST_VIEW_THREADS];
    unsigned long ulRelay; /* number of the request on the relay; 0: none. traffic is then of the last one */
    PCCASTTraffic relay;
    unsigned long ulPlayout; /* number of the request whose file is played; 0: none */
    PCCASTTraffic playout;
    PCCASTViewSender announcements;
    PCCASTViewSender broadcasts;
    void *pKeep; /* keeps the records; the library's */
} PCCASTView;

/* Makes a snapshot in *ppView, which must hold null. Returns 1 made; 0 the plug-in is closed, or no memory;
 * -1 the slot was not empty. */
int MAKEPCCASTView(PCCASTView **ppView);

/* Releases the snapshot and empties the slot. Returns 1, or 0 when the slot was empty already. */
int ELIMINATEPCCASTView(PCCASTView **ppView);

#ifdef __cplusplus
}
#endif
#endif

#include "view.h"

#include <qxapi.h>
#include <vexa_pgl.h>

#include <sched.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <unordered_map>
#include <vector>

ViewTraffic gViewTraffic[VIEW_ENGINES];
ViewSender gViewAnnouncements;
ViewSender gViewBroadcasts;

namespace {

constexpr int kChunk = 256;          // records or events that a reader copies in one hold of the lock
constexpr size_t kAddressMost = 128; // bytes that the view keeps of an address, and of a key
constexpr size_t kKeyMost = 64;
constexpr int kTries = 8; // snapshots that a reader begins anew because something has happened meanwhile

// What a request said when it came. It does not change, so events, requests and readers share it.
struct Request {
    unsigned long ulNumber = 0;
    bool bCast = false;
    CASTInfo cast{};
    MSGInfo message{};
    // What the records point at.
    std::string sSource, sDestination, sFile, sKey, sText;
};
using SharedRequest = std::shared_ptr<const Request>;

struct Living {
    SharedRequest pRequest;
    const void *pRecord = nullptr; // null: the record is gone, and the cast still on air
    unsigned long ulFiled = 0;
    unsigned long ulStarted = 0;
    unsigned long ulPreemptedBy = 0;
    unsigned long ulRepeatsLeft = 0;
    bool bTold = false; // that it is filed
    bool bInList = false;
    bool bOnAir = false;
    bool bEnded = false; // cast: its last time on air ended by itself or by a stop
    bool bMet = false;   // stop or cancel request: it has met something
    bool bShown = false; // message: broadcast since it is current
    bool bOver = false;  // it has been on air, and will not return by itself
};

struct Event {
    unsigned long ulNumber = 0;
    unsigned long ulTime = 0;
    unsigned long ulMicroseconds = 0;
    unsigned int uiKind = 0;
    unsigned int uiReason = 0;
    SharedRequest pRequest;
    SharedRequest pOther;
    unsigned long ulRepeatsLeft = 0;
    PCCASTTraffic traffic{};
};

// The cast of an engine, and why it will have to end.
struct OnAir {
    unsigned long ulRequest = 0;
    bool bAsked = false;
    SharedRequest pFor; // with bAsked; null: the service closes
};

// Everything that the lock guards.
struct View {
    bool bOpen = false;
    unsigned long ulSince = 0;
    std::array<ViewThread, PCCAST_VIEW_THREADS> threads{};
    unsigned long ulRequests = 0; // numbers given so far
    std::map<unsigned long, Living> living;
    std::unordered_map<const void *, unsigned long> numbers; // of the records
    OnAir onAir[VIEW_ENGINES];
    std::array<Event, PCCAST_EVENTS_KEPT> ring;
};

std::mutex gLock;
std::atomic<int> gServiceWaits{0};        // threads of the service that want the lock
std::atomic<unsigned long> gLastEvent{0}; // written with the lock held; read anywhere as a hint
std::atomic<unsigned long> gLost{0};      // events lost; any thread of the service adds
std::atomic<unsigned long> gPasses{0};    // written by the supervisor

// Never destroyed: a detached thread may still write while the process ends.
View &view() {
    static View &instance = *new View;
    return instance;
}

std::unique_lock<std::mutex> lockForService() {
    ++gServiceWaits;
    std::unique_lock<std::mutex> hold(gLock);
    --gServiceWaits;
    return hold;
}

// Steps back while a thread of the service waits, so that thread waits for one reader's short copy at most.
std::unique_lock<std::mutex> lockForReader() {
    for (;;) {
        while (gServiceWaits != 0) {
            sched_yield();
        }
        std::unique_lock<std::mutex> hold(gLock);
        if (gServiceWaits == 0) {
            return hold;
        }
    }
}

// Runs the change with the lock held. What memory does not suffice for is lost, and counted.
template <typename Change>
void change(Change what) noexcept {
    try {
        const std::unique_lock<std::mutex> hold = lockForService();
        what(view());
    } catch (...) {
        ++gLost;
    }
}

// ---- records

// A copy of at most ulMost bytes: a request is as long as its sender likes, and the ring keeps a thousand.
std::string bounded(const char *pText, size_t ulMost) {
    return pText == nullptr ? std::string() : std::string(pText, strnlen(pText, ulMost));
}

// The text that a record points at; null where the request has none.
char *textOf(std::string &sText, const char *pOriginal) {
    return pOriginal == nullptr ? nullptr : sText.data();
}

SharedRequest share(const CASTInfo &info, unsigned long ulNumber) {
    auto pRequest = std::make_shared<Request>();
    pRequest->ulNumber = ulNumber;
    pRequest->bCast = true;
    pRequest->sSource = bounded(info.pSRCIP, kAddressMost);
    pRequest->sDestination = bounded(info.pDSTIP, kAddressMost);
    pRequest->sFile = bounded(info.pCASTFile, PATH_MAX);
    const bool bKey = info.pEncryptionKey != nullptr && info.iEncryptionKeyLen > 0;
    if (bKey) {
        pRequest->sKey.assign(reinterpret_cast<const char *>(info.pEncryptionKey),
                              std::min(static_cast<size_t>(info.iEncryptionKeyLen), kKeyMost));
    }
    CASTInfo &cast = pRequest->cast;
    cast = info;
    cast.pSRCIP = textOf(pRequest->sSource, info.pSRCIP);
    cast.pDSTIP = textOf(pRequest->sDestination, info.pDSTIP);
    cast.pCASTFile = textOf(pRequest->sFile, info.pCASTFile);
    cast.iEncryptionKeyLen = static_cast<int>(pRequest->sKey.size());
    cast.pEncryptionKey = bKey ? reinterpret_cast<unsigned char *>(pRequest->sKey.data()) : nullptr;
    return pRequest;
}

SharedRequest share(const MSGInfo &info, unsigned long ulNumber) {
    auto pRequest = std::make_shared<Request>();
    pRequest->ulNumber = ulNumber;
    pRequest->sText = bounded(info.pMSGSTR, PCMBC_TEXT_MAX);
    pRequest->message = info;
    pRequest->message.pMSGSTR = textOf(pRequest->sText, info.pMSGSTR);
    return pRequest;
}

Living *find(View &state, unsigned long ulNumber) {
    const auto found = state.living.find(ulNumber);
    return found == state.living.end() ? nullptr : &found->second;
}

Living *find(View &state, const void *pRecord) {
    const auto found = state.numbers.find(pRecord);
    return found == state.numbers.end() ? nullptr : find(state, found->second);
}

SharedRequest requestOf(View &state, const void *pRecord) {
    const Living *pLiving = find(state, pRecord);
    return pLiving == nullptr ? nullptr : pLiving->pRequest;
}

// The record is gone. The request lives on while its cast is on air.
void forget(View &state, Living *pLiving) {
    state.numbers.erase(pLiving->pRecord);
    pLiving->pRecord = nullptr;
    pLiving->bInList = false;
    if (!pLiving->bOnAir) {
        state.living.erase(pLiving->pRequest->ulNumber);
    }
}

// ---- events

PCCASTTraffic readTraffic(ViewEngine eEngine) {
    const ViewTraffic &words = gViewTraffic[eEngine];
    constexpr auto kAny = std::memory_order_relaxed;
    PCCASTTraffic traffic{};
    traffic.ulDatagrams = words.ulDatagrams.load(kAny);
    traffic.ulBytes = words.ulBytes.load(kAny);
    traffic.ulFailed = words.ulFailed.load(kAny);
    traffic.ulDropped = words.ulDropped.load(kAny);
    traffic.ulSilence = words.ulSilence.load(kAny);
    traffic.ulSilentSince = words.ulSilentSince.load(kAny);
    traffic.ulLastArrival = words.ulLastArrival.load(kAny);
    traffic.ulDatagramsPerSecond = words.ulDatagramsPerSecond.load(kAny);
    traffic.ulBytesPerSecond = words.ulBytesPerSecond.load(kAny);
    traffic.ulPositionMs = words.ulPositionMs.load(kAny);
    traffic.ulLengthMs = words.ulLengthMs.load(kAny);
    traffic.ulLate = words.ulLate.load(kAny);
    return traffic;
}

// Puts an event into the ring, over the oldest one. Returns it, for what it has beyond these.
Event &note(View &state, unsigned int uiKind, unsigned int uiReason, const SharedRequest &pRequest,
            const SharedRequest &pOther) {
    const unsigned long ulNumber = gLastEvent + 1;
    Event &event = state.ring[ulNumber % PCCAST_EVENTS_KEPT];
    event = Event{};
    event.ulNumber = ulNumber;
    qxapi_time_ex2(&event.ulTime, &event.ulMicroseconds);
    event.uiKind = uiKind;
    event.uiReason = uiReason;
    event.pRequest = pRequest;
    event.pOther = pOther;
    gLastEvent = ulNumber;
    return event;
}

Event &note(View &state, unsigned int uiKind, unsigned int uiReason, const Living &living,
            const SharedRequest &pOther = nullptr) {
    Event &event = note(state, uiKind, uiReason, living.pRequest, pOther);
    event.ulRepeatsLeft = living.ulRepeatsLeft;
    return event;
}

// That the request is filed is told before anything else that becomes of it.
void tellFiled(View &state, Living *pLiving) {
    if (!pLiving->bTold) {
        pLiving->bTold = true;
        pLiving->ulFiled = note(state, PCCAST_EVENT_FILED, PCCAST_REASON_NONE, *pLiving).ulTime;
    }
}

// The request of a record, told as filed; null when it is not known.
Living *known(View &state, const void *pRecord) {
    Living *pLiving = find(state, pRecord);
    if (pLiving != nullptr) {
        tellFiled(state, pLiving);
    }
    return pLiving;
}

template <typename Info>
unsigned long arrives(const Info *pInfo, unsigned long ulRepeats) noexcept {
    unsigned long ulNumber = 0;
    change([&](View &state) {
        Living living;
        living.pRequest = share(*pInfo, state.ulRequests + 1);
        living.pRecord = pInfo;
        living.bInList = true;
        living.ulRepeatsLeft = ulRepeats;
        state.living.emplace(living.pRequest->ulNumber, living);
        state.numbers[pInfo] = living.pRequest->ulNumber;
        ulNumber = ++state.ulRequests;
    });
    return ulNumber;
}

template <typename Info>
void refused(const Info *pInfo, unsigned int uiReason) noexcept {
    change([&](View &state) {
        SharedRequest pRequest = requestOf(state, pInfo);
        if (pRequest == nullptr) {
            pRequest = share(*pInfo, ++state.ulRequests);
        } else {
            forget(state, find(state, pInfo));
        }
        note(state, PCCAST_EVENT_REFUSED, uiReason, pRequest, nullptr);
    });
}

// One last event of a record that is about to be released.
void last(const void *pRecord, unsigned int uiKind, unsigned int uiReason) noexcept {
    change([&](View &state) {
        if (Living *pLiving = known(state, pRecord)) {
            note(state, uiKind, uiReason, *pLiving);
            forget(state, pLiving);
        }
    });
}

} // namespace

// ---- the service

void viewOpen(const ViewThread (&threads)[PCCAST_VIEW_THREADS]) noexcept {
    change([&](View &state) {
        state.living.clear();
        state.numbers.clear();
        for (OnAir &onAir : state.onAir) {
            onAir = OnAir{};
        }
        std::copy(std::begin(threads), std::end(threads), state.threads.begin());
        state.ulSince = vexa_time(nullptr);
        state.bOpen = true;
    });
    gPasses = 0;
    for (ViewSender *pSender : {&gViewAnnouncements, &gViewBroadcasts}) {
        pSender->ulSent = pSender->ulFailed = pSender->ulLast = 0;
    }
}

void viewClose(const KTPLUGIN_INFO_TAG *pSelf) noexcept {
    change([=](View &state) {
        if (state.threads[0].pBlock == pSelf) {
            state.bOpen = false;
            state.threads = {};
        }
    });
}

void viewResetTraffic(ViewEngine eEngine) noexcept {
    ViewTraffic &words = gViewTraffic[eEngine];
    for (std::atomic<unsigned long> *pWord :
         {&words.ulDatagrams, &words.ulBytes, &words.ulFailed, &words.ulDropped, &words.ulSilence,
          &words.ulSilentSince, &words.ulLastArrival, &words.ulDatagramsPerSecond, &words.ulBytesPerSecond,
          &words.ulPositionMs, &words.ulLengthMs, &words.ulLate}) {
        viewSet(*pWord, 0);
    }
}

void viewPass() noexcept {
    ++gPasses;
}

// ---- requests

unsigned long viewArrives(const CASTInfo *pInfo) noexcept {
    return arrives(pInfo, 0);
}

unsigned long viewArrives(const MSGInfo *pInfo) noexcept {
    return arrives(pInfo, pInfo->ulRepeat);
}

void viewFiled(unsigned long ulRequest) noexcept {
    change([&](View &state) {
        if (Living *pLiving = find(state, ulRequest)) {
            tellFiled(state, pLiving);
        }
    });
}

void viewRefused(const CASTInfo *pInfo, unsigned int uiReason) noexcept {
    refused(pInfo, uiReason);
}

void viewRefused(const MSGInfo *pInfo, unsigned int uiReason) noexcept {
    refused(pInfo, uiReason);
}

void viewCancelled(const void *pRecord, const void *pBy) noexcept {
    change([&](View &state) {
        Living *pLiving = known(state, pRecord);
        Living *pRevocation = known(state, pBy);
        if (pLiving == nullptr || pRevocation == nullptr) {
            return;
        }
        const bool bEnds =
            pLiving->pRequest->bCast && !pLiving->bInList && (pLiving->bOnAir || pLiving->bOver);
        if (!bEnds) {
            note(state, PCCAST_EVENT_CANCELLED, PCCAST_REASON_STOP, *pLiving, pRevocation->pRequest);
            pRevocation->bMet = true;
        }
        if (!pLiving->pRequest->bCast) {
            pLiving->bOnAir = false;
        }
        forget(state, pLiving);
    });
}

void viewExpired(const void *pRecord) noexcept {
    change([&](View &state) {
        if (Living *pLiving = known(state, pRecord)) {
            // A file that has been played can go back to its list. Its story is told already.
            if (!pLiving->bEnded) {
                note(state, PCCAST_EVENT_EXPIRED, PCCAST_REASON_END_TIME, *pLiving);
            }
            forget(state, pLiving);
        }
    });
}

void viewDropped(const void *pRecord, unsigned int uiReason) noexcept {
    last(pRecord, PCCAST_EVENT_DROPPED, uiReason);
}

void viewDone(const void *pRecord) noexcept {
    change([&](View &state) {
        if (Living *pLiving = known(state, pRecord)) {
            note(state, PCCAST_EVENT_DONE, pLiving->bMet ? PCCAST_REASON_NONE : PCCAST_REASON_NOTHING,
                 *pLiving);
            forget(state, pLiving);
        }
    });
}

// ---- casts

void viewTaken(const CASTInfo *pInfo) noexcept {
    change([&](View &state) {
        if (Living *pLiving = known(state, pInfo)) {
            pLiving->bInList = false;
            pLiving->bOver = false;
        }
    });
}

void viewPutBack(const CASTInfo *pInfo) noexcept {
    change([&](View &state) {
        if (Living *pLiving = known(state, pInfo)) {
            pLiving->bInList = true;
            pLiving->bOver = false;
        }
    });
}

void viewReleased(const CASTInfo *pInfo) noexcept {
    change([&](View &state) {
        Living *pLiving = known(state, pInfo);
        if (pLiving == nullptr) {
            return;
        }
        if (!pLiving->bOnAir && !pLiving->bOver) {
            note(state, PCCAST_EVENT_EXPIRED, PCCAST_REASON_END_TIME, *pLiving);
        }
        forget(state, pLiving);
    });
}

void viewHandedOver(ViewEngine eEngine, const CASTInfo *pInfo) noexcept {
    change([&](View &state) {
        const Living *pLiving = known(state, pInfo);
        state.onAir[eEngine] = OnAir{};
        state.onAir[eEngine].ulRequest = pLiving == nullptr ? 0 : pLiving->pRequest->ulNumber;
    });
}

void viewEndsFor(ViewEngine eEngine, const CASTInfo *pBy) noexcept {
    change([&](View &state) {
        OnAir &onAir = state.onAir[eEngine];
        if (!onAir.bAsked) {
            onAir.bAsked = true;
            onAir.pFor = requestOf(state, pBy);
        }
    });
}

void viewStarted(ViewEngine eEngine) noexcept {
    change([&](View &state) {
        Living *pLiving = find(state, state.onAir[eEngine].ulRequest);
        if (pLiving == nullptr) {
            return;
        }
        const bool bReturned = pLiving->ulPreemptedBy != 0;
        pLiving->ulPreemptedBy = 0;
        pLiving->bOnAir = true;
        pLiving->ulStarted = note(state, bReturned ? PCCAST_EVENT_RETURNED : PCCAST_EVENT_STARTED,
                                  PCCAST_REASON_NONE, *pLiving)
                                 .ulTime;
    });
}

namespace {

// Why a cast ended that its engine was asked to end. A relay that waits for its source may be asked for a
// newer cast before it sees that its own time is over.
unsigned int reasonAsked(const Living &living, const SharedRequest &pFor, ViewEngine eEngine) {
    if (pFor == nullptr) {
        return PCCAST_REASON_CLOSING;
    }
    if (pFor->cast.ulCMD == CAST_CMD_STOP) {
        return PCCAST_REASON_STOP;
    }
    const bool bOver = eEngine == VIEW_BYPASS && living.pRequest->cast.ulET <= vexa_time(nullptr);
    return bOver ? PCCAST_REASON_END_TIME : PCCAST_REASON_NEWER;
}

} // namespace

void viewEnded(ViewEngine eEngine, unsigned int uiReason) noexcept {
    change([&](View &state) {
        OnAir onAir = state.onAir[eEngine];
        state.onAir[eEngine] = OnAir{};
        Living *pLiving = find(state, onAir.ulRequest);
        if (pLiving == nullptr) {
            return;
        }
        unsigned int uiKind = PCCAST_EVENT_ENDED;
        SharedRequest pOther;
        if (uiReason == PCCAST_REASON_NONE) {
            pOther = onAir.pFor;
            uiReason = reasonAsked(*pLiving, pOther, eEngine);
            if (uiReason == PCCAST_REASON_NEWER) {
                uiKind = PCCAST_EVENT_PREEMPTED;
                pLiving->ulPreemptedBy = pOther->ulNumber;
            } else if (uiReason == PCCAST_REASON_STOP) {
                if (Living *pStop = find(state, pOther->ulNumber)) {
                    pStop->bMet = true;
                }
            } else {
                pOther = nullptr;
            }
        }
        pLiving->bOnAir = false;
        pLiving->bOver = true;
        pLiving->bEnded = uiKind == PCCAST_EVENT_ENDED;
        note(state, uiKind, uiReason, *pLiving, pOther).traffic = readTraffic(eEngine);
        if (pLiving->pRecord == nullptr) {
            state.living.erase(onAir.ulRequest);
        }
    });
}

void viewFailed(ViewEngine eEngine, unsigned int uiReason) noexcept {
    change([&](View &state) {
        const OnAir onAir = state.onAir[eEngine];
        state.onAir[eEngine] = OnAir{};
        Living *pLiving = find(state, onAir.ulRequest);
        if (pLiving == nullptr) {
            return;
        }
        Event &event = note(state, PCCAST_EVENT_FAILED, uiReason, *pLiving);
        if (pLiving->bOnAir) {
            event.traffic = readTraffic(eEngine);
        }
        pLiving->bOnAir = false;
        pLiving->bOver = true;
        if (pLiving->pRecord == nullptr) {
            state.living.erase(onAir.ulRequest);
        }
    });
}

namespace {

void noteOnAir(ViewEngine eEngine, unsigned int uiKind) noexcept {
    change([&](View &state) {
        if (const Living *pLiving = find(state, state.onAir[eEngine].ulRequest)) {
            note(state, uiKind, PCCAST_REASON_NONE, *pLiving).traffic = readTraffic(eEngine);
        }
    });
}

} // namespace

void viewSilent(ViewEngine eEngine) noexcept {
    noteOnAir(eEngine, PCCAST_EVENT_SILENT);
}

void viewHeard(ViewEngine eEngine) noexcept {
    noteOnAir(eEngine, PCCAST_EVENT_HEARD);
}

// ---- messages

void viewCurrent(const MSGInfo *pInfo) noexcept {
    change([&](View &state) {
        if (Living *pLiving = known(state, pInfo)) {
            pLiving->bInList = false;
            pLiving->bOnAir = true;
            pLiving->bShown = false;
        }
    });
}

void viewSent(const MSGInfo *pInfo, bool bSent) noexcept {
    change([&](View &state) {
        if (Living *pLiving = known(state, pInfo)) {
            if (!pLiving->bShown) {
                pLiving->bShown = true;
                pLiving->ulStarted = note(state, PCCAST_EVENT_CURRENT, PCCAST_REASON_NONE, *pLiving).ulTime;
            }
            // A count that began at 0 has wrapped: until the end time.
            pLiving->ulRepeatsLeft = pLiving->pRequest->message.ulRepeat == 0 ? 0 : pInfo->ulRepeat;
            note(state, PCCAST_EVENT_SENT, bSent ? PCCAST_REASON_NONE : PCCAST_REASON_SEND, *pLiving);
        }
    });
}

void viewReplaced(const MSGInfo *pInfo, const MSGInfo *pBy) noexcept {
    change([&](View &state) {
        const SharedRequest pOther = requestOf(state, pBy);
        if (Living *pLiving = known(state, pInfo)) {
            pLiving->bInList = true;
            pLiving->bOnAir = false;
            if (pLiving->bShown) {
                note(state, PCCAST_EVENT_REPLACED, PCCAST_REASON_NEWER, *pLiving, pOther);
            }
        }
    });
}

void viewFinished(const MSGInfo *pInfo, unsigned int uiReason) noexcept {
    change([&](View &state) {
        if (Living *pLiving = known(state, pInfo)) {
            note(state, PCCAST_EVENT_FINISHED, uiReason, *pLiving);
            pLiving->bOnAir = false;
            forget(state, pLiving);
        }
    });
}

// ---- readers

namespace {

// What an event keeps for its reader.
struct KeptEvent {
    SharedRequest pRequest;
    SharedRequest pOther;
};

// What a snapshot keeps for its reader.
struct KeptView {
    std::vector<SharedRequest> requests;
    std::vector<PCCASTViewRequest> rows;
};

const CASTInfo *castOf(const SharedRequest &pRequest) {
    return pRequest != nullptr && pRequest->bCast ? &pRequest->cast : nullptr;
}

const MSGInfo *messageOf(const SharedRequest &pRequest) {
    return pRequest != nullptr && !pRequest->bCast ? &pRequest->message : nullptr;
}

// Gives the copied event to the reader.
void handEvent(const Event &event, PCCASTEvent *pEvent) {
    auto *pKeep = new KeptEvent{event.pRequest, event.pOther};
    *pEvent = PCCASTEvent{};
    pEvent->ulNumber = event.ulNumber;
    pEvent->ulTime = event.ulTime;
    pEvent->uiMilliseconds = static_cast<unsigned int>(event.ulMicroseconds / 1000);
    pEvent->uiKind = event.uiKind;
    pEvent->uiReason = event.uiReason;
    pEvent->ulRequest = event.pRequest->ulNumber;
    pEvent->pCast = castOf(event.pRequest);
    pEvent->pMessage = messageOf(event.pRequest);
    pEvent->ulOther = event.pOther == nullptr ? 0 : event.pOther->ulNumber;
    pEvent->pOtherCast = castOf(event.pOther);
    pEvent->pOtherMessage = messageOf(event.pOther);
    pEvent->ulRepeatsLeft = event.ulRepeatsLeft;
    pEvent->traffic = event.traffic;
    pEvent->pKeep = pKeep;
}

// Copies up to a chunk of events behind ulAfter. The ring is not read further in one hold of the lock.
std::vector<Event> copyEvents(unsigned long ulAfter, int iMost) {
    std::vector<Event> events;
    events.reserve(kChunk);
    const std::unique_lock<std::mutex> hold = lockForReader();
    const View &state = view();
    if (!state.bOpen) {
        return events;
    }
    const unsigned long ulLast = gLastEvent;
    unsigned long ulNext = ulAfter + 1;
    if (ulLast >= PCCAST_EVENTS_KEPT && ulNext + PCCAST_EVENTS_KEPT <= ulLast) {
        ulNext = ulLast - PCCAST_EVENTS_KEPT + 1;
    }
    for (; ulNext <= ulLast && events.size() < static_cast<size_t>(std::min(iMost, kChunk)); ++ulNext) {
        events.push_back(state.ring[ulNext % PCCAST_EVENTS_KEPT]);
    }
    return events;
}

unsigned int placeOf(const Living &living) {
    return living.bOnAir    ? PCCAST_PLACE_ON_AIR
           : living.bInList ? PCCAST_PLACE_WAITING
           : living.bOver   ? PCCAST_PLACE_OVER
                            : PCCAST_PLACE_PENDING;
}

// Appends the requests behind ulAfter, up to a chunk. The caller has made room, and holds the lock.
void copyRequests(const View &state, unsigned long ulAfter, KeptView *pKeep) {
    int iCopied = 0;
    for (auto next = state.living.upper_bound(ulAfter); next != state.living.end() && iCopied < kChunk;
         ++next) {
        const Living &living = next->second;
        PCCASTViewRequest row{};
        row.ulRequest = next->first;
        row.uiPlace = placeOf(living);
        row.pCast = castOf(living.pRequest);
        row.pMessage = messageOf(living.pRequest);
        row.ulFiled = living.ulFiled;
        row.ulStarted = living.ulStarted;
        row.ulPreemptedBy = living.ulPreemptedBy;
        row.ulRepeatsLeft = living.ulRepeatsLeft;
        pKeep->requests.push_back(living.pRequest);
        pKeep->rows.push_back(row);
        ++iCopied;
    }
}

// What stands beside the requests. The lock is held.
void copyRest(const View &state, PCCASTView *pView) {
    pView->ulSince = state.ulSince;
    for (int i = 0; i < PCCAST_VIEW_THREADS; ++i) {
        const ViewThread &thread = state.threads[static_cast<size_t>(i)];
        pView->threads[i].pszName = thread.pName;
        pView->threads[i].iState = thread.pBlock == nullptr ? ENGINE_STOPPED : thread.pBlock->eState.load();
        pView->threads[i].iAlive = thread.pBlock != nullptr && thread.pBlock->iThreadCount > 0 ? 1 : 0;
    }
    const auto requestOn = [&](ViewEngine eEngine) {
        const auto found = state.living.find(state.onAir[eEngine].ulRequest);
        return found != state.living.end() && found->second.bOnAir ? found->first : 0;
    };
    pView->ulRelay = requestOn(VIEW_BYPASS);
    pView->ulPlayout = requestOn(VIEW_RECAST);
}

PCCASTViewSender readSender(const ViewSender &words) {
    return {words.ulSent.load(), words.ulFailed.load(), words.ulLast.load()};
}

// Copies the requests piece by piece. Returns false when something has happened between the pieces, so that
// they may not fit together; *pbOpen: the plug-in is open.
bool copyView(PCCASTView *pView, KeptView *pKeep, bool *pbOpen) {
    pKeep->rows.clear();
    pKeep->requests.clear();
    pView->ulEvents = gLastEvent;
    for (size_t ulBefore = 0;; ulBefore = pKeep->rows.size()) {
        pKeep->rows.reserve(ulBefore + kChunk);
        pKeep->requests.reserve(ulBefore + kChunk);
        const std::unique_lock<std::mutex> hold = lockForReader();
        const View &state = view();
        *pbOpen = state.bOpen;
        if (ulBefore == 0) {
            pView->ulEvents = gLastEvent;
        }
        copyRequests(state, ulBefore == 0 ? 0 : pKeep->rows.back().ulRequest, pKeep);
        if (!state.bOpen || pKeep->rows.size() < ulBefore + kChunk) {
            copyRest(state, pView);
            return pView->ulEvents == gLastEvent;
        }
    }
}

} // namespace

int READPCCASTEvents(unsigned long ulAfter, PCCASTEvent *pEvents, int iMost) {
    if (pEvents == nullptr || iMost <= 0) {
        return 0;
    }
    int iRead = 0;
    try {
        while (iRead < iMost && gLastEvent > ulAfter) {
            const std::vector<Event> events = copyEvents(ulAfter, iMost - iRead);
            for (const Event &event : events) {
                handEvent(event, &pEvents[iRead]);
                ulAfter = event.ulNumber;
                ++iRead;
            }
            if (events.empty()) {
                break;
            }
        }
    } catch (const std::bad_alloc &) { // what has been read counts
    }
    return iRead;
}

void ELIMINATEPCCASTEvents(PCCASTEvent *pEvents, int iCount) {
    for (int i = 0; pEvents != nullptr && i < iCount; ++i) {
        delete static_cast<KeptEvent *>(pEvents[i].pKeep);
        pEvents[i] = PCCASTEvent{};
    }
}

int MAKEPCCASTView(PCCASTView **ppView) {
    if (ppView == nullptr) {
        return 0;
    }
    if (*ppView != nullptr) {
        return -1;
    }
    try {
        auto pView = std::make_unique<PCCASTView>();
        auto pKeep = std::make_unique<KeptView>();
        bool bOpen = true;
        for (int i = 0; i < kTries && !copyView(pView.get(), pKeep.get(), &bOpen); ++i) {
        }
        if (!bOpen) {
            return 0;
        }
        pView->ulTime = vexa_time(nullptr);
        pView->ulLost = gLost;
        pView->ulPasses = gPasses;
        pView->relay = readTraffic(VIEW_BYPASS);
        pView->playout = readTraffic(VIEW_RECAST);
        pView->announcements = readSender(gViewAnnouncements);
        pView->broadcasts = readSender(gViewBroadcasts);
        pView->pRequests = pKeep->rows.data();
        pView->iRequests = static_cast<int>(pKeep->rows.size());
        pView->pKeep = pKeep.release();
        *ppView = pView.release();
        return 1;
    } catch (const std::bad_alloc &) {
        return 0;
    }
}

int ELIMINATEPCCASTView(PCCASTView **ppView) {
    if (ppView == nullptr || *ppView == nullptr) {
        return 0;
    }
    delete static_cast<KeptView *>((*ppView)->pKeep);
    delete *ppView;
    *ppView = nullptr;
    return 1;
}

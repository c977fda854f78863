#include "viewstate.h"

#include <qxapi.h>
#include <sched.h>
#include <vexa_pgl.h>

#include <algorithm>
#include <climits>
#include <cstring>

ViewTraffic gViewTraffic[VIEW_ENGINES];
ViewSender gViewAnnouncements;
ViewSender gViewBroadcasts;

namespace viewstate {

namespace {

std::mutex gLock;
std::atomic<int> gServiceWaits{0}; // threads of the service that want the lock

} // namespace

std::atomic<unsigned long> gLastEvent{0};
std::atomic<unsigned long> gLost{0};
std::atomic<unsigned long> gPasses{0};

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

} // namespace viewstate

using namespace viewstate;

namespace {

constexpr size_t kAddressMost = 128; // bytes that the view keeps of an address, and of a key
constexpr size_t kKeyMost = 64;

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

// What a host reads of the view: snapshots and events, in copies that it keeps.
#include "viewstate.h"

#include <vexa_pgl.h>

#include <algorithm>
#include <new>
#include <vector>

using namespace viewstate;

namespace {

constexpr int kChunk = 256; // records or events that a reader copies in one hold of the lock
constexpr int kTries = 8;   // snapshots that a reader begins anew because something has happened meanwhile

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

// viewstate.h - what view.cpp, which the service's threads run, shares with viewreader.cpp, which readers
// run.
//
// Only these two files include it. Everything here is defined in view.cpp.
#ifndef PCCAST_VIEWSTATE_H
#define PCCAST_VIEWSTATE_H

#include "view.h"

#include <array>
#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>

namespace viewstate {

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

// Everything that the lock guards. The threads of the service write it; readers copy from it.
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

// The number of the newest event. A thread of the service writes it with the lock held, with each event.
// Without the lock it is a hint.
extern std::atomic<unsigned long> gLastEvent;
// Events lost because memory ran out. Any thread of the service adds, without the lock.
extern std::atomic<unsigned long> gLost;
// The supervisor's passes. The supervisor alone writes it: it sets it to 0 when it opens the view, and adds
// with each pass.
extern std::atomic<unsigned long> gPasses;

// Never destroyed: a detached thread may still write while the process ends. Call it with the lock held.
View &view();

// The lock, for a thread of the service.
std::unique_lock<std::mutex> lockForService();
// The lock, for a reader. It steps back while a thread of the service waits, so that thread waits for one
// reader's short copy at most.
std::unique_lock<std::mutex> lockForReader();

// The engine's counters. Needs no lock.
PCCASTTraffic readTraffic(ViewEngine eEngine);

} // namespace viewstate

#endif

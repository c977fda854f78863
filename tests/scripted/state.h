// state.h - what the files of the scripted framework share.
#ifndef SCRIPTED_STATE_H
#define SCRIPTED_STATE_H

#include "scripted.h"

#include <atomic>
#include <deque>
#include <list>
#include <map>
#include <memory>
#include <mutex>

namespace script {

// Above 0, the allocations of the thread are the framework's own.
extern thread_local int tInside;
extern thread_local long tFailAllocation;

using Passes = std::atomic<unsigned long>;
extern thread_local Passes *tThread; // null in the test's own thread

struct Rule {
    Step step;
    std::string key;
    int iResult, iTimes, iSkip;
};

struct Request {
    unsigned int uiCommand, uiParam;
    Bytes payload;
};

struct EndpointState {
    std::string key;
    int iMode = 0, iVersion = 0;
    int iFarEnd = -1; // receiver: where the test writes
    Request request{};
};

// What reset() forgets.
struct Script {
    unsigned long ulNow = kStart;
    bool bPollsTakeTime = false;
    int iBreak = 0;
    std::list<Rule> rules;
    std::string held;
    const pthread_mutex_t *pTaken = nullptr;
    Records seen;
    std::map<std::string, std::deque<Request>> requests;
    std::map<std::string, std::pair<std::string, int>> registry;
    std::map<std::string, std::vector<Packet>> files;
};

struct State : Script {
    std::mutex mutex;
    std::atomic<unsigned long> ulPaused{0};
    std::atomic<long> lWallOffset{0}, lThreadAllocations{0}, lPasses{0};
    std::list<std::shared_ptr<Passes>> threads;
    std::map<KTNET_ENDPOINT *, EndpointState> endpoints;
    int iNextSocket = 100000, iHeld = 0;
};
State &state();

// Held by every call of the framework that touches the state.
struct Enter {
    Enter() {
        ++tInside;
        state().mutex.lock();
    }
    ~Enter() {
        state().mutex.unlock();
        --tInside;
    }
    Enter(const Enter &) = delete;
    Enter &operator=(const Enter &) = delete;
};

// Whether a rule decides this step. The caller has entered.
bool decided(Step step, const std::string &key, int *piResult);
// Keeps the calling thread while a hold covers what it does. Calls key() while entered.
void waitWhileHeld(const std::function<std::string()> &key);
// One pass of the calling thread: counts it and gives way.
void pass();

} // namespace script

#endif

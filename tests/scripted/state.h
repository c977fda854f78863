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

// Allocations of the thread are the framework's own while it is above 0.
extern thread_local int tInside;
extern thread_local long tFailAllocation;

struct ThreadRecord {
    std::atomic<unsigned long> ulPasses{0};
    std::atomic<long> lAllocations{0};
};
extern thread_local ThreadRecord *tThread; // null in the test's own thread

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

struct State {
    std::mutex mutex;
    unsigned long ulNow = START, ulSlept = 0;
    std::atomic<unsigned long> ulPauses{0}, ulPaused{0};
    std::atomic<long> lWallOffset{0};
    bool bPollsTakeTime = false, bRegistryMissing = false;
    std::list<std::shared_ptr<ThreadRecord>> threads;
    std::list<Rule> rules;
    std::vector<std::string> calls, reports, log, created;
    std::string console, registryOpening, held;
    std::map<const KTNET_ENDPOINT *, EndpointState> endpoints;
    std::map<int, const KTNET_ENDPOINT *> sockets;
    std::map<std::string, unsigned int> pollTimeouts;
    std::map<std::string, std::deque<Request>> requests;
    std::vector<Frame> frames;
    std::vector<Datagram> datagrams;
    std::map<std::string, std::pair<std::string, int>> registry;
    std::map<std::string, std::vector<Packet>> files;
    unsigned long ulFrameAttempts = 0;
    int iNextSocket = 100000, iPayloads = 0, iDumps = 0, iRegistries = 0, iLent = 0, iBreak = 0;
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

// Whether a rule decides this step; the caller has entered.
bool decided(Step step, const std::string &key, int *piResult);
// Keeps the calling thread while what it is at is held. key: called while entered.
void waitWhileHeld(const std::function<std::string()> &key);
// One pass of the calling thread: counts it and gives way.
void pass();

} // namespace script

#endif

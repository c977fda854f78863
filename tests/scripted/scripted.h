// scripted.h - a host framework that does what a test says: the clock stands until it is moved, sockets and
// casters record what they are given, and any step fails on demand.
//
// It implements vexa_pgl.h, qxapi.h and qxapi_ktn.h. Everything here may be called from any thread; one mutex
// guards all records. What the framework allocates for itself is neither counted nor refused.
#ifndef SCRIPTED_H
#define SCRIPTED_H

#include <qxapi.h>
#include <qxapi_ktn.h>
#include <vexa_pgl.h>

#include <pthread.h>

#include <functional>
#include <string>
#include <vector>

namespace script {

using Bytes = std::vector<unsigned char>;

// Forgets all records, rules and requests; the clock stands at START. No thread may be live.
constexpr unsigned long START = 1'000'000'000ul; // 2001-09-09 01:46:40 UTC
void reset();

// ---- time
unsigned long now();
void advance(unsigned long ulSeconds);
// An empty poll moves the clock by its time-out. Initially it moves nothing and costs one pass.
void pollsTakeTime();
// sleep() moves the clock second by second and lets the threads work in between.
// Microseconds that select() without descriptors was asked to pause, all threads together. The pause itself
// is left out.
unsigned long pausedMicroseconds();
// Moves what the C library's time() tells.
void moveWallClock(long lSeconds);

// ---- threads
// Starts a thread that counts like those of qxapi_detached_thread_tag. lFailAllocation: refuse its n-th
// allocation (0: none).
void startThread(std::function<void()> body, long lFailAllocation = 0);
int liveThreads();
// Wait in real time, bounded; false when the bound is reached, with a line on standard error.
// settle: that many rounds, in each of which every live thread makes at least one more pass
// (vexa_load_balance, qxapi_load_balance or an empty poll). What one thread hands to the next takes two
// rounds at most; so whatever they had to do at the present time is done, however unevenly they run.
bool settle(unsigned uPasses = 12);
bool eventually(const std::function<bool()> &condition);
bool threadsEnd();

// ---- failures on demand
enum class Step {
    INIT, // key "mode N"; no descriptor is made, whatever the result
    CREATE,
    CONNECT,
    ACCEPT,
    RX,
    POLL,
    TX,
    TX_DATAGRAM,
    THREAD,        // key: the tag
    THREAD_MEMORY, // key: the tag; the thread's allocation of the resulting number is refused
    STREAM_START,
    CASTER_OPEN, // key "asf" or "ts"; any result: none is made
    SET_STATION,
    SET_TARGET,
    CASTER_SEND,
    TRYLOCK // pthread_mutex_trylock: the errno; key ""
};
// The next iTimes steps whose key contains `key`, after iSkip of them, return iResult instead of being done.
// Endpoint keys: "server PATH", "client PATH", "connection PATH", "tx ADDRESS:PORT", "rx ADDRESS:PORT".
void fail(Step step, const std::string &key, int iResult, int iTimes = 1, int iSkip = 0);

// Creations and polls of endpoints whose key contains `key`, and all stored files for "stream", do not get on
// until the hold is let go with "". Returns when everyone who is in their midst has come to the hold.
void hold(const std::string &key);

// Holds a mutex that the tested code then tries for in vain. When it is in the way of itself, it gets the
// mutex at the first attempt, after a wait: its own pauses are left out, so they must not run out.
struct Taken {
    explicit Taken(pthread_mutex_t *pMutex);
    ~Taken();
    Taken(const Taken &) = delete;
    Taken &operator=(const Taken &) = delete;
    pthread_mutex_t *const pMutex;
};

// ---- memory
// Refuses the n-th allocation from now on in the calling thread; 0 ends it. Allocations: malloc, calloc,
// strdup and operator new of what is linked into the test.
void failAllocation(long lNth);
// Whether the refusal has come, also after it was ended.
bool allocationFailed();
// malloc, calloc and strdup blocks that have not been freed.
long liveBlocks();
// Allocations of all threads but the test's own.
long threadAllocations();

// ---- what happened
struct Frame {
    std::string key;
    unsigned long ulTime = 0;
    KTNET_PACKET header{}; // pPayload is null
    Bytes payload;
};
struct Records {
    // Calls in their order: endpoints ("init MODE VERSION", "create KEY", "hops FAMILY HOPS ON KEY",
    // "connect KEY", "receive IDENT", "close KEY", "delete KEY", "dump"), threads ("thread TAG"), streams and
    // casters.
    std::vector<std::string> calls;
    std::vector<std::string> faults;  // calls that break the library's rules
    std::vector<std::string> reports; // qxapi_assert_gateway: "FUNCTION: TEXT"
    std::vector<std::string> log;     // qxapi_log_printf: "TAG: TEXT"
    std::string console;              // qxapi_printf
    // The settings of each endpoint when it was created: "mode M version V kind K peer P local L port N
    // listen N aux N timeout N error N"; a number that was left at the library's default shows as "-".
    std::vector<std::string> endpoints;
    std::vector<Frame> frames;    // sent successfully, or with a scripted result of 0
    std::vector<Bytes> datagrams; // the same
};
Records seen();
void forget(); // all of it
// Those that were sent to an endpoint whose key contains `key`.
std::vector<Frame> frames(const std::string &key);
int liveEndpoints(); // descriptors not yet deleted
int held();          // received payloads, registries and packets of streams that were not given back

// ---- what arrives
// Queues a request for a local server. What a local client sends is queued too, until a server takes it.
void request(const std::string &path, unsigned int uiCommand, unsigned int uiParam, const Bytes &payload);
int requestsWaiting();
// Sends to the receiver "rx ADDRESS:PORT". False when there is none.
bool datagram(const std::string &address, const Bytes &bytes);

// ---- host
// A registry value; iLength is what the lookup reports. Without a value there is no registry.
void registryValue(const std::string &key, const std::string &value, int iLength);

// A stored file whose packets fall due at the given times of the scripted clock. Any other file cannot be
// opened.
struct Packet {
    unsigned long ulDue;
    Bytes bytes;
};
void storedFile(const std::string &path, const std::vector<Packet> &packets);

} // namespace script

#endif

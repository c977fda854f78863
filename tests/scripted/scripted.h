// scripted.h - a host framework that does what a test says. It implements vexa_pgl.h, qxapi.h and
// qxapi_ktn.h.
//
// The clock stands until advance(), sleep() or, if asked for, an empty poll moves it. The C library's time()
// is the real one. Sockets and casters record what they are given. A test can make any step fail.
//
// How a test names things. A rule of fail() or hold() applies to every key that contains its text, so "rx "
// means all receivers and "" means everything.
//   "server PATH", "client PATH"   a local endpoint that listens at, or connects to, that socket file
//   "connection PATH"              what the server there accepted
//   "tx ADDRESS:PORT", "rx ..."    a UDP sender to, or receiver of, that address
//   "fresh"                        an endpoint whose socket was never created
//   "mode N"                       the making of a descriptor in that mode; it has no address yet
//   "asf", "ts"                    the two casters; "asf send 47 01" is a packet in hexadecimal
//   "stream"                       every stored file, for hold() alone
// The calls in Records are a verb and such a key: "init MODE VERSION", "create KEY", "connect KEY",
// "hops FAMILY HOPS ON KEY", "receive IDENT", "close KEY", "delete KEY", "dump", "thread TAG",
// "open stream FILE", "start stream", "release packet", "close stream", "open asf", "asf target ADDRESS
// PORT".
//
// Any thread may call what stands here, but settle(), hold(), eventually(), threadsEnd() and reset() are for
// the test's own thread. One mutex guards the script and its records. Memory of the framework itself is
// neither counted nor refused.
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

// Forgets all records, rules and requests. The clock stands at kStart. No thread may be live.
constexpr unsigned long kStart = 1'000'000'000ul; // 2001-09-09 01:46:40 UTC
void reset();

// ---- time
unsigned long now();
// sleep() does the same second by second, and lets every thread work in between.
void advance(unsigned long ulSeconds);
// From now on an empty poll moves the clock by its time-out. Before, it costs one pass and no time.
void pollsTakeTime();
// Microseconds of pauses that all threads asked for by select() without descriptors. No thread really waits.
unsigned long pausedMicroseconds();
// Moves what the C library's time() tells.
void moveWallClock(long lSeconds);

// ---- threads
// Starts a thread that counts like those of qxapi_detached_thread_tag. lFailAllocation: refuse its n-th
// allocation (0: none).
void startThread(std::function<void()> body, long lFailAllocation = 0);
int liveThreads();
// A pass is one call of vexa_load_balance or qxapi_load_balance, or one empty poll. Of all threads since
// reset():
long passes();
// These three wait in real time for 20 seconds at most. Then they return false and write a line to standard
// error. settle() waits for that many rounds. In a round every live thread makes a pass at least. Two rounds
// are enough for what one thread hands to the next. So all is done that was due, however unevenly threads
// run.
bool settle(unsigned uPasses = 12);
bool eventually(const std::function<bool()> &condition);
bool threadsEnd();

// ---- failures on demand
enum class Step {
    Init, // key "mode N"; whatever the result, no descriptor is made
    Create,
    Connect,
    Accept,
    Rx,
    Poll,
    Tx,
    TxDatagram,
    Thread,       // key: the tag
    ThreadMemory, // key: the tag; the result is the number of the thread's allocation that is refused
    StreamStart,
    CasterOpen, // key "asf" or "ts"; whatever the result, none is made
    SetStation,
    SetTarget,
    CasterSend,
    TryLock // pthread_mutex_trylock; key ""; the result is the errno
};
// Lets iSkip steps whose key contains `key` pass. The iTimes after them return iResult and do nothing.
void fail(Step step, const std::string &key, int iResult, int iTimes = 1, int iSkip = 0);

// Holds whoever creates or polls an endpoint whose key contains `key`, or reads a stored file for "stream".
// hold("") lets them go. Returns when whoever was already past that point has come round to it.
void hold(const std::string &key);

// Holds a mutex that the tested code then tries for in vain. Two threads of the tested code never refuse each
// other: the second one really waits. Its attempts would run out too early, since its pauses take no time.
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
// Whether the refusal came. failAllocation(0) leaves the answer as it is.
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
    std::vector<std::string> calls;   // in their order; the words are above
    std::vector<std::string> faults;  // calls that break the library's rules
    std::vector<std::string> reports; // qxapi_assert_gateway: "FUNCTION: TEXT"
    std::vector<std::string> log;     // qxapi_log_printf: "TAG: TEXT"
    std::string console;              // qxapi_printf
    // The settings of each endpoint when it was created: "mode M version V kind K peer P local L port N
    // listen N aux N timeout N error N". "-" is a number that was left at the library's default.
    std::vector<std::string> endpoints;
    std::vector<Frame> frames;    // sent, also with a scripted result of 0
    std::vector<Bytes> datagrams; // handed over by sends that no rule decided
};
Records seen();
void forget(); // all of it
// The frames of all endpoints whose key contains `key`.
std::vector<Frame> frames(const std::string &key);
int liveEndpoints(); // descriptors not yet deleted
int held();          // received payloads, registries and packets of streams that were not given back

// ---- what arrives
// Queues a request for a local server, behind what local clients sent.
void request(const std::string &path, unsigned int uiCommand, unsigned int uiParam, const Bytes &payload);
int requestsWaiting();
// Sends to the receiver at "ADDRESS:PORT". Returns false when there is none.
bool datagram(const std::string &address, const Bytes &bytes);

// ---- host
// Sets a registry value. The lookup reports iLength. Before the first value there is no registry.
void registryValue(const std::string &key, const std::string &value, int iLength);

// Stores a file whose packets fall due at these times of the scripted clock. No other file can be opened.
struct Packet {
    unsigned long ulDue;
    Bytes bytes;
};
void storedFile(const std::string &path, const std::vector<Packet> &packets);

} // namespace script

#endif

// statestore.h - the file in which the service keeps its state: the requests that live, and the history.
//
// One SQLite file, FOLDER/pccast.db. The keeper's thread writes it (statekeeper.h). Others open it to read:
// the threads that restore requests, the view server, pccast history. A Store belongs to one thread. Every
// operation throws StoreError when the file does not do what it should.
//
// A request has a row from the moment it is filed until it is over for good. The row has the request's number
// in the service that runs; in a file of an earlier run it has none until the request is filed again.
//
// The history has an entry for each time that a cast was on air, and one for each message that was broadcast.
// What should have been on air and was not has an entry too, without a start.
#ifndef PCCAST_CLI_STATESTORE_H
#define PCCAST_CLI_STATESTORE_H

#include "json.h"

#include <pccast/view.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

struct StoreError : std::runtime_error {
    StoreError(int iSQLite, const std::string &sText) : std::runtime_error(sText), iCode(iSQLite) {}

    // The file is no database, or a damaged one.
    bool isCorrupt() const;

    int iCode; // of SQLite
};

// A file that a newer version of this program has written.
struct NewerStore : StoreError {
    explicit NewerStore(int iVersion);
};

// The version that this program writes, in the file's user_version.
constexpr int kStateVersion = 1;
constexpr const char *kStateFile = "pccast.db";

// A request as it is kept. The records point into the texts, so it cannot be copied.
struct KeptRequest {
    KeptRequest() = default;
    KeptRequest(const KeptRequest &) = delete;
    KeptRequest &operator=(const KeptRequest &) = delete;

    long long llId = 0;
    bool bCast = false;
    bool bRestored = false; // it has a number in the service that runs
    CASTInfo cast{};
    MSGInfo message{}; // ulRepeat: the repeats left
    std::string sSource, sDestination, sFile, sKey, sText;
};

// What is found in the file when the service starts.
struct StateLeft {
    // To be filed again, in this order: first what is due, the newest first, so that nothing goes on air
    // before what takes precedence over it; then the rest in the order in which it was filed.
    std::vector<long long> casts;
    std::vector<long long> messages;
    // For the audit: what has become of other requests meanwhile.
    std::vector<std::string> notes;
};

// Which entries of the history. Times in seconds since the epoch.
struct HistoryQuery {
    unsigned long ulSince = 0; // on air then, or later
    bool bEPG = false;         // of the programme ulEPGID alone
    unsigned long ulEPGID = 0;
    unsigned long ulAfter = 0; // entries with higher ids
};

class Store {
public:
    enum Access { READ, WRITE };

    // WRITE: makes the file, mode 0600, when there is none, checks it, and brings one of an older version up
    // to this one. READ: a file of this version has to be there.
    Store(const std::string &sPath, Access eAccess);
    ~Store();
    Store(const Store &) = delete;
    Store &operator=(const Store &) = delete;

    // ---- written by the keeper, each in one transaction

    // The first act of a service that starts. Casts that were on air become interrupted entries of the
    // history. What has expired, or was stopped or cancelled in the last moment, goes. ulNow: seconds.
    StateLeft begin(unsigned long ulNow);
    // Applies the events, oldest first. Adds to *pulRestored how many requests have been filed again.
    void apply(const std::vector<PCCASTEvent> &events, unsigned long *pulRestored);
    // Takes over from a snapshot what living requests there are, because events have been missed. Of what has
    // ended meanwhile the history does not know why.
    void reconcile(const PCCASTView &view, unsigned long *pulRestored);
    // Writes down what the casts on air have carried so far. Returns false when the snapshot has none on air.
    bool note(const PCCASTView &view);
    // Writes something, to see whether the file can be written again.
    void probe();
    // Removes entries of the history that ended before ulBefore.
    void prune(unsigned long ulBefore);

    // ---- read by anybody

    // Returns false when the request is no more.
    bool load(long long llId, KeptRequest *pRequest);
    unsigned long countRequests();
    // The oldest 1000 entries that the query asks for:
    // {"last": id to go on from, "entries": [...]}. An entry:
    //   id, kind, epg, identity, from, until, duration_ms, event, reason, other, source, destination, file,
    //   datagrams, bytes, failed, dropped, silence, late    of a cast
    //   text, broadcasts, failed                            of a message
    // event, until, duration_ms: only when it is over. event: as of events, or interrupted or unknown.
    Json history(const HistoryQuery &query);

private:
    struct Work;
    std::unique_ptr<Work> pWork;
};

#endif

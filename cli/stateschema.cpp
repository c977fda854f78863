#include "stateschema.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>

namespace {

constexpr int kApplication = 0x50434153; // marks the file as one of this program
constexpr int kBusyMs = 1000;            // how long a lock of another process is waited for

// Version i becomes version i + 1. A step that has been released never changes.
constexpr std::array<const char *, kStateVersion> kMigrations{R"(
    CREATE TABLE request(
        id INTEGER PRIMARY KEY AUTOINCREMENT, -- in the order of filing
        number INTEGER UNIQUE,                -- in the service that runs; NULL: not filed again yet
        is_cast INTEGER NOT NULL,
        on_air INTEGER NOT NULL DEFAULT 0,
        command INTEGER NOT NULL, epg INTEGER NOT NULL,
        created INTEGER NOT NULL, start INTEGER NOT NULL, end INTEGER NOT NULL,
        -- a cast
        type INTEGER, format INTEGER, source, source_port INTEGER, destination, destination_port INTEGER,
        file, stream_id INTEGER, encryption INTEGER, key, split INTEGER,
        -- a message
        priority INTEGER, repeats INTEGER, repeats_left INTEGER, attribute1 INTEGER, attribute3 INTEGER, text);
    CREATE INDEX request_identity ON request(epg, created, start, end);
    CREATE TABLE history(
        id INTEGER PRIMARY KEY AUTOINCREMENT,
        request INTEGER NOT NULL,  -- its id in the table request, as long as it lives
        kind NOT NULL, epg INTEGER NOT NULL, identity NOT NULL,
        started INTEGER,           -- milliseconds since the epoch; NULL: never on air
        noted INTEGER,             -- when its traffic was last written down
        ended INTEGER,             -- NULL: still on air, or a message that lives
        event, reason, other,
        -- a cast
        source, destination, file,
        datagrams INTEGER, bytes INTEGER, failed INTEGER DEFAULT 0, dropped INTEGER, silence INTEGER, late INTEGER,
        -- a message
        text, broadcasts INTEGER);
    CREATE INDEX history_ended ON history(ended);
    CREATE INDEX history_epg ON history(epg);
    CREATE INDEX history_open ON history(request) WHERE ended IS NULL;
)"};

void execute(sqlite3 *pHandle, const std::string &sSQL) {
    const int iResult = sqlite3_exec(pHandle, sSQL.c_str(), nullptr, nullptr, nullptr);
    if (iResult != SQLITE_OK) {
        throw StoreError(iResult, sqlite3_errmsg(pHandle));
    }
}

void check(sqlite3 *pHandle) {
    // The history may be long, and the air waits for this: its pages are checked as they are used.
    Statement statement(pHandle, "PRAGMA quick_check(request)");
    if (statement.step() && statement.text(0) != "ok") {
        throw StoreError(SQLITE_CORRUPT, statement.text(0));
    }
}

void migrate(sqlite3 *pHandle, int iVersion) {
    if (iVersion == kStateVersion) {
        return;
    }
    Transaction transaction(pHandle);
    for (auto uStep = static_cast<size_t>(iVersion); uStep < kMigrations.size(); ++uStep) {
        execute(pHandle, kMigrations[uStep]);
    }
    execute(pHandle, "PRAGMA user_version = " + std::to_string(kStateVersion) +
                         "; PRAGMA application_id = " + std::to_string(kApplication));
    transaction.commit();
}

// The file holds keys, so nobody else may read it, whatever the umask.
void makeFile(const std::string &sPath) {
    const int iFile = open(sPath.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    if (iFile < 0) {
        throw StoreError(SQLITE_CANTOPEN, std::strerror(errno));
    }
    close(iFile);
}

} // namespace

NewerStore::NewerStore(int iVersion)
    : StoreError(SQLITE_ERROR, "a newer version of this program has written it (its version is " +
                                   std::to_string(iVersion) + ", this one's " +
                                   std::to_string(kStateVersion) + ")") {}

Connection openState(const std::string &sPath, Store::Access eAccess) {
    if (eAccess == Store::WRITE) {
        makeFile(sPath);
    }
    const int iAccess = eAccess == Store::READ ? SQLITE_OPEN_READONLY : SQLITE_OPEN_READWRITE;
    sqlite3 *pHandle = nullptr;
    const int iResult = sqlite3_open_v2(sPath.c_str(), &pHandle, iAccess | SQLITE_OPEN_NOMUTEX, nullptr);
    Connection connection(pHandle, sqlite3_close); // there is one even when it could not be opened
    if (iResult != SQLITE_OK) {
        throw StoreError(iResult, sqlite3_errstr(iResult));
    }
    sqlite3_extended_result_codes(pHandle, 1);
    sqlite3_busy_timeout(pHandle, kBusyMs);
    // The statement is gone by the next line: the journal's mode changes only while none is open.
    const auto iVersion = static_cast<int>(Statement(pHandle, "PRAGMA user_version").run().id());
    if (iVersion > kStateVersion) {
        throw NewerStore(iVersion);
    }
    if (eAccess == Store::WRITE) {
        execute(pHandle, "PRAGMA journal_mode = WAL; PRAGMA synchronous = FULL; PRAGMA temp_store = MEMORY");
        migrate(pHandle, iVersion);
        check(pHandle);
    } else if (iVersion < kStateVersion) {
        throw StoreError(SQLITE_ERROR, "it holds no state, or that of an older version; pccast serve --state "
                                       "brings it up to this one");
    }
    return connection;
}

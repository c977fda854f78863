#include "statestore.h"

#include "eventtext.h"
#include "sqlite.h"
#include "stateschema.h"
#include "viewjson.h"

#include "castformat.h"

#include <array>
#include <cstring>
#include <utility>

namespace {

constexpr int kPage = 1000;        // entries of the history in one answer
constexpr int kPruned = 5000;      // entries removed in one transaction
constexpr size_t kTextMost = 1024; // bytes of a message's text in the history

// All that a request is filed with, and how often a message is still to be broadcast.
constexpr const char *kCastColumns = "command, epg, created, start, end, type, format, source, source_port, "
                                     "destination, destination_port, file, "
                                     "stream_id, encryption, key, split";
constexpr const char *kMessageColumns =
    "command, epg, created, start, end, priority, repeats_left, attribute1, attribute3, text";

bool isRelay(const CASTInfo &cast) {
    return isStream(cast.ulCASTType);
}

// Fields that do not belong to the type of the cast are left out: they may be those of an earlier request.
void bindRecord(Statement *pStatement, const CASTInfo &cast) {
    Statement &statement = *pStatement;
    const bool bRelay = isRelay(cast);
    for (const unsigned long ulNumber :
         {cast.ulCMD, cast.uliEPGID, cast.ulCT, cast.ulST, cast.ulET, cast.ulCASTType, cast.ulSTREAMFormat}) {
        statement.bind(ulNumber);
    }
    statement.bind(bRelay ? cast.pSRCIP : nullptr).bind(bRelay ? cast.usSRCPort : 0);
    statement.bind(cast.pDSTIP).bind(cast.usDSTPort).bind(bRelay ? nullptr : cast.pCASTFile);
    statement.bind(cast.ulMSID).bind(bRelay ? cast.iEncryptionType : 0);
    statement.bindBytes(bRelay ? cast.pEncryptionKey : nullptr, static_cast<size_t>(cast.iEncryptionKeyLen));
    statement.bind(bRelay ? cast.iASFSplit : 0);
}

void bindRecord(Statement *pStatement, const MSGInfo &message) {
    for (const unsigned long ulNumber :
         {message.ulCMD, message.uliEPGID, message.ulCT, message.ulST, message.ulET, message.ulPriority,
          message.ulRepeat, message.ulAttr1, message.ulAttr3}) {
        pStatement->bind(ulNumber);
    }
    pStatement->bind(message.pMSGSTR);
}

// The columns of the list, each followed by the operator and a place for its value.
std::string conditions(std::string sColumns) {
    for (size_t u = 0; (u = sColumns.find(", ", u)) != std::string::npos; u += 10) {
        sColumns.replace(u, 2, " IS ? AND ");
    }
    return sColumns + " IS ?";
}

std::string places(const std::string &sColumns) {
    std::string sPlaces = "?";
    for (const char c : sColumns) {
        sPlaces += c == ',' ? ", ?" : "";
    }
    return sPlaces;
}

bool isOnScreen(const CASTInfo &cast) {
    return cast.ulCMD == CAST_CMD_START;
}

bool isOnScreen(const MSGInfo &message) {
    return message.ulCMD == PCMBC_CMD_MSG;
}

long long milliseconds(const PCCASTEvent &event) {
    return static_cast<long long>(event.ulTime) * 1000 + event.uiMilliseconds;
}

// The text, and the record's pointer to it; null where the column is NULL.
char *loadText(const Statement &statement, int iColumn, std::string *psText) {
    *psText = statement.text(iColumn);
    return statement.isNull(iColumn) ? nullptr : psText->data();
}

} // namespace

bool StoreError::isCorrupt() const {
    return (iCode & 0xFF) == SQLITE_CORRUPT || (iCode & 0xFF) == SQLITE_NOTADB;
}

struct Store::Work {
    explicit Work(Connection opened) : connection(std::move(opened)), pHandle(connection.get()) {}

    Connection connection;
    sqlite3 *pHandle;

    // ---- requests

    // Returns the request's id, 0 when it has none.
    long long find(unsigned long ulNumber) const {
        Statement statement(pHandle, "SELECT id FROM request WHERE number = ?");
        return statement.run(ulNumber).id();
    }

    // Gives a request of an earlier run its number, when it is the one that has been filed. Returns its id, 0
    // when it is none.
    template <typename Record>
    long long bindEarlier(unsigned long ulNumber, const Record &record, const char *pszColumns) const {
        Statement statement(pHandle, "SELECT id FROM request WHERE +number IS NULL AND " +
                                         conditions(pszColumns) + " ORDER BY id LIMIT 1");
        bindRecord(&statement, record);
        statement.step();
        if (statement.id() != 0) {
            Statement(pHandle, "UPDATE request SET number = ?, on_air = 0 WHERE id = ?")
                .run(ulNumber, statement.id());
        }
        return statement.id();
    }

    template <typename Record>
    long long insert(unsigned long ulNumber, const Record &record, const char *pszColumns, bool bCast,
                     unsigned long ulRepeats) const {
        Statement statement(pHandle, std::string("INSERT INTO request(number, is_cast, repeats, ") +
                                         pszColumns + ") VALUES(?, ?, ?, " + places(pszColumns) + ")");
        statement.bind(ulNumber).bind(bCast).bind(ulRepeats);
        bindRecord(&statement, record);
        statement.step();
        return sqlite3_last_insert_rowid(pHandle);
    }

    // The id of a request that lives in the service. It gets a row when it has none.
    long long file(unsigned long ulNumber, const CASTInfo *pCast, const MSGInfo *pMessage,
                   unsigned long ulRepeatsLeft, unsigned long *pulRestored) {
        long long llId = find(ulNumber);
        if (llId != 0 || (pCast == nullptr && pMessage == nullptr)) {
            return llId;
        }
        // An earlier request has been filed with the repeats that it had left.
        llId = pCast != nullptr ? bindEarlier(ulNumber, *pCast, kCastColumns)
                                : bindEarlier(ulNumber, *pMessage, kMessageColumns);
        if (llId != 0) {
            ++*pulRestored;
        } else {
            llId = pCast != nullptr ? insert(ulNumber, *pCast, kCastColumns, true, 0)
                                    : insert(ulNumber, *pMessage, kMessageColumns, false, pMessage->ulRepeat);
        }
        if (pMessage != nullptr) {
            Statement(pHandle, "UPDATE request SET repeats_left = ? WHERE id = ?").run(ulRepeatsLeft, llId);
        }
        return llId;
    }

    void remove(long long llId) const { Statement(pHandle, "DELETE FROM request WHERE id = ?").run(llId); }

    void setOnAir(long long llId, bool bOnAir) const {
        Statement(pHandle, "UPDATE request SET on_air = ? WHERE id = ?").run(bOnAir, llId);
    }

    // ---- history

    bool isOpen(long long llId) const {
        return Statement(pHandle, "SELECT 1 FROM history WHERE request = ? AND ended IS NULL")
            .bind(llId)
            .step();
    }

    // Begins an entry. llStarted: milliseconds; 0: it never was on air.
    void begin(long long llId, long long llStarted, const CASTInfo &cast) const {
        Statement statement(
            pHandle, "INSERT INTO history(request, kind, epg, identity, source, destination, file, started) "
                     "VALUES(?, ?, ?, ?, ?, ?, ?, nullif(?, 0))");
        const auto endpoint = [](const char *pszAddress, unsigned short usPort) {
            return pszAddress == nullptr ? "" : std::string(pszAddress) + ":" + std::to_string(usPort);
        };
        statement.run(llId, kindOf(cast), cast.uliEPGID, identityOf(cast),
                      isRelay(cast) ? endpoint(cast.pSRCIP, cast.usSRCPort) : "",
                      endpoint(cast.pDSTIP, cast.usDSTPort), isRelay(cast) ? nullptr : cast.pCASTFile,
                      llStarted);
    }

    void begin(long long llId, long long llStarted, const MSGInfo &message) const {
        const char *const pszText = message.pMSGSTR == nullptr ? "" : message.pMSGSTR;
        Statement(pHandle, "INSERT INTO history(request, kind, epg, identity, text, started, broadcasts) "
                           "VALUES(?, ?, ?, ?, ?, nullif(?, 0), 0)")
            .run(llId, kindOf(message), message.uliEPGID, identityOf(message),
                 std::string_view(pszText, strnlen(pszText, kTextMost)), llStarted);
    }

    void end(long long llId, long long llEnded, const char *pszEvent, const char *pszReason,
             const std::string &sOther) const {
        Statement(pHandle, "UPDATE history SET ended = max(?, ifnull(started, 0)), event = ?, reason = ?, "
                           "other = nullif(?, '') WHERE request = ? AND ended IS NULL")
            .run(llEnded, pszEvent, pszReason, sOther, llId);
    }

    void setTraffic(long long llId, long long llNow, bool bRelay, const PCCASTTraffic &traffic) const {
        Statement(pHandle, "UPDATE history SET noted = ?, datagrams = ?, bytes = ?, failed = ?, dropped = ?, "
                           "silence = ?, late = ? WHERE request = ? AND ended IS NULL")
            .run(llNow, traffic.ulDatagrams, traffic.ulBytes, traffic.ulFailed,
                 bRelay ? traffic.ulDropped : 0, bRelay ? traffic.ulSilence : 0, bRelay ? 0 : traffic.ulLate,
                 llId);
    }

    // ---- events

    static std::string otherOf(const PCCASTEvent &event) {
        return event.pOtherCast != nullptr      ? identityOf(*event.pOtherCast)
               : event.pOtherMessage != nullptr ? identityOf(*event.pOtherMessage)
                                                : "";
    }

    void endEntry(long long llId, const PCCASTEvent &event) const {
        end(llId, milliseconds(event), eventName(event.uiKind), reasonName(event.uiReason), otherOf(event));
    }

    // The request should have been on air and was not, or is over. The history says so.
    template <typename Record>
    void missed(long long llId, const PCCASTEvent &event, const Record &record) const {
        if (isOnScreen(record)) {
            if (!isOpen(llId)) {
                begin(llId, 0, record);
            }
            endEntry(llId, event);
        }
    }

    void apply(const PCCASTEvent &event, const CASTInfo &cast, long long llId) {
        const bool bByRelay = event.pOtherCast != nullptr && isRelay(*event.pOtherCast);
        switch (event.uiKind) {
        case PCCAST_EVENT_STARTED:
        case PCCAST_EVENT_RETURNED:
            setOnAir(llId, true);
            end(llId, milliseconds(event), "unknown", "", "");
            begin(llId, milliseconds(event), cast);
            break;
        case PCCAST_EVENT_PREEMPTED:
        case PCCAST_EVENT_ENDED:
            setTraffic(llId, milliseconds(event), isRelay(cast), event.traffic);
            endEntry(llId, event);
            setOnAir(llId, event.uiReason == PCCAST_REASON_CLOSING);
            // A file that a relay has taken off the air does not return.
            if (event.uiKind == PCCAST_EVENT_PREEMPTED ? !isRelay(cast) && bByRelay
                                                       : event.uiReason != PCCAST_REASON_CLOSING) {
                remove(llId);
            }
            break;
        case PCCAST_EVENT_FAILED:
            if (isOpen(llId)) {
                setTraffic(llId, milliseconds(event), isRelay(cast), event.traffic);
            }
            missed(llId, event, cast);
            remove(llId);
            break;
        default:
            break;
        }
    }

    void apply(const PCCASTEvent &event, const MSGInfo &message, long long llId) {
        switch (event.uiKind) {
        case PCCAST_EVENT_CURRENT:
        case PCCAST_EVENT_REPLACED:
            setOnAir(llId, event.uiKind == PCCAST_EVENT_CURRENT);
            break;
        case PCCAST_EVENT_SENT:
            if (!isOpen(llId)) {
                begin(llId, milliseconds(event), message);
            }
            Statement(pHandle, "UPDATE request SET repeats_left = ? WHERE id = ?")
                .run(event.ulRepeatsLeft, llId);
            Statement(pHandle,
                      "UPDATE history SET noted = ?, broadcasts = broadcasts + ?, failed = failed + ? "
                      "WHERE request = ? AND ended IS NULL")
                .run(milliseconds(event), event.uiReason != PCCAST_REASON_SEND,
                     event.uiReason == PCCAST_REASON_SEND, llId);
            break;
        case PCCAST_EVENT_FINISHED:
            missed(llId, event, message);
            remove(llId);
            break;
        default:
            break;
        }
    }

    void apply(const PCCASTEvent &event, unsigned long *pulRestored) {
        if (event.uiKind == PCCAST_EVENT_REFUSED) {
            remove(find(event.ulRequest));
            return;
        }
        const bool bBegins = event.uiKind == PCCAST_EVENT_FILED || event.uiKind == PCCAST_EVENT_STARTED ||
                             event.uiKind == PCCAST_EVENT_RETURNED;
        // A file that has been played may start anew, after a newer one; its row has gone.
        const long long llId =
            bBegins ? file(event.ulRequest, event.pCast, event.pMessage, event.ulRepeatsLeft, pulRestored)
                    : find(event.ulRequest);
        if (llId == 0) {
            return;
        }
        switch (event.uiKind) {
        case PCCAST_EVENT_CANCELLED:
            endEntry(llId, event); // a message may have been broadcast
            remove(llId);
            break;
        case PCCAST_EVENT_EXPIRED:
        case PCCAST_EVENT_DROPPED:
            event.pCast != nullptr ? missed(llId, event, *event.pCast) : missed(llId, event, *event.pMessage);
            remove(llId);
            break;
        case PCCAST_EVENT_DONE:
            remove(llId);
            break;
        default:
            event.pCast != nullptr ? apply(event, *event.pCast, llId) : apply(event, *event.pMessage, llId);
        }
    }

    // ---- the start

    bool load(long long llId, KeptRequest *pRequest) const {
        Statement statement(pHandle,
                            std::string("SELECT is_cast, number, ") + kCastColumns +
                                ", priority, repeats_left, attribute1, attribute3, text FROM request "
                                "WHERE id = ?");
        if (!statement.bind(llId).step()) {
            return false;
        }
        KeptRequest &request = *pRequest;
        request.llId = llId;
        request.bCast = statement.number(0) != 0;
        request.bRestored = !statement.isNull(1);
        CASTInfo &cast = request.cast;
        MSGInfo &message = request.message;
        cast = CASTInfo{};
        message = MSGInfo{};
        message.ulCMD = cast.ulCMD = statement.number(2);
        message.uliEPGID = cast.uliEPGID = statement.number(3);
        message.ulCT = cast.ulCT = statement.number(4);
        message.ulST = cast.ulST = statement.number(5);
        message.ulET = cast.ulET = statement.number(6);
        cast.ulCASTType = statement.number(7);
        cast.ulSTREAMFormat = statement.number(8);
        cast.pSRCIP = loadText(statement, 9, &request.sSource);
        cast.usSRCPort = static_cast<unsigned short>(statement.number(10));
        cast.pDSTIP = loadText(statement, 11, &request.sDestination);
        cast.usDSTPort = static_cast<unsigned short>(statement.number(12));
        cast.pCASTFile = loadText(statement, 13, &request.sFile);
        cast.ulMSID = statement.number(14);
        cast.iEncryptionType = static_cast<int>(statement.number(15));
        cast.pEncryptionKey = reinterpret_cast<unsigned char *>(loadText(statement, 16, &request.sKey));
        cast.iEncryptionKeyLen = static_cast<int>(request.sKey.size());
        cast.iASFSplit = static_cast<int>(statement.number(17));
        message.ulPriority = statement.number(18);
        message.ulRepeat = statement.number(19);
        message.ulAttr1 = statement.number(20);
        message.ulAttr3 = statement.number(21);
        message.pMSGSTR = loadText(statement, 22, &request.sText);
        return true;
    }

    // What an event of this kind would say about the request.
    static std::string say(const KeptRequest &request, unsigned int uiKind, const char *pszMore) {
        PCCASTEvent event{};
        event.uiKind = uiKind;
        event.pCast = request.bCast ? &request.cast : nullptr;
        event.pMessage = request.bCast ? nullptr : &request.message;
        EventMemory memory;
        return eventText(eventJSON(event), &memory) + pszMore;
    }

    std::vector<long long> select(const std::string &sCondition, unsigned long ulNow) const {
        Statement statement(pHandle, "SELECT id FROM request WHERE " + sCondition);
        for (int i = 0; i < statement.arguments(); ++i) {
            statement.bind(ulNow);
        }
        std::vector<long long> ids;
        while (statement.step()) {
            ids.push_back(statement.id());
        }
        return ids;
    }

    // The request that a stop or cancel request was to take back, as the service would find it; 0: none.
    long long targetOf(const KeptRequest &request, unsigned long ulNow) const {
        const CASTInfo &cast = request.cast;
        const MSGInfo &message = request.message;
        if (!request.bCast) {
            Statement equal(pHandle,
                            "SELECT id FROM request WHERE id < ? AND is_cast = 0 AND command = ? AND epg = ? "
                            "AND created = ? AND start = ? AND end = ? AND (priority = 1) = ? "
                            "ORDER BY on_air, id LIMIT 1");
            equal.run(request.llId, PCMBC_CMD_MSG, message.uliEPGID, message.ulCT, message.ulST, message.ulET,
                      message.ulPriority == 1);
            return equal.id();
        }
        Statement equal(
            pHandle, "SELECT id FROM request WHERE id < ? AND is_cast = 1 AND command <> ? AND epg = ? AND "
                     "type = ? AND start = ? AND end = ? AND destination_port = ? "
                     "ORDER BY on_air, created DESC, id LIMIT 1");
        equal.run(request.llId, CAST_CMD_STOP, cast.uliEPGID, cast.ulCASTType, cast.ulST, cast.ulET,
                  cast.usDSTPort);
        if (equal.id() != 0 || cast.ulST > ulNow) {
            return equal.id();
        }
        Statement onAir(pHandle, "SELECT id FROM request WHERE id < ? AND is_cast = 1 AND on_air = 1 AND "
                                 "(type = 1) = ? AND created <= ? LIMIT 1");
        onAir.run(request.llId, cast.ulCASTType == CAST_TYPE_FILE, cast.ulCT);
        return onAir.id();
    }

    // The service may have gone between the arrival of a stop and what it does. What was to be stopped must
    // not go on air again, not even until its stop is filed.
    void revoke(unsigned long ulNow, std::vector<std::string> *pNotes) const {
        const std::string sRevocations = "is_cast = 1 AND command = " + std::to_string(CAST_CMD_STOP) +
                                         " OR is_cast = 0 AND command = " + std::to_string(PCMBC_CMD_CANCEL) +
                                         " ORDER BY id";
        for (const long long llId : select(sRevocations, ulNow)) {
            KeptRequest request;
            load(llId, &request);
            const long long llTarget = targetOf(request, ulNow);
            KeptRequest target;
            if (llTarget != 0 && load(llTarget, &target)) {
                pNotes->push_back(say(target, PCCAST_EVENT_CANCELLED,
                                      ", because its stop or cancel had come before the service went down"));
                end(llTarget, static_cast<long long>(ulNow) * 1000, eventName(PCCAST_EVENT_CANCELLED), "stop",
                    "");
                remove(llTarget);
            }
            const unsigned long ulST = request.bCast ? request.cast.ulST : request.message.ulST;
            if (llTarget != 0 || ulST <= ulNow) {
                remove(llId);
            }
        }
    }

    void expire(unsigned long ulNow, std::vector<std::string> *pNotes) const {
        for (const long long llId : select("end <= ? ORDER BY end, id", ulNow)) {
            KeptRequest request;
            load(llId, &request);
            PCCASTEvent event{};
            event.uiKind = PCCAST_EVENT_EXPIRED;
            event.uiReason = PCCAST_REASON_END_TIME;
            event.ulTime = request.bCast ? request.cast.ulET : request.message.ulET;
            request.bCast ? missed(llId, event, request.cast) : missed(llId, event, request.message);
            pNotes->push_back(say(request, PCCAST_EVENT_EXPIRED, ", while the service was down"));
            remove(llId);
        }
    }
};

Store::Store(const std::string &sPath, Access eAccess)
    : pWork(std::make_unique<Work>(openState(sPath, eAccess))) {}

Store::~Store() = default;

StateLeft Store::begin(unsigned long ulNow) {
    Work &work = *pWork;
    StateLeft left;
    Transaction transaction(work.pHandle);
    Statement(work.pHandle, "UPDATE request SET number = NULL").run();
    Statement(work.pHandle,
              "UPDATE history SET ended = max(ifnull(noted, started), started), event = 'interrupted' "
              "WHERE ended IS NULL AND kind <> 'message'")
        .run();
    // The last broadcast had been made.
    Statement(work.pHandle,
              "UPDATE history SET ended = noted, event = ?, reason = ? WHERE ended IS NULL AND request IN "
              "(SELECT id FROM request WHERE is_cast = 0 AND repeats <> 0 AND repeats_left = 0)")
        .run(eventName(PCCAST_EVENT_FINISHED), reasonName(PCCAST_REASON_REPEATS));
    Statement(work.pHandle, "DELETE FROM request WHERE is_cast = 0 AND repeats <> 0 AND repeats_left = 0")
        .run();
    work.revoke(ulNow, &left.notes);
    work.expire(ulNow, &left.notes);
    left.casts =
        work.select("is_cast = 1 ORDER BY start > ?, CASE WHEN start <= ? THEN type = 1 END, "
                    "CASE WHEN start <= ? THEN -created END, CASE WHEN start <= ? THEN -on_air END, id",
                    ulNow);
    left.messages =
        work.select("is_cast = 0 ORDER BY start > ?, CASE WHEN start <= ? THEN priority <> 1 END, "
                    "CASE WHEN start <= ? THEN -created END, CASE WHEN start <= ? THEN -on_air END, id",
                    ulNow);
    transaction.commit();
    return left;
}

void Store::apply(const std::vector<PCCASTEvent> &events, unsigned long *pulRestored) {
    unsigned long ulRestored = 0;
    Transaction transaction(pWork->pHandle);
    for (const PCCASTEvent &event : events) {
        pWork->apply(event, &ulRestored);
    }
    transaction.commit();
    *pulRestored += ulRestored;
}

void Store::reconcile(const PCCASTView &view, unsigned long *pulRestored) {
    Work &work = *pWork;
    unsigned long ulRestored = 0;
    const auto llNow = static_cast<long long>(view.ulTime) * 1000;
    Transaction transaction(work.pHandle);
    Statement(work.pHandle, "CREATE TEMP TABLE IF NOT EXISTS living(id INTEGER PRIMARY KEY)").run();
    Statement(work.pHandle, "DELETE FROM living").run();
    for (int i = 0; i < view.iRequests; ++i) {
        const PCCASTViewRequest &request = view.pRequests[i];
        if (request.uiPlace == PCCAST_PLACE_OVER) {
            continue;
        }
        const bool bOnAir = request.uiPlace == PCCAST_PLACE_ON_AIR;
        const long long llId =
            work.file(request.ulRequest, request.pCast, request.pMessage, request.ulRepeatsLeft, &ulRestored);
        work.setOnAir(llId, bOnAir);
        const auto llStarted = static_cast<long long>(request.ulStarted) * 1000;
        if (request.pCast != nullptr && bOnAir && !work.isOpen(llId)) {
            work.begin(llId, llStarted, *request.pCast);
        } else if (request.pCast != nullptr && !bOnAir) {
            work.end(llId, llNow, "unknown", "", "");
        } else if (request.pMessage != nullptr) {
            Statement(work.pHandle, "UPDATE request SET repeats_left = ? WHERE id = ?")
                .run(request.ulRepeatsLeft, llId);
        }
        Statement(work.pHandle, "INSERT INTO living VALUES(?)").run(llId);
    }
    Statement(work.pHandle,
              "UPDATE history SET ended = max(?, ifnull(started, 0)), event = 'unknown' "
              "WHERE ended IS NULL AND request NOT IN (SELECT id FROM living) AND request NOT IN "
              "(SELECT id FROM request WHERE number IS NULL)")
        .run(llNow);
    Statement(work.pHandle,
              "DELETE FROM request WHERE number IS NOT NULL AND id NOT IN (SELECT id FROM living)")
        .run();
    transaction.commit();
    *pulRestored += ulRestored;
}

bool Store::note(const PCCASTView &view) {
    if (view.ulRelay == 0 && view.ulPlayout == 0) {
        return false;
    }
    Transaction transaction(pWork->pHandle);
    const auto llNow = static_cast<long long>(view.ulTime) * 1000;
    pWork->setTraffic(pWork->find(view.ulRelay), llNow, true, view.relay);
    pWork->setTraffic(pWork->find(view.ulPlayout), llNow, false, view.playout);
    transaction.commit();
    return true;
}

void Store::probe() {
    Transaction transaction(pWork->pHandle);
    Statement(pWork->pHandle, "PRAGMA user_version = " + std::to_string(kStateVersion)).run();
    transaction.commit();
}

void Store::prune(unsigned long ulBefore) {
    do {
        Transaction transaction(pWork->pHandle);
        Statement(pWork->pHandle,
                  "DELETE FROM history WHERE id IN (SELECT id FROM history WHERE ended < ? LIMIT ?)")
            .run(static_cast<long long>(ulBefore) * 1000, kPruned);
        transaction.commit();
    } while (sqlite3_changes(pWork->pHandle) == kPruned);
}

bool Store::load(long long llId, KeptRequest *pRequest) {
    return pWork->load(llId, pRequest);
}

unsigned long Store::countRequests() {
    Statement statement(pWork->pHandle, "SELECT count(*) FROM request");
    return static_cast<unsigned long>(statement.run().id());
}

Json Store::history(const HistoryQuery &query) {
    // In the order of the entries' keys. A key is left out where its column is NULL.
    constexpr std::array<const char *, 22> kKeys{
        "id",      "kind",    "epg",    "identity",    "from",       "until",     "duration_ms", "event",
        "reason",  "other",   "source", "destination", "file",       "datagrams", "bytes",       "failed",
        "dropped", "silence", "late",   "text",        "broadcasts", nullptr};
    Statement statement(
        pWork->pHandle,
        "SELECT id, kind, epg, identity, started / 1000, ended / 1000, ended - started, event, "
        "nullif(reason, ''), other, nullif(source, ''), nullif(destination, ''), file, datagrams, "
        "bytes, CASE WHEN started IS NOT NULL THEN failed END, dropped, silence, late, text, "
        "broadcasts FROM history WHERE id > ? AND (? = 0 OR epg = ?) AND "
        "(ended IS NULL OR ended >= ?) ORDER BY id LIMIT ?");
    statement.bind(query.ulAfter).bind(query.bEPG).bind(query.ulEPGID);
    statement.bind(query.ulSince * 1000).bind(kPage);
    Json answer{{"last", query.ulAfter}, {"entries", Json::array()}};
    while (statement.step()) {
        Json entry = Json::object();
        for (int i = 0; kKeys[static_cast<size_t>(i)] != nullptr; ++i) {
            const char *const pszKey = kKeys[static_cast<size_t>(i)];
            if (statement.isNumber(i)) {
                entry[pszKey] = statement.number(i);
            } else if (!statement.isNull(i)) {
                entry[pszKey] = statement.text(i);
            }
        }
        answer["last"] = entry["id"];
        answer["entries"].push_back(std::move(entry));
    }
    return answer;
}

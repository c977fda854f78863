#include "statekeeper.h"

#include "audit.h"
#include "clitext.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <mutex>
#include <optional>
#include <thread>

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr auto kLook = 10ms; // between two looks for new events
constexpr auto kHurriedLook = 1ms;
constexpr auto kHurriedWrite = 200ms; // the service closes: what has been read is written so often
constexpr int kBatch = 256;           // events in one transaction
constexpr auto kRetry = 2s;           // between two tries with a file that fails
constexpr auto kNote = 2s;            // between two notes of the traffic on air
constexpr auto kPrune = 24h;
constexpr auto kProgress = 10s;    // between two lines about what has been restored
constexpr auto kSendPause = 20ms;  // before a request is sent again that was not taken
constexpr int kSendTries = 500;    // 10 s
constexpr auto kStall = 5s;        // after the last request is sent, for the last event to come
constexpr int kRounds = 3;         // a request may be refused for a lock that is not to be had
constexpr size_t kNotesMost = 100; // lines about what has expired

unsigned long now() {
    return static_cast<unsigned long>(std::time(nullptr));
}

// Events that the plug-in has handed over. They are given back at the end.
class Batch {
public:
    explicit Batch(const Plugin &loaded) : plugin(loaded) {}
    ~Batch() { clear(); }
    Batch(const Batch &) = delete;
    Batch &operator=(const Batch &) = delete;

    // Adds the events behind ulAfter that there are. Returns how many.
    int read(unsigned long ulAfter) {
        std::array<PCCASTEvent, kBatch> aEvents;
        const int iCount = plugin.pReadEvents(ulAfter, aEvents.data(), kBatch);
        if (iCount > 0 && events.empty()) {
            since = Clock::now();
        }
        events.insert(events.end(), aEvents.begin(), aEvents.begin() + iCount);
        return iCount;
    }
    void clear() {
        plugin.pEliminateEvents(events.data(), static_cast<int>(events.size()));
        events.clear();
    }

    std::vector<PCCASTEvent> events;
    Clock::time_point since; // of the first one

private:
    const Plugin &plugin;
};

} // namespace

struct StateKeeper::Work {
    Plugin plugin;
    std::string sFolder;
    std::string sPath;
    unsigned long ulKeep;
    std::thread thread;
    std::thread restorer;
    std::atomic<bool> bHurry{false};
    std::atomic<bool> bStop{false};
    std::atomic<bool> bRestored{false};
    std::atomic<unsigned long> ulTold{ULONG_MAX};
    std::atomic<unsigned long> ulKept{0}; // number of the last event in the file
    std::atomic<unsigned long> ulRestored{0};
    std::atomic<unsigned long> ulToRestore{0};
    mutable std::mutex lock; // guards sError
    std::string sError;      // empty: the file is sound

    // ---- the thread's own, and open's
    std::optional<Store> store;
    int iFolder = -1; // locked against another service
    bool bNewer = false;
    bool bMissed = false; // events have been missed: take a snapshot
    StateLeft left;
    Clock::time_point again;
    Clock::time_point noteAgain;
    Clock::time_point pruneAgain;

    Work(const Plugin &loaded, const std::string &sGiven, unsigned long ulSeconds)
        : plugin(loaded), sFolder(sGiven), sPath(sGiven + "/" + kStateFile), ulKeep(ulSeconds) {}
    ~Work() {
        if (iFolder >= 0) {
            close(iFolder);
        }
    }

    // ---- faults

    std::string error() const {
        const std::lock_guard<std::mutex> hold(lock);
        return sError;
    }

    // The file fails. Says so when it has not been said yet.
    void fail(const std::string &sWhat) {
        again = Clock::now() + kRetry;
        ulTold = ULONG_MAX;
        const bool bFirst = error().empty();
        {
            const std::lock_guard<std::mutex> hold(lock);
            sError = sWhat;
        }
        if (bFirst) {
            writeAudit(AUDIT_ERROR, "NOTHING IS KEPT: " + sPath + ": " + sWhat +
                                        "; the service runs on, and a restart forgets what comes now" +
                                        (bNewer ? "" : ", until this is mended"));
        }
    }

    void mend() {
        const bool bFailed = !error().empty();
        {
            const std::lock_guard<std::mutex> hold(lock);
            sError.clear();
        }
        if (bFailed) {
            writeAudit(AUDIT_WARNING, "the state is kept again in " + sPath);
        }
    }

    // A damaged file, with what belongs to it, gets another name, so that somebody can look at it.
    void moveAside(const std::string &sWhat) {
        store.reset();
        std::array<char, 32> aTime{};
        const std::time_t lNow = std::time(nullptr);
        struct tm utc {};
        std::strftime(aTime.data(), aTime.size(), "%Y%m%dT%H%M%SZ", gmtime_r(&lNow, &utc));
        const std::string sFirst = sPath + ".corrupt-" + aTime.data();
        constexpr std::array<const char *, 3> kParts{"", "-wal", "-shm"};
        const auto isTaken = [&](const std::string &sName) {
            return std::any_of(kParts.begin(), kParts.end(), [&](const char *pszPart) {
                return access((sName + pszPart).c_str(), F_OK) == 0;
            });
        };
        // Two in one second: the first is not overwritten.
        std::string sAside = sFirst;
        for (int i = 2; isTaken(sAside); ++i) {
            sAside = sFirst + "-" + std::to_string(i);
        }
        for (const char *pszPart : kParts) {
            if (rename((sPath + pszPart).c_str(), (sAside + pszPart).c_str()) != 0 && *pszPart == 0) {
                throw StoreError(0, "it is damaged (" + sWhat +
                                        "), and cannot be moved aside: " + std::strerror(errno));
            }
        }
        writeAudit(AUDIT_ERROR, sPath + " is damaged (" + sWhat + "): moved to " + sAside +
                                    ", and a new one begun; the history before is there, and requests that "
                                    "were to be restored are lost");
    }

    // ---- opening

    void lockFolder() {
        if (iFolder >= 0) {
            return;
        }
        const int iOpened = ::open(sFolder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        if (iOpened < 0 || flock(iOpened, LOCK_EX | LOCK_NB) != 0) {
            const int iError = errno;
            if (iOpened >= 0) {
                close(iOpened);
            }
            throw StoreError(0, iError == EWOULDBLOCK ? "another service keeps its state there"
                                                      : std::strerror(iError));
        }
        iFolder = iOpened;
    }

    void openStore() {
        lockFolder();
        for (bool bAgain = false;; bAgain = true) {
            try {
                store.emplace(sPath, Store::WRITE);
                left = store->begin(now());
                return;
            } catch (const StoreError &failure) {
                if (!failure.isCorrupt() || bAgain) {
                    throw;
                }
                moveAside(failure.what());
            }
        }
    }

    void tryOpen() {
        try {
            openStore();
        } catch (const NewerStore &failure) {
            bNewer = true; // left alone
            fail(failure.what());
        } catch (const StoreError &failure) {
            fail(failure.what());
        }
        if (!error().empty()) {
            store.reset();
            return;
        }
        ulTold = 0;
        sayLeft();
    }

    void sayLeft() {
        for (size_t u = 0; u < std::min(left.notes.size(), kNotesMost); ++u) {
            writeAudit(AUDIT_WARNING, left.notes[u]);
        }
        if (left.notes.size() > kNotesMost) {
            writeAudit(AUDIT_WARNING,
                       std::to_string(left.notes.size() - kNotesMost) +
                           " more have expired, or were stopped, before the service came back");
        }
        left.notes.clear();
        ulToRestore = left.casts.size() + left.messages.size();
    }

    // ---- keeping

    // Returns false when the plug-in is closed.
    bool takeSnapshot() {
        PCCASTView *pView = nullptr;
        if (plugin.pMakeView(&pView) != 1) {
            return false;
        }
        const auto release = [this](PCCASTView *pMade) { plugin.pEliminateView(&pMade); };
        const std::unique_ptr<PCCASTView, decltype(release)> guard(pView, release);
        unsigned long ulMore = 0;
        store->reconcile(*pView, &ulMore);
        ulRestored += ulMore;
        ulKept = pView->ulEvents;
        bMissed = false;
        return true;
    }

    // Reads what there is. Returns whether it was something.
    bool read(Batch *pBatch) const {
        const unsigned long ulLast = pBatch->events.empty() ? ulKept.load() : pBatch->events.back().ulNumber;
        return pBatch->read(ulLast) > 0;
    }

    void write(Batch *pBatch) {
        const std::vector<PCCASTEvent> &events = pBatch->events;
        if (!bMissed && !events.empty()) {
            bMissed = events.back().ulNumber - ulKept != events.size();
        }
        if (bMissed && takeSnapshot()) {
            // It holds what the events tell.
        } else if (!events.empty()) {
            unsigned long ulMore = 0;
            store->apply(events, &ulMore);
            ulRestored += ulMore;
            ulKept = events.back().ulNumber;
        }
        pBatch->clear();
        ulTold = ulKept.load();
    }

    // What is due now and then.
    void keepUp() {
        const auto time = Clock::now();
        if (time >= noteAgain && !bHurry) {
            noteAgain = time + kNote;
            PCCASTView *pView = nullptr;
            if (plugin.pMakeView(&pView) == 1) {
                const auto release = [this](PCCASTView *pMade) { plugin.pEliminateView(&pMade); };
                const std::unique_ptr<PCCASTView, decltype(release)> guard(pView, release);
                store->note(*pView);
            }
        }
        if (time >= pruneAgain && !bHurry) {
            pruneAgain = time + kPrune;
            store->prune(now() - std::min(now(), ulKeep));
        }
    }

    // One look. Returns whether there was something.
    bool turn(Batch *pBatch, bool bLast) {
        if (bNewer || (!error().empty() && Clock::now() < again && !bLast)) {
            return false;
        }
        try {
            if (!store) {
                openStore();
                sayLeft();
                bMissed = true;
            }
            const bool bRead = !bMissed && read(pBatch);
            const bool bWait = bHurry && !bLast && Clock::now() - pBatch->since < kHurriedWrite;
            if (!bWait) {
                if (!error().empty()) {
                    store->probe();
                }
                write(pBatch);
                keepUp();
                mend();
                startRestoring();
            }
            return bRead;
        } catch (const StoreError &failure) {
            pBatch->clear();
            if (failure.isCorrupt()) {
                replace(failure.what());
            } else {
                fail(failure.what());
            }
        }
        return false;
    }

    // The file has been found damaged while the service runs.
    void replace(const std::string &sWhat) {
        bMissed = true;
        try {
            moveAside(sWhat);
            openStore();
        } catch (const NewerStore &failure) {
            bNewer = true;
            fail(failure.what());
        } catch (const StoreError &failure) {
            store.reset();
            fail(failure.what());
        }
    }

    void run() {
        Batch batch(plugin);
        for (;;) {
            const bool bLast = bStop;
            const bool bRead = turn(&batch, bLast);
            if (bLast) {
                return;
            }
            if (!bRead) {
                std::this_thread::sleep_for(bHurry ? kHurriedLook : kLook);
            }
        }
    }

    // ---- restoring

    // Files the request again. Returns false when the service does not take it, or is about to close.
    bool submit(const KeptRequest &request) const {
        for (int i = 0; i < kSendTries && !bHurry; ++i) {
            const int iResult = request.bCast
                                    ? plugin.pSubmitCast(request.cast.ulCMD, &request.cast)
                                    : plugin.pSubmitMessage(request.message.ulCMD, &request.message);
            if (iResult > 0) {
                return true;
            }
            std::this_thread::sleep_for(kSendPause);
        }
        return false;
    }

    // Files again what has not been yet. Returns whether the service has taken all of it.
    bool restore(const std::vector<long long> &ids) const {
        try {
            Store reader(sPath, Store::READ);
            KeptRequest request;
            return std::all_of(ids.begin(), ids.end(), [&](long long llId) {
                return !reader.load(llId, &request) || request.bRestored || submit(request);
            });
        } catch (const StoreError &failure) {
            writeAudit(AUDIT_ERROR, std::string("the state cannot be read: ") + failure.what());
            return false;
        }
    }

    bool isBehind() const { return Batch(plugin).read(ulKept) > 0; }

    // Waits until the last event of a restored request has come, or comes no more. What a slow disk has not
    // taken yet may be just that, and must not be filed twice.
    void awaitRestored() const {
        unsigned long ulBefore = ulRestored;
        auto stalled = Clock::now() + kStall;
        while (ulRestored < ulToRestore && Clock::now() < stalled && !bHurry) {
            if (ulRestored != ulBefore || isBehind()) {
                ulBefore = ulRestored;
                stalled = Clock::now() + kStall;
            }
            std::this_thread::sleep_for(kLook);
        }
    }

    void restoreAll(const StateLeft &all) {
        const auto begin = Clock::now();
        std::atomic<bool> bSent{false};
        std::thread progress([&] {
            for (auto next = begin + kProgress; !bSent; std::this_thread::sleep_for(kLook)) {
                if (Clock::now() >= next) {
                    next += kProgress;
                    writeAudit(AUDIT_NOTE, "restored " + std::to_string(ulRestored) + " of " +
                                               std::to_string(ulToRestore) + " requests so far");
                }
            }
        });
        bool bTaken = true;
        for (int i = 0; i < kRounds && bTaken && ulRestored < ulToRestore && error().empty() && !bHurry;
             ++i) {
            bool bMessages = true;
            std::thread messages([&] { bMessages = restore(all.messages); });
            bTaken = restore(all.casts);
            messages.join();
            bTaken = bTaken && bMessages;
            awaitRestored();
        }
        bSent = true;
        progress.join();
        const auto milliseconds =
            std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - begin).count();
        std::array<char, 128> aText{};
        std::snprintf(aText.data(), aText.size(), "restored %lu of %lu requests in %ld.%03ld s",
                      ulRestored.load(), ulToRestore.load(), static_cast<long>(milliseconds / 1000),
                      static_cast<long>(milliseconds % 1000));
        const bool bAll = ulRestored >= ulToRestore;
        writeAudit(bAll ? AUDIT_NOTE : AUDIT_ERROR,
                   std::string(aText.data()) +
                       (bAll ? "" : "; the others stay in " + sPath + " for the next start"));
        bRestored = true;
    }

    void startRestoring() {
        if (bRestored || restorer.joinable()) {
            return;
        }
        if (ulToRestore == 0) {
            bRestored = true;
            return;
        }
        restorer = std::thread([this, all = std::move(left)] { restoreAll(all); });
        left = StateLeft{};
    }
};

StateKeeper::StateKeeper(const Plugin &plugin, const std::string &sFolder, unsigned long ulKeep)
    : pWork(std::make_unique<Work>(plugin, sFolder, ulKeep)) {}

StateKeeper::~StateKeeper() {
    stop();
}

void StateKeeper::open() {
    pWork->tryOpen();
}

void StateKeeper::start() {
    pWork->thread = std::thread([pWorking = pWork.get()] { pWorking->run(); });
}

bool StateKeeper::isRestored() const {
    return pWork->bRestored || !pWork->error().empty();
}

void StateKeeper::hurry() {
    pWork->bHurry = true;
}

void StateKeeper::stop() {
    pWork->bHurry = true;
    pWork->bStop = true;
    for (std::thread *pThread : {&pWork->thread, &pWork->restorer}) {
        if (pThread->joinable()) {
            pThread->join();
        }
    }
}

unsigned long StateKeeper::lastTold() const {
    return pWork->ulTold;
}

Json StateKeeper::status(unsigned long ulEvents) const {
    const std::string sError = pWork->error();
    Json state{{"path", pWork->sPath}, {"ok", sError.empty()}};
    if (!sError.empty()) {
        state["error"] = sError;
    }
    const unsigned long ulKept = pWork->ulKept;
    state["behind"] = ulEvents - std::min(ulEvents, ulKept);
    state["restored"] = pWork->ulRestored.load();
    if (!pWork->bRestored) {
        state["restoring"] = pWork->ulToRestore.load();
    }
    return state;
}

Json StateKeeper::history(const HistoryQuery &query) const {
    return Store(pWork->sPath, Store::READ).history(query);
}

// What serve runs beside the plug-in: audit, keeper of the state, view, announcements, notices to the service
// manager. The test stands in for the plug-in, and the clock stands still until the test moves it.
#include "audit.h"
#include "localsocket.h"
#include "sap.h"
#include "servicemanager.h"
#include "statekeeper.h"
#include "viewserver.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <net/if.h>
#include <sqlite3.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <climits>
#include <filesystem>
#include <functional>
#include <list>
#include <mutex>
#include <regex>

namespace {

std::atomic<long> gClock{0}; // seconds; 0: the system's clock
char gGroup[] = "239.1.2.3";

// The plug-in that the test stands in for.
struct Service {
    std::mutex lock;
    std::vector<PCCASTEvent> events;
    std::vector<PCCASTViewRequest> requests;
    PCCASTView view{};
    std::atomic<unsigned long> ulPace{1}; // passes of the supervisor from one look to the next
    std::atomic<int> iSubmitted{0};
    std::atomic<int> iHeld{0}; // what has been handed out and not been given back
};
Service *gService = nullptr;

int makeView(PCCASTView **ppView) {
    const std::lock_guard<std::mutex> hold(gService->lock);
    gService->view.ulPasses += gService->ulPace;
    *ppView = new PCCASTView(gService->view);
    (*ppView)->pRequests = gService->requests.data();
    (*ppView)->iRequests = static_cast<int>(gService->requests.size());
    ++gService->iHeld;
    return 1;
}

int eliminateView(PCCASTView **ppView) {
    delete *ppView;
    return --gService->iHeld;
}

int readEvents(unsigned long ulAfter, PCCASTEvent *pEvents, int iMost) {
    const std::lock_guard<std::mutex> hold(gService->lock);
    int iRead = 0;
    for (const PCCASTEvent &event : gService->events) {
        if (event.ulNumber > ulAfter && iRead < iMost) {
            pEvents[iRead++] = event;
        }
    }
    gService->iHeld += iRead;
    return iRead;
}

void eliminateEvents(PCCASTEvent * /*pEvents*/, int iCount) {
    gService->iHeld -= iCount;
}

// The first two are not taken.
int submitCast(unsigned long /*ulCMD*/, const CASTInfo * /*pCast*/) {
    return ++gService->iSubmitted > 2 ? 1 : 0;
}

CASTInfo relay(unsigned long ulEPG, unsigned long ulET = 4'000'000'000) {
    CASTInfo cast{};
    cast.ulCMD = CAST_CMD_START;
    cast.uliEPGID = ulEPG;
    cast.ulCASTType = CAST_TYPE_STREAM;
    cast.ulSTREAMFormat = CAST_FORMAT_TS;
    cast.ulET = ulET;
    cast.pDSTIP = gGroup;
    cast.usDSTPort = 5000;
    return cast;
}

class HostTest : public testing::Test {
protected:
    HostTest() {
        gClock = std::chrono::steady_clock::now().time_since_epoch() / std::chrono::seconds(1) + 1;
        gService = &service;
        service.requests.reserve(16);
        char szFolder[] = "/tmp/host.XXXXXX";
        sFolder = mkdtemp(szFolder);
        plugin.pMakeView = makeView;
        plugin.pEliminateView = eliminateView;
        plugin.pReadEvents = readEvents;
        plugin.pEliminateEvents = eliminateEvents;
        plugin.pSubmitCast = submitCast;
        testing::internal::CaptureStdout();
    }
    ~HostTest() override {
        EXPECT_EQ(service.iHeld, 0);
        std::fputs(HasFailure() ? output().c_str() : "", stderr);
        testing::internal::GetCapturedStdout();
        std::filesystem::remove_all(sFolder);
        gClock = 0;
    }
    void happens(unsigned int uiKind, const CASTInfo &cast, unsigned int uiReason = 0) {
        const std::lock_guard<std::mutex> hold(service.lock);
        PCCASTEvent event{};
        event.ulNumber = service.view.ulEvents = ++ulNumber;
        event.ulTime = 1000;
        event.uiKind = uiKind;
        event.uiReason = uiReason;
        event.ulRequest = cast.uliEPGID;
        event.pCast = &casts.emplace_back(cast);
        service.events.push_back(event);
    }
    // Another service comes, with the file in which all this has been kept.
    void restart() {
        unsigned long ulRestored = 0;
        Store(sFolder + "/" + kStateFile, Store::WRITE).apply(service.events, &ulRestored);
        service.events.clear();
        ulNumber = service.view.ulEvents = 0;
    }
    // It is in the snapshot, and no event tells of it.
    void lives(const CASTInfo &cast, unsigned int uiPlace = PCCAST_PLACE_ON_AIR) {
        const std::lock_guard<std::mutex> hold(service.lock);
        service.requests.push_back(
            {cast.uliEPGID, uiPlace, &casts.emplace_back(cast), nullptr, 1, 900, 0, 0});
    }
    void carries(unsigned long ulDatagrams) {
        const std::lock_guard<std::mutex> hold(service.lock);
        service.view.ulRelay = 1;
        service.view.relay.ulDatagrams = ulDatagrams;
    }
    static bool within(const std::function<bool()> &condition) {
        for (int i = 0; i < 500; ++i, usleep(10'000)) {
            if (condition()) {
                return true;
            }
        }
        return false;
    }
    // Moves the clock, and lets every thread look at it.
    static void pass(long lSeconds) {
        usleep(100'000);
        gClock += lSeconds;
        usleep(100'000);
    }
    static std::string output() {
        std::fflush(stdout);
        std::string sAll(100'000, '\0');
        sAll.resize(static_cast<size_t>(pread(STDOUT_FILENO, sAll.data(), sAll.size(), 0)));
        return sAll;
    }
    // How often it has been printed.
    static long said(const std::string &sPattern) {
        const std::string sAll = output();
        const std::regex pattern(sPattern);
        return std::distance(std::sregex_iterator(sAll.begin(), sAll.end(), pattern), {});
    }
    // Somebody else's connection to a file of the state.
    static auto stranger(const std::string &sIn, const char *pszSQL) {
        sqlite3 *pHandle = nullptr;
        sqlite3_open((sIn + "/" + kStateFile).c_str(), &pHandle);
        EXPECT_EQ(sqlite3_exec(pHandle, pszSQL, nullptr, nullptr, nullptr), SQLITE_OK) << pszSQL;
        return std::unique_ptr<sqlite3, int (*)(sqlite3 *)>(pHandle, sqlite3_close);
    }

    Service service;
    Plugin plugin{};
    std::string sFolder;
    std::list<CASTInfo> casts;
    unsigned long ulNumber = 0;
};

TEST_F(HostTest, AuditGivesEachEventItsPriority) {
    struct stat status {};
    fstat(STDOUT_FILENO, &status);
    setenv("JOURNAL_STREAM", (std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino)).c_str(),
           1);
    noteJournal();
    ulNumber = 2;
    for (unsigned int uiKind = PCCAST_EVENT_FILED; uiKind <= PCCAST_EVENT_DONE; ++uiKind) {
        happens(uiKind, relay(1));
    }
    for (const int iReason : {PCCAST_REASON_SOURCE_LOST, PCCAST_REASON_SEND, PCCAST_REASON_STOP}) {
        happens(PCCAST_EVENT_ENDED, relay(1), static_cast<unsigned int>(iReason));
    }
    Audit(plugin).stop();
    unsetenv("JOURNAL_STREAM");
    noteJournal();
    EXPECT_EQ(
        std::regex_replace(output(), std::regex(">pccast: audit: (\\w+) .*\n"), "$1 "),
        "<42 <6filed <4refused <6cancelled <4expired <3dropped <6started <6returned <6preempted <6ended "
        "<3failed <4silent <6heard <6current <6sent <6replaced <6finished <6done <3ended <3ended <6ended ");
}

TEST_F(HostTest, RequestThatIsNotTakenOrIsLostIsFiledAgain) {
    for (unsigned long ul = 1; ul <= 102; ++ul) {
        happens(PCCAST_EVENT_FILED, relay(ul, 1000));
    }
    happens(PCCAST_EVENT_FILED, relay(103));
    restart();
    StateKeeper keeper(plugin, sFolder, 86400);
    keeper.open();
    EXPECT_EQ(said("audit: expired relay .*, while the service was down\n"), 100);
    EXPECT_EQ(said("audit: 2 more have expired, or were stopped, before the service came back\n"), 1);
    EXPECT_EQ(writeJSON(keeper.status(7)),
              R"({"path":")" + sFolder + R"(/pccast.db","ok":true,"behind":7,"restored":0,"restoring":1})");
    keeper.start();
    EXPECT_TRUE(within([&] { return service.iSubmitted == 3; }));
    pass(4);
    EXPECT_EQ(service.iSubmitted, 3);
    pass(1);
    EXPECT_EQ(service.iSubmitted, 4);
    EXPECT_EQ(said("restored"), 0);
    pass(5);
    EXPECT_EQ(service.iSubmitted, 5);
    EXPECT_EQ(said("audit: restored 0 of 1 requests so far\n"), 1);
    EXPECT_FALSE(keeper.isRestored());
    pass(5);
    EXPECT_EQ(
        said("audit: restored 0 of 1 requests in 15.000 s; the others stay in .*.db for the next start\n"),
        1);
    EXPECT_TRUE(keeper.isRestored());
    EXPECT_EQ(service.iSubmitted, 5);
}

TEST_F(HostTest, RequestThatASlowDiskHasNotTakenYetIsNotFiledTwice) {
    happens(PCCAST_EVENT_FILED, relay(1));
    restart();
    StateKeeper keeper(plugin, sFolder, 86400);
    keeper.open();
    keeper.start();
    EXPECT_TRUE(within([&] { return service.iSubmitted == 3; }));
    auto writer = stranger(sFolder, "BEGIN IMMEDIATE");
    ++ulNumber; // one has been missed
    lives(relay(1), PCCAST_PLACE_WAITING);
    happens(PCCAST_EVENT_FILED, relay(1));
    pass(4);
    pass(4);
    writer.reset();
    EXPECT_TRUE(within([&] { return said("restored 1 of 1 requests in 8.000 s\n") == 1; }));
    EXPECT_EQ(service.iSubmitted, 3);
}

TEST_F(HostTest, FileThatFailsOrIsDamagedIsMadeUpForByASnapshot) {
    const std::string sState = sFolder + "/state";
    StateKeeper keeper(plugin, sState, 86400);
    keeper.open();
    keeper.start();
    EXPECT_EQ(keeper.lastTold(), ULONG_MAX);
    EXPECT_TRUE(keeper.isRestored());
    std::filesystem::create_directory(sState);
    lives(relay(1));
    carries(5);
    pass(1);
    EXPECT_FALSE(keeper.status(0).value("ok", true));
    pass(1);
    const Json sound{{"path", sState + "/pccast.db"}, {"ok", true}, {"behind", 0}, {"restored", 0}};
    EXPECT_EQ(keeper.status(ulNumber), sound);
    const auto entries = [&] { return keeper.history({})["entries"]; };
    EXPECT_EQ(entries().at(0).value("datagrams", 0), 5);
    carries(6);
    pass(1);
    EXPECT_EQ(entries().at(0).value("datagrams", 0), 5);
    pass(1);
    EXPECT_EQ(entries().at(0).value("datagrams", 0), 6);

    // What has ended long ago is looked for once a day.
    happens(PCCAST_EVENT_ENDED, relay(1), PCCAST_REASON_END_TIME);
    pass(86'400 - 3);
    EXPECT_EQ(entries().size(), 1u);
    pass(1);
    EXPECT_EQ(entries().size(), 0u);

    for (int i = 1; i <= 2; ++i) {
        stranger(sState, "PRAGMA writable_schema = ON; UPDATE sqlite_schema SET rootpage = 9999; "
                         "PRAGMA schema_version = 99");
        happens(PCCAST_EVENT_FILED, relay(2));
        EXPECT_TRUE(
            within([&] { return said("pccast.db is damaged .*: moved to .*, and a new one begun; ") == i; }));
        EXPECT_TRUE(within([&] { return keeper.status(ulNumber) == sound; }));
        EXPECT_EQ(Store(sState + "/" + kStateFile, Store::READ).countRequests(), 1u);
    }
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(sState), {}), 5); // the third has its logs
}

TEST_F(HostTest, ReaderThatWaitsIsToldAtOnceAndASilentOneIsShed) {
    ViewServer view(plugin, nullptr);
    ASSERT_TRUE(view.start());
    const auto ask = [&](const std::string &sRequest) {
        uid_t uiUser = 0;
        const int iSocket = connectLocal(PCCAST_VIEW_SOCKET, &uiUser);
        send(iSocket, sRequest.data(), sRequest.size(), 0);
        return iSocket;
    };
    const auto answer = [](int iSocket) {
        char szBytes[4096] = "nothing yet";
        const ssize_t lLength = recv(iSocket, szBytes, sizeof szBytes - 1, MSG_DONTWAIT);
        return lLength == 0 ? "" : std::string(szBytes);
    };
    const int iPatient = ask("GET /v1/events?wait=99 HTTP/1.1\r\nAccept-Encoding: gzip\r\n\r\n");
    const int iSilent = ask("");
    pass(4);
    EXPECT_EQ(answer(iSilent), "nothing yet");
    pass(1);
    EXPECT_EQ(answer(iSilent), "");
    pass(24);
    EXPECT_EQ(answer(iPatient), "nothing yet");
    pass(1);
    EXPECT_NE(answer(iPatient).find(R"({"last":0,"lost":0,"events":[]})"), std::string::npos);
    const int iWaiting = ask("GET /v1/events?wait=9 HTTP/1.1\r\n\r\n");
    pass(0);
    happens(PCCAST_EVENT_FILED, relay(1));
    pass(0);
    EXPECT_NE(answer(iWaiting).find("\"number\":1,"), std::string::npos);
    for (const int iSocket : {iPatient, iSilent, iWaiting}) {
        close(iSocket);
    }
}

TEST_F(HostTest, PlayersAreToldAgainAndSoonerAfterAFailure) {
    const int iSocket = socket(AF_INET, SOCK_RAW, IPPROTO_UDP); // it gets the IP header too
    ip_mreqn group{};
    inet_pton(AF_INET, kSapGroup, &group.imr_multiaddr);
    group.imr_ifindex = static_cast<int>(if_nametoindex("lo"));
    ASSERT_EQ(setsockopt(iSocket, IPPROTO_IP, IP_ADD_MEMBERSHIP, &group, sizeof group), 0);
    // Of each announcement its hops, its kind, its origin, and the group with its hops.
    const auto heard = [&] {
        std::string sAll;
        char szBytes[2048];
        for (ssize_t l = 0; (l = recv(iSocket, szBytes, sizeof szBytes, MSG_DONTWAIT)) > 0;) {
            const std::string sPacket(szBytes, static_cast<size_t>(l));
            std::smatch found;
            std::regex_search(sPacket, found, std::regex("IN IP4 (\\S+)\r\n(?:s=[^]*IP4 (\\S+))?"));
            sAll += std::to_string(static_cast<unsigned char>(sPacket.at(8))) + " " +
                    std::to_string(sPacket.at(28)) + " " + found.str(1) + " " + found.str(2) + "\n";
        }
        return sAll;
    };
    CASTInfo file = relay(2), asf = relay(4), stop = relay(5), single = relay(6), nowhere = relay(7);
    file.ulCASTType = CAST_TYPE_FILE;
    asf.ulSTREAMFormat = CAST_FORMAT_ASF;
    stop.ulCMD = CAST_CMD_STOP;
    char szSingle[] = "127.0.0.1";
    single.pDSTIP = szSingle;
    nowhere.pDSTIP = nullptr;
    for (const CASTInfo &cast : {relay(1), file, asf, stop, single, nowhere}) {
        lives(cast);
    }
    lives(relay(3), PCCAST_PLACE_WAITING);
    happens(PCCAST_EVENT_STARTED, relay(1));
    Sap sap(plugin, "lo");
    const std::string sAnnounced = "255 32 127.0.0.1 239.1.2.3/5\n255 32 127.0.0.1 239.1.2.3/16\n";
    pass(0);
    EXPECT_EQ(heard(), sAnnounced + sAnnounced);
    pass(29);
    EXPECT_EQ(heard(), "");
    pass(11);
    EXPECT_EQ(heard(), sAnnounced);
    sap.stop();
    EXPECT_EQ(heard(), "255 36 127.0.0.1 \n255 36 127.0.0.1 \n");

    testing::internal::CaptureStderr();
    Sap failing(plugin, "192.0.2.1");
    pass(4);
    EXPECT_EQ(std::system("ip address add 192.0.2.1/32 dev lo"), 0);
    pass(0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "pccast: no announcement to players at 224.2.127.254: Cannot assign requested address\n");
    EXPECT_EQ(heard(), "");
    pass(1);
    EXPECT_EQ(heard(), "255 32 192.0.2.1 239.1.2.3/5\n255 32 192.0.2.1 239.1.2.3/16\n");
    close(iSocket);
}

TEST_F(HostTest, WatchdogIsFedOnlyWhileTheSupervisorMakesPasses) {
    gClock = 0; // waits with a limit go by the system's
    sockaddr_un address{AF_UNIX, "\0pccast-test"};
    const int iSocket = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ASSERT_EQ(bind(iSocket, reinterpret_cast<const sockaddr *>(&address), 2 + sizeof "pccast-test"), 0);
    const timeval wait{0, 300'000};
    setsockopt(iSocket, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
    setenv("NOTIFY_SOCKET", "@pccast-test", 1);
    setenv("WATCHDOG_USEC", "60000", 1);
    // The next notice; empty when none comes.
    const auto heard = [&] {
        char szText[256] = "";
        return recv(iSocket, szText, sizeof szText - 1, 0) < 0 ? "" : std::string(szText);
    };
    ServiceManager manager(plugin);
    manager.ready();
    EXPECT_EQ(heard(), "READY=1\nSTATUS=serving");
    EXPECT_EQ(heard(), "WATCHDOG=1");
    EXPECT_EQ(heard(), "WATCHDOG=1");
    service.ulPace = 0;
    int iRest = 0;
    while (heard() == "WATCHDOG=1") {
        ++iRest;
    }
    EXPECT_LE(iRest, 3);
    service.ulPace = 1;
    EXPECT_EQ(heard(), "WATCHDOG=1");
    manager.stopping();
    std::string sLast = heard();
    while (sLast == "WATCHDOG=1") {
        sLast = heard();
    }
    EXPECT_EQ(sLast, "STOPPING=1\nSTATUS=closing");
    EXPECT_EQ(heard(), "");
    close(iSocket);
    unsetenv("NOTIFY_SOCKET");
    unsetenv("WATCHDOG_USEC");
}

} // namespace

// Before the system's, also for the libraries.
extern "C" int clock_gettime(clockid_t iClock, timespec *pTime) noexcept {
    if (iClock == CLOCK_MONOTONIC && gClock != 0) {
        *pTime = {gClock, 0};
        return 0;
    }
    return static_cast<int>(syscall(SYS_clock_gettime, iClock, pTime));
}

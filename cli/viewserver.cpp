#include "viewserver.h"

#include "clitext.h"
#include "viewclient.h"
#include "viewjson.h"

#include <httplib.h>
#include <poll.h>
#include <qxapi_ktn.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstring>
#include <list>
#include <string>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
using Endpoint = std::unique_ptr<KTNET_ENDPOINT, void (*)(KTNET_ENDPOINT *)>;

constexpr size_t kConnectionsMost = 64;
constexpr size_t kWaitersMost = 32;
constexpr size_t kHeadMost = 8192;             // bytes of a request line with its headers
constexpr size_t kUnsentMost = 64ul << 20;     // bytes of answers that their clients have not fetched
constexpr int kEventsMost = 256;               // events in one answer
constexpr std::chrono::seconds kPatience{5};   // for a request to come, and for an answer to be fetched
constexpr std::chrono::seconds kFarewell{1};   // for the last answers
constexpr std::chrono::milliseconds kLook{50}; // between two looks for new events
constexpr std::chrono::milliseconds kHurriedLook{1};
constexpr const char *kHeadEnd = "\r\n\r\n";

enum ConnectionState { READING, WAITING, SENDING, OVER };

struct Connection {
    explicit Connection(int iAccepted) : iSocket(iAccepted), deadline(Clock::now() + kPatience) {}
    ~Connection() { close(iSocket); }
    Connection(const Connection &) = delete;
    Connection &operator=(const Connection &) = delete;

    int iSocket;
    ConnectionState eState = READING;
    Clock::time_point deadline; // READING, SENDING: closed then; WAITING: answered then
    std::string sHead;          // the request
    std::string sAnswer;
    size_t uSent = 0;
    unsigned long ulAfter = 0; // WAITING: for an event above this number
};

// The library reads the request from the memory and writes the answer into it.
class MemoryStream : public httplib::Stream {
public:
    MemoryStream(const std::string &sHead, std::string *psWritten) : sRequest(sHead), psAnswer(psWritten) {}

    bool is_readable() const override { return uRead < sRequest.size(); }
    bool is_writable() const override { return true; }
    ssize_t read(char *pBytes, size_t uSize) override {
        const size_t uTaken = sRequest.copy(pBytes, uSize, uRead);
        uRead += uTaken;
        return static_cast<ssize_t>(uTaken);
    }
    ssize_t write(const char *pBytes, size_t uSize) override {
        psAnswer->append(pBytes, uSize);
        return static_cast<ssize_t>(uSize);
    }
    void get_remote_ip_and_port(std::string & /*sAddress*/, int & /*iPort*/) const override {}
    void get_local_ip_and_port(std::string & /*sAddress*/, int & /*iPort*/) const override {}
    socket_t socket() const override { return 0; }

private:
    const std::string &sRequest;
    size_t uRead = 0;
    std::string *psAnswer;
};

// The library's parser and router, without its sockets and threads.
class Router : public httplib::Server {
public:
    std::string answer(const std::string &sRequest) {
        std::string sAnswer;
        MemoryStream stream(sRequest, &sAnswer);
        bool bClosed = false;
        // An answer is never packed: that would cost more than the way through the local socket.
        process_request(stream, true, bClosed,
                        [](httplib::Request &request) { request.headers.erase("Accept-Encoding"); });
        return sAnswer;
    }
};

void setJSON(httplib::Response *pResponse, int iStatus, const Json &value) {
    pResponse->status = iStatus;
    pResponse->set_content(writeJSON(value) + "\n", "application/json");
}

void setError(httplib::Response *pResponse, int iStatus, const std::string &sError) {
    setJSON(pResponse, iStatus, Json{{"error", sError}});
}

// Reads a parameter of the request, 0 when there is none. Returns false when it is no number.
bool readParameter(const httplib::Request &request, const char *pszName, unsigned long *pulValue) {
    *pulValue = 0;
    return !request.has_param(pszName) ||
           readNumber(request.get_param_value(pszName), ULONG_MAX, pulValue).empty();
}

// Events that the plug-in has handed over.
class Events {
public:
    // Those above ulAfter, up to ulLast.
    Events(const Plugin &loaded, unsigned long ulAfter, unsigned long ulLast, int iMost)
        : plugin(loaded), events(static_cast<size_t>(iMost)),
          iCount(loaded.pReadEvents(ulAfter, events.data(), iMost)), iTold(iCount) {
        while (iTold > 0 && events[static_cast<size_t>(iTold - 1)].ulNumber > ulLast) {
            --iTold;
        }
    }
    ~Events() { plugin.pEliminateEvents(events.data(), iCount); }
    Events(const Events &) = delete;
    Events &operator=(const Events &) = delete;

    const PCCASTEvent *begin() const { return events.data(); }
    const PCCASTEvent *end() const { return events.data() + iTold; }

private:
    const Plugin &plugin;
    std::vector<PCCASTEvent> events;
    int iCount;
    int iTold;
};

} // namespace

struct ViewServer::Work {
    Plugin plugin;
    const KeptState *pState;
    Router router;
    Endpoint listener{nullptr, [](KTNET_ENDPOINT *pEndpoint) { ktn_xapi_ktnet_delete(&pEndpoint); }};
    int iWake = -1;
    std::atomic<bool> bHurry{false};
    std::atomic<bool> bStop{false};
    std::thread thread;

    // ---- the thread's own
    std::list<Connection> connections;
    Connection *pAnswered = nullptr; // whose request the router has
    bool bParked = false;            // it waits for an event
    bool bFarewell = false;          // nobody waits any more
    unsigned long ulNewest = 0;      // number of the newest event
    Clock::time_point acceptAgain;   // after an accept that failed
    Clock::time_point sayAgain;      // of a client that is refused

    Work(const Plugin &loaded, const KeptState *pKept) : plugin(loaded), pState(pKept) {
        router.set_pre_routing_handler([](const httplib::Request &request, httplib::Response &response) {
            if (request.method == "GET" || request.method == "HEAD") {
                return httplib::Server::HandlerResponse::Unhandled;
            }
            setError(&response, 404, "there is nothing but GET here");
            return httplib::Server::HandlerResponse::Handled;
        });
        router.Get("/v1/view", [this](const httplib::Request & /*request*/, httplib::Response &response) {
            answerView(&response);
        });
        router.Get("/v1/events", [this](const httplib::Request &request, httplib::Response &response) {
            answerEvents(request, &response);
        });
        router.Get("/v1/history", [this](const httplib::Request &request, httplib::Response &response) {
            answerHistory(request, &response);
        });
        router.set_error_handler([](const httplib::Request & /*request*/, httplib::Response &response) {
            if (response.body.empty()) {
                setError(&response, response.status,
                         response.status == 404 ? "there is /v1/view, /v1/events and /v1/history"
                                                : "the request cannot be answered");
            }
        });
    }
    ~Work() {
        if (iWake >= 0) {
            close(iWake);
        }
    }

    // ---- the answers

    // The last event that may be told.
    unsigned long lastTold() const { return pState == nullptr ? ULONG_MAX : pState->lastTold(); }

    void findNewest() {
        for (;;) {
            const Events events(plugin, ulNewest, lastTold(), kEventsMost);
            if (events.begin() == events.end()) {
                return;
            }
            ulNewest = (events.end() - 1)->ulNumber;
        }
    }

    void answerView(httplib::Response *pResponse) {
        size_t uUnsent = 0;
        for (const Connection &connection : connections) {
            uUnsent += connection.sAnswer.size() - connection.uSent;
        }
        if (uUnsent > kUnsentMost) {
            setError(pResponse, 503, "too many readers do not fetch their answers; try again");
            return;
        }
        PCCASTView *pView = nullptr;
        if (plugin.pMakeView(&pView) != 1) {
            setError(pResponse, 503, "the service is closed, or there is no memory");
            return;
        }
        const auto release = [this](PCCASTView *pMade) { plugin.pEliminateView(&pMade); };
        const std::unique_ptr<PCCASTView, decltype(release)> guard(pView, release);
        Json view = viewJSON(*pView);
        if (pState != nullptr) {
            view["state"] = pState->status(pView->ulEvents);
        }
        setJSON(pResponse, 200, view);
    }

    void answerHistory(const httplib::Request &request, httplib::Response *pResponse) const {
        if (pState == nullptr) {
            setError(pResponse, 404, "no history is kept; serve keeps one with --state");
            return;
        }
        HistoryQuery query;
        query.bEPG = request.has_param("epg");
        if (!readParameter(request, "since", &query.ulSince) ||
            !readParameter(request, "epg", &query.ulEPGID) ||
            !readParameter(request, "after", &query.ulAfter)) {
            setError(pResponse, 400, "since, epg and after are numbers");
            return;
        }
        try {
            setJSON(pResponse, 200, pState->history(query));
        } catch (const StoreError &failure) {
            setError(pResponse, 503, std::string("the history cannot be read: ") + failure.what());
        }
    }

    void answerEvents(const httplib::Request &request, httplib::Response *pResponse) {
        unsigned long ulAfter = 0;
        unsigned long ulWait = 0;
        if (!readParameter(request, "after", &ulAfter) || !readParameter(request, "wait", &ulWait)) {
            setError(pResponse, 400, "after and wait are numbers: /v1/events?after=NUMBER&wait=SECONDS");
            return;
        }
        findNewest();
        Json answer{{"last", std::min(ulAfter, ulNewest)}, {"lost", 0}, {"events", Json::array()}};
        if (ulAfter == ulNewest && ulWait != 0 && pAnswered->eState == READING && !bFarewell) {
            park(ulAfter, ulWait, pResponse);
            return;
        }
        const Events events(plugin, ulAfter, lastTold(), kEventsMost);
        unsigned long ulLost = 0;
        for (const PCCASTEvent &event : events) {
            ulLost += event.ulNumber - ulAfter - 1;
            ulAfter = event.ulNumber;
            answer["last"] = ulAfter;
            answer["events"].push_back(eventJSON(event));
        }
        answer["lost"] = ulLost;
        setJSON(pResponse, 200, answer);
    }

    // The client waits. Its request is answered anew when there is an event, or when its time is over.
    void park(unsigned long ulAfter, unsigned long ulWait, httplib::Response *pResponse) {
        const auto isWaiting = [](const Connection &connection) { return connection.eState == WAITING; };
        if (std::count_if(connections.begin(), connections.end(), isWaiting) >=
            static_cast<long>(kWaitersMost)) {
            setError(pResponse, 503, "too many readers wait for events; ask without wait");
            return;
        }
        bParked = true;
        pAnswered->ulAfter = ulAfter;
        pAnswered->deadline =
            Clock::now() + std::chrono::seconds(std::min<unsigned long>(ulWait, kViewWaitMax));
    }

    void answer(Connection *pConnection) {
        pAnswered = pConnection;
        bParked = false;
        std::string sAnswer = router.answer(pConnection->sHead);
        if (bParked) {
            pConnection->eState = WAITING;
            return;
        }
        pConnection->sAnswer = std::move(sAnswer);
        pConnection->eState = SENDING;
        pConnection->deadline = Clock::now() + kPatience;
        send(pConnection);
    }

    // ---- the sockets

    // Whether the client is this user or root. Says whom it refuses, but not more often than every ten
    // seconds.
    bool isAllowed(int iSocket) {
        struct ucred peer {};
        socklen_t uiSize = sizeof peer;
        if (getsockopt(iSocket, SOL_SOCKET, SO_PEERCRED, &peer, &uiSize) == 0 &&
            (peer.uid == geteuid() || peer.uid == 0)) {
            return true;
        }
        if (Clock::now() >= sayAgain) {
            std::fprintf(stderr, "pccast: %s: a client of another user (%u) is refused\n", PCCAST_VIEW_SOCKET,
                         peer.uid);
            sayAgain = Clock::now() + std::chrono::seconds(10);
        }
        return false;
    }

    void accept() {
        // The framework's own accept hands out a client only when a frame of its own has come.
        const int iSocket = accept4(listener->iSocket, nullptr, nullptr, SOCK_CLOEXEC);
        if (iSocket >= 0 && isAllowed(iSocket)) {
            connections.emplace_back(iSocket);
        } else if (iSocket >= 0) {
            close(iSocket);
        } else if (errno != EAGAIN && errno != EINTR && errno != ECONNABORTED) {
            acceptAgain = Clock::now() + std::chrono::milliseconds(100);
        }
        // Too many: the one that has kept its request back longest goes.
        if (connections.size() > kConnectionsMost) {
            const auto oldest = std::find_if(connections.begin(), connections.end(),
                                             [](const Connection &known) { return known.eState == READING; });
            connections.erase(oldest);
        }
    }

    void receive(Connection *pConnection) {
        std::array<char, 4096> aBytes;
        const ssize_t lLength = recv(pConnection->iSocket, aBytes.data(), aBytes.size(), MSG_DONTWAIT);
        if (lLength <= 0) {
            if (lLength == 0 || (errno != EAGAIN && errno != EINTR)) {
                pConnection->eState = OVER;
            }
            return;
        }
        if (pConnection->eState == WAITING) {
            return; // nothing that it sends now is asked for
        }
        std::string &sHead = pConnection->sHead;
        sHead.append(aBytes.data(), static_cast<size_t>(lLength));
        const size_t uEnd = sHead.find(kHeadEnd);
        if (uEnd != std::string::npos && uEnd <= kHeadMost) {
            sHead.resize(uEnd + std::strlen(kHeadEnd));
            answer(pConnection);
        } else if (sHead.size() > kHeadMost) {
            pConnection->eState = OVER;
        }
    }

    static void send(Connection *pConnection) {
        const std::string &sAnswer = pConnection->sAnswer;
        while (pConnection->uSent < sAnswer.size()) {
            const ssize_t lSent = ::send(pConnection->iSocket, sAnswer.data() + pConnection->uSent,
                                         sAnswer.size() - pConnection->uSent, MSG_DONTWAIT | MSG_NOSIGNAL);
            if (lSent < 0) {
                if (errno != EAGAIN && errno != EINTR) {
                    pConnection->eState = OVER;
                }
                return;
            }
            pConnection->uSent += static_cast<size_t>(lSent);
        }
        pConnection->eState = OVER;
    }

    void serve(Connection *pConnection, short sEvents) {
        try {
            const bool bLate = Clock::now() >= pConnection->deadline;
            if (pConnection->eState == WAITING) {
                if (bLate || bFarewell || ulNewest > pConnection->ulAfter) {
                    answer(pConnection);
                } else if (sEvents != 0) {
                    receive(pConnection);
                }
            } else if (bLate) {
                pConnection->eState = OVER;
            } else if (sEvents != 0) {
                pConnection->eState == READING ? receive(pConnection) : send(pConnection);
            }
        } catch (const std::bad_alloc &) {
            pConnection->eState = OVER;
        }
    }

    // Milliseconds until something is due without a client doing anything.
    int timeUntilDue() const {
        const auto look = bHurry ? kHurriedLook : kLook;
        auto due = Clock::now() + std::chrono::hours(1);
        for (const Connection &connection : connections) {
            due = std::min(due, connection.eState == WAITING ? Clock::now() + look : connection.deadline);
        }
        if (acceptAgain > Clock::now()) {
            due = std::min(due, acceptAgain);
        }
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(due - Clock::now()).count();
        return static_cast<int>(std::max<long>(left, 0));
    }

    // One wait, and what it brought.
    void turn() {
        std::vector<struct pollfd> polls;
        polls.push_back({iWake, POLLIN, 0});
        const bool bAccept = listener && Clock::now() >= acceptAgain;
        polls.push_back({bAccept ? listener->iSocket : -1, POLLIN, 0});
        bool bWaiting = false;
        for (const Connection &connection : connections) {
            const bool bSending = connection.eState == SENDING;
            polls.push_back({connection.iSocket, static_cast<short>(bSending ? POLLOUT : POLLIN), 0});
            bWaiting = bWaiting || connection.eState == WAITING;
        }
        poll(polls.data(), polls.size(), timeUntilDue());
        if (bWaiting) {
            findNewest();
        }
        auto next = polls.begin() + 2;
        for (Connection &connection : connections) {
            serve(&connection, (next++)->revents);
        }
        std::erase_if(connections, [](const Connection &connection) { return connection.eState == OVER; });
        if (polls[1].revents != 0) {
            accept();
        }
    }

    void run() {
        while (!bStop) {
            turn();
        }
        listener.reset();
        bFarewell = true;
        std::erase_if(connections, [](const Connection &connection) { return connection.eState == READING; });
        for (Connection &connection : connections) {
            serve(&connection, 0);
            connection.deadline = std::min(connection.deadline, Clock::now() + kFarewell);
        }
        std::uint64_t ullWoken = 0;
        [[maybe_unused]] const ssize_t lRead = read(iWake, &ullWoken, sizeof ullWoken);
        while (!connections.empty()) {
            turn();
        }
    }
};

ViewServer::ViewServer(const Plugin &plugin, const KeptState *pState)
    : pWork(std::make_unique<Work>(plugin, pState)) {}

ViewServer::~ViewServer() {
    stop();
}

bool ViewServer::start() {
    KTNET_ENDPOINT *pListener = nullptr;
    ktn_xapi_ktnet_init_with_version(&pListener, 0, 2);
    if (pListener == nullptr) {
        return false;
    }
    pWork->listener.reset(pListener);
    pListener->uiKind = KTNET_KIND_LOCAL;
    pListener->uiListen = 1;
    std::strncpy(pListener->szLocal, PCCAST_VIEW_SOCKET, sizeof pListener->szLocal - 1);
    pWork->iWake = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (pWork->iWake < 0 || ktn_xapi_ktnet_create(pListener) != 1) {
        pWork->listener.reset();
        return false;
    }
    pWork->thread = std::thread([pWorking = pWork.get()] { pWorking->run(); });
    return true;
}

void ViewServer::hurry() {
    pWork->bHurry = true;
}

void ViewServer::stop() {
    if (!pWork->thread.joinable()) {
        return;
    }
    pWork->bStop = true;
    const std::uint64_t ullOne = 1;
    [[maybe_unused]] const ssize_t lWritten = write(pWork->iWake, &ullOne, sizeof ullOne);
    pWork->thread.join();
}

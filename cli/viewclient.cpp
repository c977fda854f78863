#include "viewclient.h"

#include "localsocket.h"

#include <pccast/commander.h>

#include <httplib.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>

namespace {

constexpr unsigned int kAnswerSeconds = 10;

// The library would connect by the path alone; this connects to a listener that has been looked at.
class LocalClient : public httplib::ClientImpl {
public:
    LocalClient() : ClientImpl("localhost", 80) {}

    int iError = 0;   // why there is no connection
    uid_t uiUser = 0; // who listens; with EPERM, somebody who is not trusted

private:
    bool create_and_connect_socket(Socket &socket, httplib::Error &error) override {
        const int iSocket = connectLocal(PCCAST_VIEW_SOCKET, &uiUser);
        iError = iSocket < 0 ? -iSocket : isTrustedUser(uiUser) ? 0 : EPERM;
        if (iError != 0) {
            if (iSocket >= 0) {
                close(iSocket);
            }
            error = httplib::Error::Connection;
            return false;
        }
        socket.sock = iSocket;
        return true;
    }
};

std::string connectProblem(int iError, uid_t uiUser) {
    const std::string sSocket = PCCAST_VIEW_SOCKET;
    switch (iError) {
    case ENOENT:
    case ECONNREFUSED:
        return "no service answers at " + sSocket + "; start one with: pccast serve";
    case EACCES:
        return sSocket + " belongs to another user's service; that user or root can look at it";
    case EPERM:
        return untrustedText(PCCAST_VIEW_SOCKET, uiUser);
    case EAGAIN:
        return "the service at " + sSocket + " is too busy to answer";
    default:
        return sSocket + " cannot be reached: " + std::strerror(iError);
    }
}

ViewResult get(const std::string &sPath, unsigned int uiWait, Json *pAnswer, std::string *psProblem) {
    LocalClient client;
    client.set_read_timeout(uiWait + kAnswerSeconds);
    client.set_write_timeout(kAnswerSeconds);
    const httplib::Result result = client.Get(sPath);
    if (client.iError != 0) {
        *psProblem = connectProblem(client.iError, client.uiUser);
        return client.iError == ENOENT || client.iError == ECONNREFUSED ? VIEW_ABSENT : VIEW_FAILED;
    }
    if (!result) {
        *psProblem = std::string("the service gave no answer at ") + PCCAST_VIEW_SOCKET;
        return VIEW_FAILED;
    }
    Json answer = Json::parse(result->body, nullptr, false);
    if (result->status != 200 || !answer.is_object()) {
        *psProblem = "the service answered " + std::to_string(result->status);
        if (answer.is_object() && answer.contains("error") && answer["error"].is_string()) {
            *psProblem += ": " + answer["error"].get<std::string>();
        }
        return VIEW_FAILED;
    }
    *pAnswer = std::move(answer);
    return VIEW_ANSWERED;
}

} // namespace

ViewResult getView(Json *pView, std::string *psProblem) {
    return get("/v1/view", 0, pView, psProblem);
}

ViewResult getEvents(unsigned long ulAfter, unsigned int uiWait, Json *pEvents, std::string *psProblem) {
    return get("/v1/events?after=" + std::to_string(ulAfter) + "&wait=" + std::to_string(uiWait), uiWait,
               pEvents, psProblem);
}

ViewResult getHistory(const HistoryQuery &query, Json *pAnswer, std::string *psProblem) {
    const std::string sEPG = query.bEPG ? "&epg=" + std::to_string(query.ulEPGID) : "";
    return get("/v1/history?since=" + std::to_string(query.ulSince) +
                   "&after=" + std::to_string(query.ulAfter) + sEPG,
               0, pAnswer, psProblem);
}

ViewResult getNewestEvent(unsigned long *pulNumber, std::string *psProblem) {
    Json events;
    const ViewResult eResult = getEvents(ULONG_MAX, 0, &events, psProblem);
    if (eResult == VIEW_ANSWERED) {
        *pulNumber = events.value("last", 0ul);
    }
    return eResult;
}

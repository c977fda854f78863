#include "viewclient.h"

#include <pccast/commander.h>

#include <httplib.h>
#include <pwd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstring>

namespace {

constexpr const char *kServiceUser = "pccast";
constexpr unsigned int kAnswerSeconds = 10;

// Whether the user may run a service that this user believes: our own, root, or the system service's.
bool isTrusted(uid_t uiUser) {
    if (uiUser == geteuid() || uiUser == 0) {
        return true;
    }
    struct passwd entry {};
    struct passwd *pEntry = nullptr;
    std::array<char, 4096> aTexts{};
    return getpwnam_r(kServiceUser, &entry, aTexts.data(), aTexts.size(), &pEntry) == 0 &&
           pEntry != nullptr && pEntry->pw_uid == uiUser;
}

// Connects to the view socket and looks who listens there. Returns the socket or a negative errno; -EPERM: a
// user that is not trusted.
int connectTrusted() {
    const int iSocket = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (iSocket < 0) {
        return -errno;
    }
    const struct timeval wait { kAnswerSeconds, 0 };
    setsockopt(iSocket, SOL_SOCKET, SO_SNDTIMEO, &wait, sizeof wait);
    struct sockaddr_un address {};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, PCCAST_VIEW_SOCKET, sizeof address.sun_path - 1);
    int iError = 0;
    struct ucred peer {};
    socklen_t uiSize = sizeof peer;
    if (connect(iSocket, reinterpret_cast<const struct sockaddr *>(&address), sizeof address) != 0 ||
        getsockopt(iSocket, SOL_SOCKET, SO_PEERCRED, &peer, &uiSize) != 0) {
        iError = errno;
    } else if (!isTrusted(peer.uid)) {
        iError = EPERM;
    }
    if (iError != 0) {
        close(iSocket);
        return -iError;
    }
    return iSocket;
}

// The library would connect by the path alone; this connects to a listener that has been looked at.
class LocalClient : public httplib::ClientImpl {
public:
    LocalClient() : ClientImpl("localhost", 80) {}

    int iError = 0; // why there is no connection

private:
    bool create_and_connect_socket(Socket &socket, httplib::Error &error) override {
        const int iSocket = connectTrusted();
        if (iSocket < 0) {
            iError = -iSocket;
            error = httplib::Error::Connection;
            return false;
        }
        socket.sock = iSocket;
        return true;
    }
};

std::string connectProblem(int iError) {
    const std::string sSocket = PCCAST_VIEW_SOCKET;
    switch (iError) {
    case ENOENT:
    case ECONNREFUSED:
        return "no service answers at " + sSocket + "; start one with: pccast serve";
    case EACCES:
        return sSocket + " belongs to another user's service; that user or root can look at it";
    case EPERM:
        return sSocket + " is served by a user who is neither you, root nor " + kServiceUser +
               "; it is not believed";
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
        *psProblem = connectProblem(client.iError);
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

ViewResult getNewestEvent(unsigned long *pulNumber, std::string *psProblem) {
    Json events;
    const ViewResult eResult = getEvents(ULONG_MAX, 0, &events, psProblem);
    if (eResult == VIEW_ANSWERED) {
        *pulNumber = events.value("last", 0ul);
    }
    return eResult;
}

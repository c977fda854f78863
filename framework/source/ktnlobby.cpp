#include "ktnlobby.h"

#include "ktnlocal.h"
#include "report.h"

#include <qxapi_ktn.h>
#include <qxapi_ktn_frame.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <mutex>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr const char *kWho = "ktn_xapi_ktnet_accept";

// Connections taken at a time, those of other users included: a flood of them must not keep the thread here.
constexpr int kTakenMax = 256;

// So much of a frame says that its client means it. A socket holds about 200 KB, so a longer frame can not
// arrive whole.
constexpr int kMeantBytes = 64 * 1024;

// poll() reports a client that has sent a part of a frame again and again. So wait for the rest by time.
constexpr int kPartPauseMs = 10;

std::mutex lobbiesMutex; // for pLobbies and pNext alone, not for who waits in a lobby
KtnLobby *pLobbies = nullptr;

// What a client has sent: nothing, a part of a frame, what can be received; or it has closed without a byte.
enum class Standing { Silent, Part, Ready, Gone };

// Returns whether the client has closed or has said that it sends no more.
bool hasEnded(int iSocket) {
    pollfd end{iSocket, POLLRDHUP, 0};
    return poll(&end, 1, 0) > 0;
}

// Looks at what a client has sent. Leaves it in the socket.
Standing standingOf(int iSocket) {
    std::array<unsigned char, KTNET_FRAME_HEADER_SIZE> header;
    const ssize_t lRead = recv(iSocket, header.data(), header.size(), MSG_PEEK | MSG_DONTWAIT);
    if (lRead <= 0) {
        return lRead < 0 && (errno == EAGAIN || errno == EINTR) ? Standing::Silent : Standing::Gone;
    }
    int iWanted = KTNET_FRAME_HEADER_SIZE;
    int iThere = static_cast<int>(lRead);
    if (iThere == iWanted) {
        KTNET_FRAME frame{};
        if (ktn_xapi_frame_decode_header(header.data(), header.size(), &frame) != KTNET_FRAME_GOOD ||
            frame.uiPayloadLen > KTNET_LOCAL_FRAME_MAX - KTNET_FRAME_HEADER_SIZE) {
            return Standing::Ready; // the receiver refuses it by name
        }
        iWanted += static_cast<int>(frame.uiPayloadLen);
        ioctl(iSocket, FIONREAD, &iThere);
    }
    return iThere >= std::min(iWanted, kMeantBytes) || hasEnded(iSocket) ? Standing::Ready : Standing::Part;
}

void remove(KtnLobby &lobby, std::size_t ulIndex) {
    const auto client = lobby.clients.begin() + static_cast<std::ptrdiff_t>(ulIndex);
    std::copy(client + 1, lobby.clients.begin() + static_cast<std::ptrdiff_t>(lobby.ulClients), client);
    lobby.ulClients--;
}

void drop(KtnLobby &lobby, std::size_t ulIndex) {
    close(lobby.clients[ulIndex].iSocket);
    remove(lobby, ulIndex);
}

// Takes in who is at the door, while there is room. Returns 0, or the errno of an accept that failed.
int takeIn(KtnLobby &lobby) {
    for (int i = 0; i < kTakenMax && lobby.ulClients < kLobbySize; i++) {
        const int iSocket = ktnLocalAccept(lobby.iListener);
        if (iSocket >= 0) {
            lobby.clients[lobby.ulClients++] = {iSocket, std::chrono::steady_clock::now()};
        } else if (iSocket != -EACCES) {
            return iSocket == -EAGAIN ? 0 : -iSocket;
        }
    }
    return 0;
}

// What a walk through the lobby has found.
struct Walk {
    std::size_t ulReady = kLobbySize; // index of the first client to hand out, kLobbySize if there is none
    int iErrno = 0;                   // of taking clients in
    int iPauseMs = INT_MAX;           // when to look again, even if nobody sends anything
    std::array<pollfd, kLobbySize + 1> silent{};
    nfds_t ulSilent = 0; // the listener, if there is room, and the silent clients
};

// Takes clients in, drops those that are gone or whose time is over, and looks for one that is ready.
Walk walk(KtnLobby &lobby) {
    Walk found;
    found.iErrno = takeIn(lobby);
    for (std::size_t i = 0; i < lobby.ulClients;) {
        const KtnLobbyClient &client = lobby.clients[i];
        const Standing standing = standingOf(client.iSocket);
        if (standing == Standing::Ready) {
            found.ulReady = i;
            return found;
        }
        const int iLeft = deadlineLeft(client.entered + std::chrono::milliseconds(lobby.uiTimeoutMs));
        if (standing != Standing::Gone && iLeft == 0) {
            frameworkReport(kWho, "a client sent no whole frame within %u ms", lobby.uiTimeoutMs);
        }
        if (standing == Standing::Gone || iLeft == 0) {
            drop(lobby, i);
            continue;
        }
        if (standing == Standing::Part) {
            found.iPauseMs = std::min(found.iPauseMs, kPartPauseMs);
        } else {
            found.silent[found.ulSilent++] = {client.iSocket, POLLIN, 0};
        }
        found.iPauseMs = std::min(found.iPauseMs, iLeft);
        i++;
    }
    if (lobby.ulClients < kLobbySize) {
        found.silent[found.ulSilent++] = {lobby.iListener, POLLIN, 0};
    } else if (const int iGrace =
                   deadlineLeft(lobby.clients[0].entered + std::chrono::milliseconds(kLobbyGraceMs))) {
        found.iPauseMs = std::min(found.iPauseMs, iGrace);
    } else {
        frameworkReport(kWho, "more than %zu clients are silent; the one silent for the longest is dropped",
                        kLobbySize);
        drop(lobby, 0);
        found.iPauseMs = 0;
    }
    return found;
}

} // namespace

void ktnLobbyOpen(KtnLobby &lobby, int iListener, unsigned int uiTimeoutMs) {
    lobby.iListener = iListener;
    lobby.uiTimeoutMs = uiTimeoutMs;
    lobby.ulClients = 0;
    const std::lock_guard lock(lobbiesMutex);
    lobby.pNext = pLobbies;
    pLobbies = &lobby;
}

void ktnLobbyClose(KtnLobby &lobby) {
    if (lobby.iListener < 0) {
        return;
    }
    {
        const std::lock_guard lock(lobbiesMutex);
        KtnLobby **ppLobby = &pLobbies;
        while (*ppLobby != &lobby) {
            ppLobby = &(*ppLobby)->pNext;
        }
        *ppLobby = lobby.pNext;
    }
    while (lobby.ulClients > 0) {
        drop(lobby, lobby.ulClients - 1);
    }
    lobby.iListener = -1;
}

KtnLobby *ktnLobbyOf(int iListener) {
    const std::lock_guard lock(lobbiesMutex);
    KtnLobby *pLobby = pLobbies;
    while (pLobby != nullptr && pLobby->iListener != iListener) {
        pLobby = pLobby->pNext;
    }
    return pLobby;
}

int ktnLobbyWait(KtnLobby &lobby, unsigned int uiTimeoutMs) {
    const Deadline deadline = deadlineIn(uiTimeoutMs);
    for (;;) {
        Walk found = walk(lobby);
        if (found.ulReady < kLobbySize || found.iErrno != 0) {
            return 1;
        }
        const int iLeft = deadlineLeft(deadline);
        if (poll(found.silent.data(), found.ulSilent, std::min(iLeft, found.iPauseMs)) < 0) {
            return errno == EINTR ? 0 : -errno;
        }
        if (iLeft == 0) {
            return 0;
        }
    }
}

int ktnLobbyTake(KtnLobby &lobby) {
    const Walk found = walk(lobby);
    if (found.ulReady == kLobbySize) {
        return found.iErrno != 0 ? -found.iErrno : -EAGAIN;
    }
    const int iSocket = lobby.clients[found.ulReady].iSocket;
    remove(lobby, found.ulReady);
    return iSocket;
}

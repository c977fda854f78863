#include "sap.h"

#include "commands.h"

#include "castformat.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <random>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds kLook{50};
constexpr std::chrono::seconds kPeriod{30};
constexpr std::chrono::seconds kRetry{5}; // after a failure
constexpr unsigned int kSpread = 10;      // s: so that many announcers do not speak at once
constexpr int kAnnounceHops = 255;        // as RFC 2974 wants it
constexpr unsigned int kRelayHops = 5;    // of the casts themselves
constexpr unsigned int kFileHops = 16;

// One that is announced.
struct Announced {
    SapCast cast;
    std::string sDescription;
    std::string sOrigin;
};

// A socket to the group. Returns -1 when there is no way to it; *psOrigin takes our address.
int openSocket(const std::string &sInterface, std::string *psOrigin) {
    const int iSocket = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (iSocket < 0) {
        return -1;
    }
    struct ip_mreqn interface {};
    if (!sInterface.empty() && inet_pton(AF_INET, sInterface.c_str(), &interface.imr_address) != 1) {
        interface.imr_ifindex = static_cast<int>(if_nametoindex(sInterface.c_str()));
    }
    struct sockaddr_in group {};
    group.sin_family = AF_INET;
    group.sin_port = htons(kSapPort);
    inet_pton(AF_INET, kSapGroup, &group.sin_addr);
    struct sockaddr_in own {};
    socklen_t uiSize = sizeof own;
    std::array<char, INET_ADDRSTRLEN> aText{};
    const bool bReady =
        (sInterface.empty() ||
         setsockopt(iSocket, IPPROTO_IP, IP_MULTICAST_IF, &interface, sizeof interface) == 0) &&
        setsockopt(iSocket, IPPROTO_IP, IP_MULTICAST_TTL, &kAnnounceHops, sizeof kAnnounceHops) == 0 &&
        connect(iSocket, reinterpret_cast<const struct sockaddr *>(&group), sizeof group) == 0 &&
        getsockname(iSocket, reinterpret_cast<struct sockaddr *>(&own), &uiSize) == 0 &&
        inet_ntop(AF_INET, &own.sin_addr, aText.data(), aText.size()) != nullptr;
    if (!bReady || own.sin_addr.s_addr == INADDR_ANY) {
        const int iErrno = bReady ? EADDRNOTAVAIL : errno; // an interface may have no address yet
        close(iSocket);
        errno = iErrno;
        return -1;
    }
    *psOrigin = aText.data();
    return iSocket;
}

// The transport streams on air. None when the plug-in is closed.
std::vector<SapCast> castsOnAir(const Plugin &plugin) {
    std::vector<SapCast> casts;
    PCCASTView *pView = nullptr;
    if (plugin.pMakeView(&pView) != 1) {
        return casts;
    }
    for (int i = 0; i < pView->iRequests; ++i) {
        const PCCASTViewRequest &request = pView->pRequests[i];
        const CASTInfo *const pCast = request.pCast;
        struct in_addr group {};
        if (request.uiPlace != PCCAST_PLACE_ON_AIR || pCast == nullptr ||
            !isH264Format(pCast->ulSTREAMFormat) || pCast->ulCMD != CAST_CMD_START ||
            pCast->pDSTIP == nullptr || inet_pton(AF_INET, pCast->pDSTIP, &group) != 1 ||
            !IN_MULTICAST(ntohl(group.s_addr))) {
            continue;
        }
        casts.push_back({request.ulRequest, pCast->uliEPGID, request.ulStarted, pCast->ulET, pCast->pDSTIP,
                         pCast->usDSTPort, isStream(pCast->ulCASTType) ? kRelayHops : kFileHops});
    }
    plugin.pEliminateView(&pView);
    return casts;
}

bool isSame(const SapCast &one, const SapCast &other) {
    return one.ulRequest == other.ulRequest && one.ulStarted == other.ulStarted;
}

// What is announced. Of the thread alone.
class Announcer {
public:
    explicit Announcer(std::string sSendingInterface) : sInterface(std::move(sSendingInterface)) {}

    // Takes back what is no longer among the casts, and announces what is new there.
    void setCasts(const std::vector<SapCast> &casts) {
        std::erase_if(announced, [this, &casts](Announced &old) {
            const bool bGone = std::none_of(casts.begin(), casts.end(),
                                            [&old](const SapCast &cast) { return isSame(cast, old.cast); });
            if (bGone) {
                send(old, true);
            }
            return bGone;
        });
        for (const SapCast &cast : casts) {
            if (std::none_of(announced.begin(), announced.end(),
                             [&cast](const Announced &known) { return isSame(cast, known.cast); })) {
                announced.push_back({cast, "", ""});
                send(announced.back(), false);
            }
        }
    }

    void announceAgain() {
        for (Announced &cast : announced) {
            send(cast, false);
        }
    }

    // Whether the last one could not be sent.
    bool isFailing() const { return bFailing; }

private:
    // Each has a socket of its own, because an interface may be made anew, or get another address. A failure
    // is said once, until sending works again. The origin is a part of the session's name, so it stays while
    // the session lives.
    void send(Announced &cast, bool bDelete) {
        if (bDelete && cast.sDescription.empty()) {
            return; // nobody has heard of it
        }
        std::string sOrigin;
        const int iSocket = openSocket(sInterface, &sOrigin);
        if (cast.sDescription.empty() && iSocket >= 0) {
            cast.sOrigin = sOrigin;
            cast.sDescription = sapDescription(cast.cast, sOrigin);
        }
        const std::string sPacket = sapPacket(cast.sDescription, cast.sOrigin, bDelete);
        const bool bSent = iSocket >= 0 && ::send(iSocket, sPacket.data(), sPacket.size(), MSG_NOSIGNAL) ==
                                               static_cast<ssize_t>(sPacket.size());
        if (!bSent && !bFailing) {
            sayAndReturn(EXIT_DONE, std::string("no announcement to players at ") + kSapGroup + ": " +
                                        std::strerror(errno));
        }
        if (iSocket >= 0) {
            close(iSocket);
        }
        bFailing = !bSent;
    }

    std::string sInterface;
    bool bFailing = false;
    std::vector<Announced> announced;
};

} // namespace

Sap::Sap(const Plugin &loaded, std::string sSendingInterface)
    : plugin(loaded), sInterface(std::move(sSendingInterface)), thread([this] {
          try {
              run();
          } catch (const std::exception &problem) { // the service goes on without it
              sayAndReturn(EXIT_DONE, std::string("no more announcements to players: ") + problem.what());
          }
      }) {}

Sap::~Sap() {
    stop();
}

void Sap::stop() {
    bStop = true;
    if (thread.joinable()) {
        thread.join();
    }
}

void Sap::run() {
    Announcer announcer(sInterface);
    std::minstd_rand random(std::random_device{}());
    std::array<PCCASTEvent, 64> aEvents{};
    unsigned long ulLast = 0;
    Clock::time_point again = Clock::now();
    while (!bStop) {
        const int iCount = plugin.pReadEvents(ulLast, aEvents.data(), static_cast<int>(aEvents.size()));
        bool bCasts = false;
        for (int i = 0; i < iCount; ++i) {
            ulLast = aEvents[static_cast<size_t>(i)].ulNumber;
            bCasts = bCasts || aEvents[static_cast<size_t>(i)].pCast != nullptr;
        }
        plugin.pEliminateEvents(aEvents.data(), iCount);
        if (bCasts) {
            announcer.setCasts(castsOnAir(plugin));
        }
        if (Clock::now() >= again) {
            announcer.announceAgain();
            again = Clock::now() + kPeriod + std::chrono::seconds(random() % (kSpread + 1));
        }
        if (announcer.isFailing()) {
            again = std::min(again, Clock::now() + kRetry);
        }
        if (iCount == 0) {
            std::this_thread::sleep_for(kLook);
        }
    }
    announcer.setCasts({});
}

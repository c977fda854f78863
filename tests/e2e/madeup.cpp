// madeup - the view of a service with 10,000 waiting relays and with events from 5001 on, until it is ended.
#include <viewserver.h>

#include <csignal>
#include <cstdio>
#include <ctime>
#include <vector>

namespace {

char gSource[] = "239.77.0.1";
char gDestination[] = "239.77.0.2";
std::vector<CASTInfo> gCasts;
std::vector<PCCASTViewRequest> gRequests;

int makeView(PCCASTView **ppView) {
    *ppView = new PCCASTView{};
    (*ppView)->ulTime = static_cast<unsigned long>(std::time(nullptr));
    (*ppView)->pRequests = gRequests.data();
    (*ppView)->iRequests = static_cast<int>(gRequests.size());
    return 1;
}

int eliminateView(PCCASTView **ppView) {
    delete *ppView;
    *ppView = nullptr;
    return 1;
}

int readEvents(unsigned long ulAfter, PCCASTEvent *pEvents, int iMost) {
    int iRead = 0;
    for (unsigned long ul = ulAfter < 5000 ? 5001 : ulAfter + 1; ul <= 6024 && iRead < iMost; ++ul) {
        PCCASTEvent event{};
        event.ulNumber = ul;
        event.uiKind = PCCAST_EVENT_FILED;
        event.ulRequest = ul;
        event.pCast = &gCasts[ul];
        pEvents[iRead++] = event;
    }
    return iRead;
}

void eliminateEvents(PCCASTEvent * /*pEvents*/, int /*iCount*/) {}

} // namespace

int main() {
    const auto ulNow = static_cast<unsigned long>(std::time(nullptr));
    for (unsigned long i = 0; i < 10'000; ++i) {
        CASTInfo cast{};
        cast.ulCMD = CAST_CMD_START;
        cast.ulCASTType = CAST_TYPE_STREAM;
        cast.ulSTREAMFormat = CAST_FORMAT_TS;
        cast.uliEPGID = i;
        cast.ulCT = ulNow;
        cast.ulST = ulNow + 3600 + i * 7919 % 10'000;
        cast.ulET = cast.ulST + 3600;
        cast.pSRCIP = gSource;
        cast.pDSTIP = gDestination;
        cast.usSRCPort = 4000;
        cast.usDSTPort = 5000;
        gCasts.push_back(cast);
    }
    for (const CASTInfo &cast : gCasts) {
        gRequests.push_back({cast.uliEPGID + 1, PCCAST_PLACE_WAITING, &cast, nullptr, ulNow, 0, 0, 0});
    }
    Plugin plugin{};
    plugin.pMakeView = makeView;
    plugin.pEliminateView = eliminateView;
    plugin.pReadEvents = readEvents;
    plugin.pEliminateEvents = eliminateEvents;

    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    ViewServer view(plugin, nullptr);
    if (!view.start()) {
        return 69;
    }
    std::puts("ready");
    std::fflush(stdout);
    int iSignal = 0;
    sigwait(&signals, &iSignal);
    return 0;
}

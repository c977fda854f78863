// Measures what the idle service costs, and how soon after its start time a cast is on air.
#include "bench.h"

#include "wire.h"

#include <pccast/pccast.h>

#include <vexa_pgl.h>

#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <thread>

namespace bench {

namespace {

constexpr double kIdleBound = 1.0;   // per cent of one core
constexpr double kStartBound = 50.0; // milliseconds
constexpr int kStarts = 5;
constexpr unsigned long kApart = 12; // seconds between two starts: more than the pause between announcements

double processSeconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

// Submits a cast that starts at ulStart. Returns how many milliseconds later its first announcement arrives,
// -1 when none does.
double startDelay(int iAnnouncements, unsigned long ulStart) {
    CASTInfo *pInfo = nullptr;
    MAKECASTInfo(&pInfo, "239.1.1.1", "239.2.2.2", nullptr, CAST_TYPE_STREAM);
    pInfo->ulCT = vexa_time(nullptr);
    pInfo->ulST = ulStart;
    pInfo->ulET = ulStart + 2;
    pInfo->usSRCPort = pInfo->usDSTPort = 5000;
    pInfo->ulSTREAMFormat = CAST_FORMAT_TS;
    QX_PCCASTSTREAMCommander(CAST_CMD_START, pInfo);
    ELIMINATECASTInfo(&pInfo);
    pollfd wait{iAnnouncements, POLLIN, 0};
    char datagram[2048];
    if (poll(&wait, 1, static_cast<int>(kApart) * 1000) <= 0 ||
        recv(iAnnouncements, datagram, sizeof datagram, 0) <= 0) {
        return -1;
    }
    const std::chrono::duration<double, std::milli> now = std::chrono::system_clock::now().time_since_epoch();
    return now.count() - static_cast<double>(ulStart) * 1000;
}

} // namespace

bool serviceBench(double dSeconds) {
    const int iAnnouncements = openReceiver(wire::kGroup, wire::announcement::kPort);
    p_qxapi_open_pccast();
    const double dBefore = processSeconds();
    std::this_thread::sleep_for(std::chrono::duration<double>(dSeconds));
    const double dIdle = (processSeconds() - dBefore) / dSeconds * 100;
    bool bHolds = rowAtMost("service.idle", dIdle, "%_of_a_core", kIdleBound);

    std::vector<double> delays;
    for (int i = 0; i < kStarts; ++i) {
        const unsigned long ulStart = vexa_time(nullptr) + 4;
        const double dDelay = startDelay(iAnnouncements, ulStart);
        if (dDelay < 0) {
            std::fprintf(stderr, "bench: a due cast was not announced\n");
            bHolds = false;
        }
        delays.push_back(dDelay);
        while (vexa_time(nullptr) < ulStart + kApart) {
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
    }
    p_qxapi_close_pccast(nullptr);
    close(iAnnouncements);
    row("service.start_p50", percentile(delays, 0.5), "ms_after_its_second");
    bHolds &= rowAtMost("service.start_worst", percentile(delays, 1), "ms_after_its_second", kStartBound);
    return bHolds;
}

} // namespace bench

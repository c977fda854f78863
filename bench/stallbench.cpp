// Measures how late a relay and a playout of the whole service are while two other programs keep the
// processors busy: as the service is started by itself, and under the scheduling policy SCHED_FIFO, by the
// same turns.
//
// The sender and the receiver of the measurement run under SCHED_FIFO themselves, above the service: else
// their own lateness would be measured. Where that is not permitted nothing is measured, which is printed.
#include "bench.h"

#include <poll.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <thread>

namespace bench {

namespace {

constexpr const char *kFile = "/tmp/stall.ts";
constexpr const char *kSource = "239.1.9.1";
constexpr const char *kDestination = "239.2.9.1";
constexpr const char *kFileGroup = "239.3.9.1";
constexpr unsigned short kPort = 5000;
constexpr int kRate = 4'000;
constexpr int kOwnPriority = 20;
constexpr int kTurns = 3;

struct Figures {
    std::vector<double> relay50, relay99, relayMost, file50, file99, fileMost;
};

bool setPolicy(int iPolicy, int iPriority) {
    const sched_param parameter{iPriority};
    return sched_setscheduler(0, iPolicy, &parameter) == 0;
}

// Receives a playout to its end. Returns how far each datagram was from its due time, milliseconds. The
// median datagram tells when the playout began.
std::vector<double> receivePlayout(int iSocket) {
    std::vector<double> offsets;
    std::array<unsigned char, 2048> datagram;
    pollfd wait{iSocket, POLLIN, 0};
    while (poll(&wait, 1, offsets.empty() ? 10'000 : 1'000) > 0) {
        if (recv(iSocket, datagram.data(), datagram.size(), MSG_DONTWAIT) > 0) {
            uint32_t uiNumber = 0;
            std::memcpy(&uiNumber, &datagram[kFileNumberAt], sizeof uiNumber);
            offsets.push_back(static_cast<double>(now()) / 1e6 - dueSeconds(uiNumber) * 1000);
        }
    }
    std::vector<double> sorted = offsets;
    const double dStart = percentile(sorted, 0.5);
    for (double &dOffset : offsets) {
        dOffset = std::fabs(dOffset - dStart);
    }
    return offsets;
}

// One turn of the service under a policy.
void measure(bool bFifo, double dSeconds, Figures &figures) {
    std::vector<std::string> before = {"chrt", "--other", "0"};
    if (bFifo) {
        before = {"chrt", "--fifo", "10"};
    }
    const pid_t iService = startService(before);
    std::array<pid_t, 2> busy{};
    for (pid_t &iBusy : busy) {
        iBusy = inProcess([] {
            require(setPolicy(SCHED_OTHER, 0), "SCHED_OTHER");
            const volatile bool bOn = true;
            while (bOn) {
            }
        });
    }
    const int iSocket = openReceiver(kFileGroup, kPort);
    request({"file", kFile, "--to", std::string(kFileGroup) + ":5000", "--for", "10m"});
    std::vector<double> errors = receivePlayout(iSocket);
    require(!errors.empty(), "playout");
    close(iSocket);
    figures.file50.push_back(percentile(errors, 0.5));
    figures.file99.push_back(percentile(errors, 0.99));
    figures.fileMost.push_back(percentile(errors, 1));

    request({"relay", std::string(kSource) + ":5000", std::string(kDestination) + ":5000", "--for", "10m"});
    const int64_t lGiveUp = now() + 15'000'000'000;
    while (now() < lGiveUp && runTraffic(kSource, kDestination, kPort, 100, 0.1).lReceived == 0) {
    }
    Traffic traffic = runTraffic(kSource, kDestination, kPort, kRate, dSeconds);
    figures.relay50.push_back(percentile(traffic.delaysUs, 0.5) / 1000);
    figures.relay99.push_back(percentile(traffic.delaysUs, 0.99) / 1000);
    figures.relayMost.push_back(percentile(traffic.delaysUs, 1) / 1000);
    for (const pid_t iBusy : busy) {
        kill(iBusy, SIGKILL);
        waitpid(iBusy, nullptr, 0);
    }
    kill(iService, SIGTERM);
    waitpid(iService, nullptr, 0);
}

void print(const std::string &name, Figures &figures) {
    row(name + "relay_p50", percentile(figures.relay50, 0.5), "ms");
    row(name + "relay_p99", percentile(figures.relay99, 0.5), "ms");
    row(name + "relay_worst", percentile(figures.relayMost, 1), "ms");
    row(name + "file_p50", percentile(figures.file50, 0.5), "ms");
    row(name + "file_p99", percentile(figures.file99, 0.5), "ms");
    row(name + "file_worst", percentile(figures.fileMost, 1), "ms");
}

} // namespace

bool stallBench(double dSeconds) {
    if (!setPolicy(SCHED_FIFO, kOwnPriority)) {
        std::fprintf(stderr, "bench: stall is left out: SCHED_FIFO: %s (start it under chrt -f 20)\n",
                     std::strerror(errno));
        return true;
    }
    makeFile(kFile, dSeconds);
    Figures other, fifo;
    for (int i = 0; i < kTurns; i++) {
        measure(false, dSeconds, other);
        measure(true, dSeconds, fifo);
    }
    unlink(kFile);
    setPolicy(SCHED_OTHER, 0);
    print("stall.other.", other);
    print("stall.fifo.", fifo);
    return true;
}

} // namespace bench

// Measures what the relay costs per datagram, and how many it loses and delays. It measures a bare loop that
// blocks, receives and sends in the same way, and other relays where they are installed.
//
// Only the ratio of the plain relay to the bare loop has a bound. Both take turns in short slices, so the
// ratio holds even when the machine's speed changes. Each other row comes from a run of its own, one after
// the other; those of the other relays are a third as long. Compare them only if the machine kept its speed.
#include "bench.h"

#include "engines.h"

#include <pccast/castinfo.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <thread>

namespace bench {

namespace {

constexpr const char *kSource = "239.1.1.1";
constexpr const char *kDestination = "239.2.2.2";
constexpr unsigned short kPort = 5000;
constexpr int kRate = 20'000;
constexpr int64_t kStartSeconds = 10; // for the engine to be on air, on a busy machine
constexpr double kCostBound = 1.2;    // of a bare loop's processor time

double threadSeconds(pthread_t thread) {
    clockid_t clock{};
    timespec spent{};
    pthread_getcpuclockid(thread, &clock);
    clock_gettime(clock, &spent);
    return static_cast<double>(spent.tv_sec) + static_cast<double>(spent.tv_nsec) / 1e9;
}

struct Result {
    Traffic traffic;
    double dCostUs; // processor time per datagram
};

double perDatagram(double dSeconds, const Traffic &traffic) {
    return traffic.lReceived > 0 ? dSeconds * 1e6 / static_cast<double>(traffic.lReceived) : 0;
}

// The least that a relay can do: block, receive, send on.
void bareLoop(const std::atomic<bool> *pStop) {
    const int iReceiver = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const int iSender = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(kPort);
    inet_pton(AF_INET, kSource, &address.sin_addr);
    ip_mreq request{address.sin_addr, {htonl(INADDR_LOOPBACK)}};
    const int iBuffer = 16 << 20;
    const timeval silence{1, 0};
    setsockopt(iReceiver, SOL_SOCKET, SO_RCVBUFFORCE, &iBuffer, sizeof iBuffer);
    setsockopt(iReceiver, SOL_SOCKET, SO_RCVTIMEO, &silence, sizeof silence);
    require(bind(iReceiver, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0 &&
                setsockopt(iReceiver, IPPROTO_IP, IP_ADD_MEMBERSHIP, &request, sizeof request) == 0,
            "bare loop");
    inet_pton(AF_INET, kDestination, &address.sin_addr);
    require(connect(iSender, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0, "bare loop");
    std::vector<char> buffer(65536);
    while (!*pStop) {
        const ssize_t lLength = recv(iReceiver, buffer.data(), buffer.size(), 0);
        if (lLength > 0) {
            [[maybe_unused]] const ssize_t lSent =
                send(iSender, buffer.data(), static_cast<size_t>(lLength), 0);
        }
    }
    close(iReceiver);
    close(iSender);
}

Result runBare(double dSeconds) {
    std::atomic<bool> bStop{false};
    std::thread carrier(bareLoop, &bStop);
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    const double dBefore = threadSeconds(carrier.native_handle());
    Result result{runTraffic(kSource, kDestination, kPort, kRate, dSeconds), 0};
    result.dCostUs = perDatagram(threadSeconds(carrier.native_handle()) - dBefore, result.traffic);
    bStop = true;
    carrier.join();
    return result;
}

// The relay engine itself; the benchmark controls it.
Result runEngine(int iEncryptionType, double dSeconds) {
    KTPLUGIN_INFO_TAG block{};
    block.eState = ENGINE_STOPPED;
    CASTInfo *pCast = nullptr;
    require(MAKECASTInfo(&pCast, kSource, kDestination, nullptr, CAST_TYPE_STREAM) == 1, "cast record");
    pCast->ulCMD = CAST_CMD_START;
    pCast->usSRCPort = pCast->usDSTPort = kPort;
    pCast->ulET = static_cast<unsigned long>(std::time(nullptr)) + 3600;
    pCast->iEncryptionType = iEncryptionType;
    pCast->iEncryptionKeyLen = 16;
    pCast->pEncryptionKey = static_cast<unsigned char *>(std::calloc(16, 1));
    require(pCast->pEncryptionKey != nullptr, "cast key");
    std::thread carrier(PCCASTBYPASSEngine, &block);
    block.pWork = pCast; // owned by the engine from here on
    const int64_t lGiveUp = now() + kStartSeconds * 1'000'000'000;
    while (block.eState != ENGINE_RUNNING) {
        if (block.eState == ENGINE_FAILED || now() > lGiveUp) {
            std::fprintf(stderr,
                         "relay: the engine took no cast from %s to %s, port %d (state %d); giving up\n",
                         kSource, kDestination, kPort, block.eState.load());
            std::exit(1);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    const double dBefore = threadSeconds(carrier.native_handle());
    Result result{runTraffic(kSource, kDestination, kPort, kRate, dSeconds), 0};
    result.dCostUs = perDatagram(threadSeconds(carrier.native_handle()) - dBefore, result.traffic);
    engineRequestStop(&block);
    carrier.join();
    return result;
}

// Another program as the relay. The result is empty when the program is not installed.
Result runTool(const std::vector<std::string> &command, double dSeconds) {
    const pid_t iChild = fork();
    require(iChild >= 0, "fork"); // a signal to child -1 would reach every process
    if (iChild == 0) {
        std::vector<char *> arguments;
        arguments.reserve(command.size() + 1);
        for (const std::string &word : command) {
            arguments.push_back(const_cast<char *>(word.c_str()));
        }
        arguments.push_back(nullptr);
        if (std::freopen("/dev/null", "w", stderr) != nullptr) {
            execvp(arguments[0], arguments.data());
        }
        _exit(127);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    int iStatus = 0;
    if (waitpid(iChild, &iStatus, WNOHANG) == iChild) {
        return {};
    }
    Result result{runTraffic(kSource, kDestination, kPort, kRate, dSeconds), 0};
    kill(iChild, SIGTERM);
    rusage usage{};
    wait4(iChild, &iStatus, 0, &usage);
    const auto seconds = [](const timeval &time) {
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
    };
    result.dCostUs = perDatagram(seconds(usage.ru_utime) + seconds(usage.ru_stime), result.traffic);
    return result;
}

std::vector<std::string> commandOf(const std::string &tool) {
    const std::string source = kSource, destination = kDestination, port = std::to_string(kPort);
    if (tool == "socat") {
        return {"socat",
                "-b",
                "65536",
                "-u",
                "UDP4-RECV:" + port + ",bind=" + source + ",ip-add-membership=" + source + ":127.0.0.1",
                "UDP4-DATAGRAM:" + destination + ":" + port};
    }
    return {"multicat", "-u", "-U", "@" + source + ":" + port + "/ifaddr=127.0.0.1",
            destination + ":" + port};
}

void print(const std::string &name, Result *pResult) {
    row("relay." + name + ".cost", pResult->dCostUs, "us/datagram");
    row("relay." + name + ".lost", static_cast<double>(pResult->traffic.lSent - pResult->traffic.lReceived),
        "datagrams");
    row("relay." + name + ".delay_p50", percentile(pResult->traffic.delaysUs, 0.5), "us");
    row("relay." + name + ".delay_p99", percentile(pResult->traffic.delaysUs, 0.99), "us");
}

} // namespace

bool relayBench(double dSeconds, const std::vector<std::string> &tools) {
    // The median of the slices' ratios has the bound.
    constexpr int kTurns = 5;
    std::vector<double> ratios, bareCosts, plainCosts;
    for (int i = 0; i < kTurns; ++i) {
        const double dBare = runBare(3).dCostUs;
        const double dPlain = runEngine(0, 3).dCostUs;
        bareCosts.push_back(dBare);
        plainCosts.push_back(dPlain);
        ratios.push_back(dPlain / dBare);
    }
    row("relay.turns.bare", percentile(bareCosts, 0.5), "us/datagram");
    row("relay.turns.plain", percentile(plainCosts, 0.5), "us/datagram");
    const double dRatio = percentile(ratios, 0.5);
    bool bHolds = rowAtMost("relay.turns.ratio", dRatio, "times", kCostBound);

    Result bare = runBare(dSeconds);
    Result plain = runEngine(0, dSeconds);
    Result seed = runEngine(CAST_ENCRYPTION_SEED, dSeconds);
    Result fast = runEngine(CAST_ENCRYPTION_FAST_SEED, dSeconds);
    for (const Result *pResult : {&plain, &seed, &fast}) {
        if (pResult->traffic.lSent == 0 || pResult->traffic.lReceived != pResult->traffic.lSent) {
            std::fprintf(stderr, "bench: the relay passed %ld of %ld datagrams on\n",
                         pResult->traffic.lReceived, pResult->traffic.lSent);
            bHolds = false;
        }
    }
    print("bare", &bare);
    print("plain", &plain);
    print("seed", &seed);
    print("fastseed", &fast);
    for (const std::string &tool : tools) {
        Result result = runTool(commandOf(tool), dSeconds / 3);
        if (result.traffic.lReceived > 0) {
            print(tool, &result);
        }
    }
    return bHolds;
}

} // namespace bench

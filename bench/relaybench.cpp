// Measures what a relayed datagram costs, how long it is delayed, and the highest rate at which none is lost:
// of the whole service, of its relay engine alone, of a bare loop that blocks, receives and sends, and of
// other relays where they are installed.
//
// Each relay is a process of its own between two groups of its own. All run the whole time and are measured
// by turns, in slices of a few seconds. So a figure of one and a figure of another in the same turn met the
// same machine, and the ratios hold even when the machine's speed changes from turn to turn. Each turn begins
// with another relay, since the place in a turn makes a difference too. The bare loop runs twice: how far
// its second figure is from its first tells what a ratio is worth on this machine.
#include "bench.h"

#include "engines.h"

#include <pccast/castinfo.h>

#include <sched.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <functional>
#include <thread>

namespace bench {

namespace {

constexpr unsigned short kPort = 5000;
constexpr const char *kAgain = "bare_again";
constexpr int kTurns = 9;
constexpr std::array<int, 2> kRates = {4'000, 20'000};
constexpr double kStartSeconds = 15;      // for the service to be on air, on a busy machine
constexpr int kReceiveBuffer = 8'753'600; // as the service asks for
constexpr double kBareBound = 1.0;        // the service's cost, of a bare loop's
constexpr double kToolBound = 0.85;       // the service's cost, of multicat's
constexpr int kClimbFrom = 30'000;
constexpr double kClimbStep = 1.1;
constexpr int kClimbTries = 3;
constexpr double kClimbSeconds = 0.8;

// A relay under measurement.
struct Relay {
    std::string name;
    std::string source, destination;
    pid_t iProcess;
};

// The figures of one relay at one rate, one entry a turn.
struct Figures {
    std::vector<double> costs, toBare, toTool, delays50, delays99;
    long lLost = 0;
};

// The least that a relay can do: block, receive, send on.
void bareLoop(const Relay &relay) {
    const int iReceiver = openReceiver(relay.source.c_str(), kPort, kReceiveBuffer);
    const timeval silence{1, 0};
    setsockopt(iReceiver, SOL_SOCKET, SO_RCVTIMEO, &silence, sizeof silence);
    const int iSender = openSender(relay.destination.c_str(), kPort);
    std::vector<char> buffer(65536);
    for (;;) {
        const ssize_t lLength = recv(iReceiver, buffer.data(), buffer.size(), 0);
        if (lLength > 0) {
            [[maybe_unused]] const ssize_t lSent =
                send(iSender, buffer.data(), static_cast<size_t>(lLength), 0);
        }
    }
}

// The relay engine alone, without the service's other threads.
void engineAlone(const Relay &relay, int iEncryptionType) {
    KTPLUGIN_INFO_TAG block{};
    block.eState = ENGINE_STOPPED;
    CASTInfo *pCast = nullptr;
    require(
        MAKECASTInfo(&pCast, relay.source.c_str(), relay.destination.c_str(), nullptr, CAST_TYPE_STREAM) == 1,
        "cast record");
    pCast->ulCMD = CAST_CMD_START;
    pCast->usSRCPort = pCast->usDSTPort = kPort;
    pCast->ulET = static_cast<unsigned long>(std::time(nullptr)) + 3600;
    pCast->iEncryptionType = iEncryptionType;
    pCast->iEncryptionKeyLen = 16;
    pCast->pEncryptionKey = static_cast<unsigned char *>(std::calloc(16, 1));
    require(pCast->pEncryptionKey != nullptr, "cast key");
    block.pWork = pCast; // owned by the engine from here on
    PCCASTBYPASSEngine(&block);
}

std::vector<std::string> commandOf(const Relay &relay) {
    const std::string port = std::to_string(kPort);
    if (relay.name == "socat") {
        return {"socat",
                "-b",
                "65536",
                "-u",
                "UDP4-RECV:" + port + ",bind=" + relay.source + ",ip-add-membership=" + relay.source +
                    ":127.0.0.1",
                "UDP4-DATAGRAM:" + relay.destination + ":" + port};
    }
    return {"multicat", "-u", "-U", "@" + relay.source + ":" + port + "/ifaddr=127.0.0.1",
            relay.destination + ":" + port};
}

Traffic send(const Relay &relay, int iRate, double dSeconds) {
    return runTraffic(relay.source.c_str(), relay.destination.c_str(), kPort, iRate, dSeconds);
}

// Returns whether the relay carries datagrams, at the latest after kStartSeconds. A program that is not
// installed never does.
bool carries(const Relay &relay) {
    const int64_t lGiveUp = now() + static_cast<int64_t>(kStartSeconds * 1e9);
    while (now() < lGiveUp && waitpid(relay.iProcess, nullptr, WNOHANG) == 0) {
        if (send(relay, 100, 0.1).lReceived > 0) {
            return true;
        }
    }
    return false;
}

// Starts them all. Those that carry nothing are left out: it is printed.
std::vector<Relay> startRelays(const std::vector<std::string> &tools) {
    std::vector<std::string> names = {"bare", kAgain, "service", "engine", "seed", "fastseed"};
    names.insert(names.end(), tools.begin(), tools.end());
    std::vector<Relay> relays;
    for (const std::string &name : names) {
        const std::string number = std::to_string(relays.size() + 1);
        Relay relay{name, "239.1.1." + number, "239.2.2." + number, -1};
        if (name == "service") {
            relay.iProcess = startService();
            const std::string port = ":" + std::to_string(kPort);
            request({"relay", relay.source + port, relay.destination + port});
        } else {
            relay.iProcess = inProcess([&] {
                if (name == "bare" || name == kAgain) {
                    bareLoop(relay);
                } else if (name == "engine") {
                    engineAlone(relay, 0);
                } else if (name == "seed" || name == "fastseed") {
                    engineAlone(relay, name == "seed" ? CAST_ENCRYPTION_SEED : CAST_ENCRYPTION_FAST_SEED);
                } else {
                    become(commandOf(relay));
                }
            });
        }
        if (carries(relay)) {
            relays.push_back(relay);
        } else {
            std::fprintf(stderr, "relay: %s carries nothing\n", name.c_str());
        }
    }
    return relays;
}

double processSeconds(pid_t iProcess) {
    clockid_t clock{};
    timespec spent{};
    require(clock_getcpuclockid(iProcess, &clock) == 0 && clock_gettime(clock, &spent) == 0, "process clock");
    return static_cast<double>(spent.tv_sec) + static_cast<double>(spent.tv_nsec) / 1e9;
}

// One slice. Returns the processor time per datagram, microseconds.
double measure(const Relay &relay, int iRate, double dSeconds, Figures &figures) {
    const double dBefore = processSeconds(relay.iProcess);
    Traffic traffic = send(relay, iRate, dSeconds);
    const double dCost = (processSeconds(relay.iProcess) - dBefore) * 1e6 /
                         static_cast<double>(traffic.lReceived > 0 ? traffic.lReceived : 1);
    figures.costs.push_back(dCost);
    figures.delays50.push_back(percentile(traffic.delaysUs, 0.5));
    figures.delays99.push_back(percentile(traffic.delaysUs, 0.99));
    figures.lLost += traffic.lSent - traffic.lReceived;
    return dCost;
}

void printSpread(const std::string &name, std::vector<double> &values, const char *pszUnit) {
    row(name, percentile(values, 0.5), pszUnit);
    row(name + "_min", percentile(values, 0), pszUnit);
    row(name + "_max", percentile(values, 1), pszUnit);
}

// All relays by turns at one rate. Returns whether the service keeps its bounds.
bool compare(const std::vector<Relay> &relays, int iRate, double dSeconds) {
    std::vector<Figures> figures(relays.size());
    for (int iTurn = 0; iTurn < kTurns; iTurn++) {
        double dBare = 0, dTool = 0;
        for (size_t iPlace = 0; iPlace < relays.size(); iPlace++) {
            const size_t i = (iPlace + static_cast<size_t>(iTurn)) % relays.size();
            const bool bSeed = relays[i].name.find("seed") != std::string::npos;
            if (bSeed && (iTurn > 0 || iRate != kRates.back())) {
                continue; // decryption is measured once: it costs what it costs
            }
            const double dCost = measure(relays[i], iRate, dSeconds, figures[i]);
            dBare = relays[i].name == "bare" ? dCost : dBare;
            dTool = relays[i].name == "multicat" ? dCost : dTool;
        }
        for (size_t i = 0; i < relays.size(); i++) {
            if (relays[i].name == "service" || relays[i].name == "engine" || relays[i].name == kAgain) {
                const double dCost = figures[i].costs.back();
                figures[i].toBare.push_back(dCost / dBare);
                if (dTool > 0) {
                    figures[i].toTool.push_back(dCost / dTool);
                }
            }
        }
    }
    bool bHolds = true;
    const std::string rate = "relay.r" + std::to_string(iRate) + ".";
    for (size_t i = 0; i < relays.size(); i++) {
        Figures &own = figures[i];
        if (own.costs.empty()) {
            continue;
        }
        const std::string name = rate + relays[i].name + ".";
        printSpread(name + "cost", own.costs, "us/datagram");
        if (!own.toBare.empty()) {
            printSpread(name + "to_bare", own.toBare, "times");
        }
        if (!own.toTool.empty()) {
            printSpread(name + "to_multicat", own.toTool, "times");
        }
        row(name + "delay_p50", percentile(own.delays50, 0.5), "us");
        row(name + "delay_p99", percentile(own.delays99, 0.5), "us");
        row(name + "lost", static_cast<double>(own.lLost), "datagrams");
        if (relays[i].name == "service") {
            bHolds &= rowAtMost(name + "bound_bare", percentile(own.toBare, 0.5), "times", kBareBound);
            if (!own.toTool.empty()) {
                bHolds &=
                    rowAtMost(name + "bound_multicat", percentile(own.toTool, 0.5), "times", kToolBound);
            }
            bHolds &= own.lLost == 0;
        }
    }
    return bHolds;
}

// Climbs until a relay has lost datagrams in every try. Prints the highest rate at which one try lost none.
void climb(const std::vector<Relay> &relays) {
    struct Climber {
        const Relay *pRelay;
        double dHighest;
        bool bGoesOn;
    };
    std::vector<Climber> climbers;
    for (const Relay &relay : relays) {
        if (relay.name.find("seed") == std::string::npos) {
            climbers.push_back({&relay, 0, true});
        }
    }
    bool bAny = true;
    for (double dRate = kClimbFrom; bAny; dRate *= kClimbStep) {
        bAny = false;
        for (Climber &climber : climbers) {
            bool bPassed = false;
            double dReached = 0;
            for (int i = 0; climber.bGoesOn && !bPassed && i < kClimbTries; i++) {
                const Traffic traffic = send(*climber.pRelay, static_cast<int>(dRate), kClimbSeconds);
                bPassed = traffic.lReceived == traffic.lSent;
                dReached = static_cast<double>(traffic.lSent) / traffic.dSeconds;
            }
            climber.bGoesOn = bPassed && dReached > dRate * 0.95; // else the sender's own limit is reached
            climber.dHighest = bPassed ? std::max(dReached, climber.dHighest) : climber.dHighest;
            bAny |= climber.bGoesOn;
        }
    }
    for (const Climber &climber : climbers) {
        row("relay.highest." + climber.pRelay->name, climber.dHighest, "datagrams/s");
    }
}

} // namespace

bool relayBench(double dSeconds, const std::vector<std::string> &tools) {
    const std::vector<Relay> relays = startRelays(tools);
    bool bHolds = true;
    for (const int iRate : kRates) {
        bHolds &= compare(relays, iRate, dSeconds);
    }
    climb(relays);
    for (const Relay &relay : relays) {
        kill(relay.iProcess, SIGTERM);
    }
    for (const Relay &relay : relays) {
        if (relay.name == "engine" || relay.name.find("seed") != std::string::npos) {
            kill(relay.iProcess, SIGKILL);
        }
        waitpid(relay.iProcess, nullptr, 0);
    }
    return bHolds;
}

} // namespace bench

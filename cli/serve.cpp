// pccast serve - the host process. It loads and opens the plug-in, waits for a signal, and closes the
// plug-in.
#include "audit.h"
#include "commands.h"
#include "interface.h"
#include "localsocket.h"
#include "pluginloader.h"
#include "sap.h"
#include "viewserver.h"
#include "wire.h"

#include <CLI/CLI.hpp>
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <thread>

namespace {

struct ServeOptions {
    std::string sInterface;
    std::string sPlugin;
    bool bSap = false;
};

// The plug-in's two sockets. The view socket is this program's own.
constexpr std::array<const char *, 2> kSockets{PCCAST_CAST_SOCKET, PCCAST_MESSAGE_SOCKET};
constexpr std::chrono::milliseconds kLookInterval{20};
constexpr int kListenLooks = 250; // 5 s for both sockets to be served

// Returns EXIT_DONE when every socket is free. Else another service or something else is in the way: says
// so.
int checkSocketsFree() {
    for (const char *pszSocket : {kSockets[0], kSockets[1], PCCAST_VIEW_SOCKET}) {
        const int iError = probeSocket(pszSocket);
        if (iError == EACCES) {
            return sayForeignSocket(pszSocket);
        }
        if (iError == 0 || iError == EAGAIN) {
            return sayAndReturn(EXIT_UNAVAILABLE, std::string("another service already listens on ") +
                                                      pszSocket + "; end that one first");
        }
        // ECONNREFUSED means that the file is stale: the service replaces it. ENOENT is the usual case.
        if (iError != ENOENT && iError != ECONNREFUSED) {
            return sayAndReturn(EXIT_UNAVAILABLE,
                                std::string(pszSocket) + " cannot be used: " + std::strerror(iError));
        }
    }
    return EXIT_DONE;
}

// Without a route every announcement, message and relay would fail, one by one. Say it once, beforehand. The
// service still runs, because a route may be added later. Connecting a datagram socket sends nothing.
void warnWithoutRoute() {
    struct sockaddr_in group {};
    group.sin_family = AF_INET;
    group.sin_port = htons(wire::announcement::kPort);
    inet_pton(AF_INET, wire::kGroup, &group.sin_addr);
    const int iSocket = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (iSocket < 0) {
        return;
    }
    if (connect(iSocket, reinterpret_cast<const struct sockaddr *>(&group), sizeof group) != 0) {
        sayAndReturn(EXIT_DONE, std::string("nothing can be sent to ") + wire::kGroup + ": " +
                                    std::strerror(errno) +
                                    "; give --interface, or a route: ip route add 224.0.0.0/4 dev eth0");
    }
    close(iSocket);
}

// The plug-in opens even if it cannot have a socket, so look. Returns the socket that is not served in time,
// null when both are served.
const char *waitUntilServed() {
    const char *pszMissing = nullptr;
    for (int i = 0; i < kListenLooks; ++i) {
        pszMissing = nullptr;
        for (const char *pszSocket : kSockets) {
            if (probeSocket(pszSocket) != 0) {
                pszMissing = pszSocket;
            }
        }
        if (pszMissing == nullptr) {
            return nullptr;
        }
        std::this_thread::sleep_for(kLookInterval);
    }
    return pszMissing;
}

// Closes the plug-in on a thread of its own, so that this one can answer further signals.
int closePlugin(const Plugin &plugin, const sigset_t &signals) {
    std::atomic<bool> bClosed{false};
    int iResult = 0;
    std::thread closer([&] {
        iResult = plugin.pClose(nullptr);
        bClosed.store(true);
    });
    const struct timespec interval { 0, 20'000'000 };
    while (!bClosed.load()) {
        const int iSignal = sigtimedwait(&signals, nullptr, &interval);
        if (iSignal > 0) {
            std::printf("pccast: %s: already closing, one moment\n", strsignal(iSignal));
        }
    }
    closer.join();
    return iResult;
}

int serve(const ServeOptions &options) {
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    int iExit = checkInterface(options.sInterface);
    if (iExit != EXIT_DONE) {
        return iExit;
    }
    if (!options.sInterface.empty()) {
        setenv("KTNET_MULTICAST_IF", options.sInterface.c_str(), 1);
    }

    Plugin plugin{};
    iExit = loadPlugin(options.sPlugin, &plugin);
    if (iExit == EXIT_DONE) {
        iExit = checkSocketsFree();
    }
    if (iExit != EXIT_DONE) {
        return iExit;
    }

    // Block the signals before any thread starts: then only the wait below takes them.
    sigset_t signals;
    sigemptyset(&signals);
    for (int iSignal : {SIGINT, SIGTERM, SIGHUP}) {
        sigaddset(&signals, iSignal);
    }
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);

    // The view answers before the first request can come, and until the last event has been told.
    ViewServer view(plugin);
    if (!view.start()) {
        return sayAndReturn(EXIT_UNAVAILABLE,
                            std::string("no view at ") + PCCAST_VIEW_SOCKET + "; its reason is above");
    }
    if (plugin.pOpen() != 1) {
        return sayAndReturn(EXIT_UNAVAILABLE, "the plug-in did not open; its reason is above");
    }
    Audit audit(plugin);
    std::unique_ptr<Sap> sap = options.bSap ? std::make_unique<Sap>(plugin, options.sInterface) : nullptr;
    const char *const pszMissing = waitUntilServed();
    if (pszMissing != nullptr) {
        closePlugin(plugin, signals);
        return sayAndReturn(EXIT_UNAVAILABLE, std::string("the service did not start to listen on ") +
                                                  pszMissing + "; its reason is above");
    }
    std::printf(
        "pccast: %s %u.%u.%u.%u serves casts on %s and messages on %s, sending by %s; Ctrl-C or SIGTERM "
        "ends it\n",
        plugin.pName(), plugin.pVersion() >> 24, plugin.pVersion() >> 16 & 0xFF,
        plugin.pVersion() >> 8 & 0xFF, plugin.pVersion() & 0xFF, kSockets[0], kSockets[1],
        options.sInterface.empty() ? "the interface that the routing table names"
                                   : options.sInterface.c_str());

    if (options.sInterface.empty()) {
        warnWithoutRoute();
    }

    int iSignal = 0;
    sigwait(&signals, &iSignal);
    std::printf("pccast: %s: closing the service\n", strsignal(iSignal));
    audit.hurry();
    view.hurry();
    const int iClosed = closePlugin(plugin, signals);
    sap.reset();
    audit.stop();
    view.stop();
    if (iClosed != 1) {
        return sayAndReturn(EXIT_INTERNAL, "the plug-in did not close cleanly");
    }
    std::printf("pccast: closed\n");
    return EXIT_DONE;
}

} // namespace

void addServeCommand(CLI::App &app, int &iExitCode) {
    auto *const pCommand =
        app.add_subcommand("serve", "run the service in this process until Ctrl-C or SIGTERM");
    auto options = std::make_shared<ServeOptions>();
    pCommand->add_option("--interface", options->sInterface, "send multicast by this interface")
        ->type_name("NAME|ADDRESS");
    pCommand->add_flag("--sap", options->bSap, "tell players of the transport streams on air (SAP and SDP)");
    addPluginOption(pCommand, options->sPlugin);
    pCommand->footer(helpExample("pccast serve --interface eth0"));
    pCommand->callback([options, &iExitCode] { iExitCode = serve(*options); });
}

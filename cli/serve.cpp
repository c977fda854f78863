// pccast serve - the host process. It loads and opens the plug-in, waits for a signal, and closes the
// plug-in.
#include "audit.h"
#include "clitext.h"
#include "command.h"
#include "commands.h"
#include "consolepump.h"
#include "endsignals.h"
#include "interface.h"
#include "localsocket.h"
#include "pluginloader.h"
#include "sap.h"
#include "servicemanager.h"
#include "statekeeper.h"
#include "viewserver.h"
#include "wire.h"

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
    std::string sState;
    std::string sKeep = "90d";
    bool bSap = false;
};

constexpr const char *kInterfaceVariable = "KTNET_MULTICAST_IF"; // the framework's senders read it
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
            return sayAndReturn(EXIT_UNAVAILABLE, foreignSocketText(pszSocket));
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

// "eth0 (192.0.2.7)"
std::string interfaceText(const Interface &interface) {
    if (interface.sName.empty()) {
        return interface.sAddress.empty() ? "no interface" : interface.sAddress;
    }
    return interface.sName + " (" + (interface.sAddress.empty() ? "no address" : interface.sAddress) + ")";
}

// What stands in the way of sending, if anything does. The service runs all the same, because the interface
// or the route may come later.
void warnWhereNothingIsSent(const std::string &sGiven, const Interface &interface, int iError) {
    std::string sProblem;
    if (iError != 0) {
        sProblem = std::string("nothing can be sent to ") + wire::kGroup + ": " + std::strerror(iError) +
                   "; name one of this machine's interfaces with --interface (it has " + listInterfaces() +
                   "), or add a route for 224.0.0.0/4";
    } else if (!interface.bUp) {
        sProblem = "nothing can be sent by " + interface.sName + " while it is down; as root: ip link set " +
                   interface.sName + " up";
    } else if (interface.sAddress.empty()) {
        sProblem = interface.sName + " has no IPv4 address; until it has one, nothing may arrive of what is "
                                     "sent by it";
    }
    if (!sProblem.empty()) {
        sayAndReturn(EXIT_DONE, (sGiven.empty() ? "" : sGiven + ": ") + sProblem);
    }
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

// Waits until the keeper has restored what it can. Returns the signal that ended the wait, 0 for none.
int waitUntilRestored(const StateKeeper &state, const sigset_t &signals) {
    const struct timespec interval { 0, 10'000'000 };
    for (int iLooks = 0; !state.isRestored(); ++iLooks) {
        if (iLooks % 1000 == 0) {
            ServiceManager::starting("restoring requests");
        }
        const int iSignal = sigtimedwait(&signals, nullptr, &interval);
        if (iSignal > 0) {
            return iSignal;
        }
    }
    return 0;
}

int serve(const ServeOptions &options) {
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    unsigned long ulKeep = 0;
    int iExit = checkArguments({{"--keep", readDuration(options.sKeep, &ulKeep)}});
    if (iExit != EXIT_DONE) {
        return iExit;
    }
    if (!options.sInterface.empty()) {
        setenv(kInterfaceVariable, options.sInterface.c_str(), 1);
    }
    const char *const pszInterface = std::getenv(kInterfaceVariable);
    const std::string sInterface = pszInterface == nullptr ? "" : pszInterface;
    const std::string sGiven = options.sInterface.empty() ? kInterfaceVariable : "--interface";
    iExit = checkInterface(sGiven.c_str(), sInterface);
    if (iExit != EXIT_DONE) {
        return iExit;
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
    const sigset_t signals = blockEndSignals();
    noteJournal();
    const ConsolePump pump;

    // The view answers before the first request can come, and until the last event has been told.
    std::unique_ptr<StateKeeper> pState;
    if (!options.sState.empty()) {
        pState = std::make_unique<StateKeeper>(plugin, options.sState, ulKeep);
        pState->open();
    }
    ViewServer view(plugin, pState.get());
    if (!view.start()) {
        return sayAndReturn(EXIT_UNAVAILABLE,
                            std::string("no view at ") + PCCAST_VIEW_SOCKET + "; its reason is above");
    }
    if (plugin.pOpen() != 1) {
        return sayAndReturn(EXIT_UNAVAILABLE, "the plug-in did not open; its reason is above");
    }
    Audit audit(plugin);
    const auto sap = options.bSap ? std::make_unique<Sap>(plugin, sInterface) : nullptr;
    const char *const pszMissing = waitUntilServed();
    if (pszMissing != nullptr) {
        closePlugin(plugin, signals);
        return sayAndReturn(EXIT_UNAVAILABLE, std::string("the service did not start to listen on ") +
                                                  pszMissing + "; its reason is above");
    }
    int iSignal = 0;
    if (pState != nullptr) {
        pState->start();
        iSignal = waitUntilRestored(*pState, signals);
    }
    Interface interface = findInterface(sInterface).value_or(Interface{});
    const int iError = sInterface.empty() ? findRoute(&interface) : 0;
    std::printf(
        "pccast: %s %u.%u.%u.%u serves casts on %s and messages on %s, sending by %s; Ctrl-C or SIGTERM "
        "ends it\n",
        plugin.pName(), plugin.pVersion() >> 24, plugin.pVersion() >> 16 & 0xFF,
        plugin.pVersion() >> 8 & 0xFF, plugin.pVersion() & 0xFF, kSockets[0], kSockets[1],
        interfaceText(interface).c_str());
    warnWhereNothingIsSent(sInterface.empty() ? "" : sGiven, interface, iError);

    ServiceManager manager(plugin);
    if (iSignal == 0) {
        manager.ready();
        sigwait(&signals, &iSignal);
    }
    manager.stopping();
    std::printf("pccast: %s: closing the service\n", strsignal(iSignal));
    audit.hurry();
    view.hurry();
    if (pState != nullptr) {
        pState->hurry();
    }
    const int iClosed = closePlugin(plugin, signals);
    if (sap) {
        sap->stop();
    }
    audit.stop();
    if (pState != nullptr) {
        pState->stop();
    }
    view.stop();
    if (iClosed != 1) {
        return sayAndReturn(EXIT_INTERNAL, "the plug-in did not close cleanly");
    }
    std::printf("pccast: closed\n");
    return EXIT_DONE;
}

} // namespace

void addServeCommand(CLI::App &app, int &iExitCode) {
    const Command command(app, "serve", "run the service in this process until Ctrl-C or SIGTERM");
    auto options = std::make_shared<ServeOptions>();
    command.option("--interface", options->sInterface, "send multicast by this interface")
        .type("NAME|ADDRESS");
    command.flag("--sap", options->bSap, "tell players of the transport streams on air (SAP and SDP)");
    addPluginOption(command, options->sPlugin);
    const Option state =
        command
            .option("--state", options->sState,
                    "keep requests and history in this folder, and restore the requests at the start")
            .type("FOLDER");
    command.option("--keep", options->sKeep, "how long the history is kept (default 90d)")
        .type("DURATION")
        .needs(state);
    command.footer(helpExample("pccast serve --interface eth0"));
    command.action([options, &iExitCode] { iExitCode = serve(*options); });
}

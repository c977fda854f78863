// pccast watch - joins the group of announcements and messages and shows what it hears.
//
// One thread waits for both sockets, the signals and the clock in one poll. A bad datagram is shown as bad;
// it never ends the program. A terminal gets a live table, any other output a line or a JSON object for each
// datagram.
#include "airsocket.h"
#include "airtext.h"
#include "clitext.h"
#include "commands.h"
#include "interface.h"
#include "watchtable.h"
#include "wire.h"

#include <CLI/CLI.hpp>
#include <arpa/inet.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/signalfd.h>
#include <unistd.h>
#include <vexa_pgl.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <memory>

namespace {

struct WatchOptions {
    bool bJSON = false;
    bool bPlain = false;
    std::string sFor;
    std::string sCount;
    std::string sInterface;
};

constexpr const char *kScreenOn = "\033[?1049h\033[?25l";
constexpr const char *kScreenOff = "\033[?25h\033[?1049l";

using Clock = std::chrono::steady_clock;

struct Watch {
    WatchOptions options;
    bool bTable = false;
    Clock::time_point end = Clock::time_point::max();
    unsigned long ulCount = 0; // datagrams to hear; 0: no limit
    WatchState state;
};

void drawTable(const Watch &watch) {
    struct winsize size {};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0 || size.ws_row == 0) {
        size.ws_col = 80;
        size.ws_row = 24;
    }
    std::string sScreen = "\033[H";
    const std::vector<std::string> lines =
        watchDraw(watch.state, vexa_time(nullptr), size.ws_col, static_cast<size_t>(size.ws_row) - 1, true);
    for (const std::string &sLine : lines) {
        sScreen += sLine + "\033[K\r\n";
    }
    sScreen += "\033[J";
    std::fwrite(sScreen.data(), 1, sScreen.size(), stdout);
    std::fflush(stdout);
}

// Takes one datagram off the socket and shows it. Returns 0, or the errno of a socket that fails.
int hear(Watch *pWatch, int iSocket) {
    std::array<unsigned char, 65536> aBytes;
    struct sockaddr_in sender {};
    socklen_t uiSize = sizeof sender;
    const ssize_t lLength = recvfrom(iSocket, aBytes.data(), aBytes.size(), MSG_DONTWAIT,
                                     reinterpret_cast<struct sockaddr *>(&sender), &uiSize);
    if (lLength < 0) {
        return errno == EAGAIN || errno == EINTR ? 0 : errno;
    }
    std::array<char, INET_ADDRSTRLEN> aSender{};
    inet_ntop(AF_INET, &sender.sin_addr, aSender.data(), aSender.size());
    const AirRecord record = decodeAir(aBytes.data(), static_cast<unsigned long>(lLength));
    watchNote(&pWatch->state, record, vexa_time(nullptr), aSender.data());
    if (!pWatch->bTable) {
        const auto pText = pWatch->options.bJSON ? airJSON : airLine;
        std::printf("%s\n", pText(record, vexa_time(nullptr), aSender.data()).c_str());
        std::fflush(stdout);
    }
    return 0;
}

bool isOver(const Watch &watch) {
    return Clock::now() >= watch.end || (watch.ulCount != 0 && watch.state.ulDatagrams >= watch.ulCount) ||
           std::ferror(stdout) != 0;
}

// Runs until the time is over, enough was heard, a signal comes or the output fails. Returns 0, or the errno
// of a poll or socket that failed.
int run(Watch *pWatch, const std::array<AirSocket, 2> &endpoints, int iSignals) {
    std::array<struct pollfd, 3> aPoll{
        {{endpoints[0]->iSocket, POLLIN, 0}, {endpoints[1]->iSocket, POLLIN, 0}, {iSignals, POLLIN, 0}}};
    while (!isOver(*pWatch)) {
        if (pWatch->bTable) {
            drawTable(*pWatch);
        }
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(pWatch->end - Clock::now()).count();
        const int iWait = static_cast<int>(std::clamp<long>(left, 0, 1000));
        if (poll(aPoll.data(), aPoll.size(), iWait) < 0) {
            if (errno == EINTR) {
                continue;
            }
            return errno;
        }
        if (aPoll[2].revents != 0) {
            return 0;
        }
        for (size_t i = 0; i < endpoints.size() && !isOver(*pWatch); ++i) {
            const int iError = aPoll[i].revents != 0 ? hear(pWatch, aPoll[i].fd) : 0;
            if (iError != 0) {
                return iError;
            }
        }
    }
    return 0;
}

int watchAir(const WatchOptions &options) {
    Watch watch;
    watch.options = options;
    unsigned long ulSeconds = 0;
    int iExit = checkArguments(
        {{"--for", options.sFor.empty() ? "" : readDuration(options.sFor, &ulSeconds)},
         {"--count", options.sCount.empty() ? "" : readNumber(options.sCount, kNumberMax, &watch.ulCount)}});
    if (!options.sFor.empty()) {
        watch.end = Clock::now() + std::chrono::seconds(ulSeconds);
    }
    if (iExit == EXIT_DONE) {
        iExit = checkInterface(options.sInterface);
    }
    if (iExit != EXIT_DONE) {
        return iExit;
    }
    watch.bTable = !options.bJSON && !options.bPlain && isatty(STDOUT_FILENO) == 1;

    const std::array<AirSocket, 2> endpoints{
        joinGroup(wire::kGroup, wire::announcement::kPort, options.sInterface),
        joinGroup(wire::kGroup, wire::broadcast::kPort, options.sInterface)};
    if (!endpoints[0] || !endpoints[1]) {
        return sayAndReturn(EXIT_UNAVAILABLE,
                            std::string(wire::kGroup) +
                                " cannot be joined (the reason is above); --interface names the "
                                "interface to listen on");
    }
    sigset_t signals;
    sigemptyset(&signals);
    for (int iSignal : {SIGINT, SIGTERM, SIGHUP}) {
        sigaddset(&signals, iSignal);
    }
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    const int iSignals = signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
    if (iSignals < 0) {
        return sayAndReturn(EXIT_INTERNAL, std::string("signalfd: ") + std::strerror(errno));
    }
    if (watch.bTable) {
        std::fputs(kScreenOn, stdout);
    }
    const int iError = run(&watch, endpoints, iSignals);
    if (watch.bTable) {
        std::fputs(kScreenOff, stdout);
        for (const std::string &sLine : watchDraw(watch.state, vexa_time(nullptr), 200, 24, false)) {
            std::printf("%s\n", sLine.c_str());
        }
    }
    close(iSignals);
    if (iError != 0) {
        return sayAndReturn(EXIT_INTERNAL, std::string("listening failed: ") + std::strerror(iError));
    }
    if (std::ferror(stdout) == 0 && watch.ulCount != 0 && watch.state.ulDatagrams < watch.ulCount) {
        return sayAndReturn(EXIT_UNAVAILABLE, "heard " + std::to_string(watch.state.ulDatagrams) + " of " +
                                                  std::to_string(watch.ulCount) + " datagrams");
    }
    return EXIT_DONE;
}

} // namespace

void addWatchCommand(CLI::App &app, int &iExitCode) {
    auto *const pCommand =
        app.add_subcommand("watch", "show what the services on the network announce and send");
    auto options = std::make_shared<WatchOptions>();
    auto *const pJSON = pCommand->add_flag("--json", options->bJSON, "one JSON object for each datagram");
    pCommand->add_flag("--plain", options->bPlain, "one line for each datagram, even on a terminal")
        ->excludes(pJSON);
    pCommand->add_option("--for", options->sFor, "end after this time")->type_name("DURATION");
    pCommand
        ->add_option("--count", options->sCount,
                     "end after so many datagrams; exit code 69 when --for or a signal came first")
        ->type_name("N");
    pCommand->add_option("--interface", options->sInterface, "listen on this interface")
        ->type_name("NAME|ADDRESS");
    pCommand->footer(helpExample("pccast watch --json --for 1m | jq 'select(.kind == \"message\").text'"));
    pCommand->callback([options, &iExitCode] { iExitCode = watchAir(*options); });
}

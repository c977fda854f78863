// pccast watch - joins the group of announcements and messages and shows what it hears.
//
// One thread waits for both sockets, the keyboard, the signals and the clock in one poll. A bad datagram is
// shown as bad; it never ends the program. A terminal gets a live table, any other output a line or a JSON
// object for each datagram. The sockets are emptied before the table is drawn again, so that a flood is
// heard.
#include "airtext.h"
#include "clitext.h"
#include "command.h"
#include "commands.h"
#include "consolepump.h"
#include "endsignals.h"
#include "interface.h"
#include "watchtable.h"
#include "wire.h"

#include <arpa/inet.h>
#include <poll.h>
#include <qxapi_ktn.h>
#include <sys/ioctl.h>
#include <sys/signalfd.h>
#include <termios.h>
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

constexpr std::chrono::milliseconds kDrawInterval{100};
constexpr std::chrono::milliseconds kClockInterval{1000}; // the times in the table move on
constexpr int kHearAtOnce = 256;                          // datagrams of a socket, before anything else

using Endpoint = std::unique_ptr<KTNET_ENDPOINT, void (*)(KTNET_ENDPOINT *)>;
using Clock = std::chrono::steady_clock;

struct Watch {
    WatchOptions options;
    bool bTable = false;
    Clock::time_point end = Clock::time_point::max();
    unsigned long ulCount = 0; // datagrams to hear; 0: no limit
    WatchState state;
};

// The terminal while the table is on it: the second screen, without a cursor, and keys that arrive at once.
class Screen {
public:
    Screen() = default;
    Screen(const Screen &) = delete;
    Screen &operator=(const Screen &) = delete;
    ~Screen() { leave(); }

    void enter() {
        std::fputs(kScreenOn, stdout);
        std::fflush(stdout);
        bEntered = true;
        // In the background a change of the settings would stop the program.
        bKeys = isatty(STDIN_FILENO) == 1 && tcgetpgrp(STDIN_FILENO) == getpgrp() &&
                tcgetattr(STDIN_FILENO, &before) == 0;
        if (bKeys) {
            struct termios settings = before;
            settings.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
            tcsetattr(STDIN_FILENO, TCSANOW, &settings);
        }
    }
    void leave() {
        if (bKeys) {
            tcsetattr(STDIN_FILENO, TCSANOW, &before);
        }
        if (bEntered) {
            std::fputs(kScreenOff, stdout);
            std::fflush(stdout);
        }
        bKeys = false;
        bEntered = false;
    }
    bool hasKeys() const { return bKeys; }
    // Takes the keys that were pressed. Returns whether one of them is q.
    bool isQuit() {
        std::array<char, 64> aKeys{};
        const ssize_t lKeys = read(STDIN_FILENO, aKeys.data(), aKeys.size());
        bKeys = bKeys && lKeys > 0; // a keyboard that hung up is not asked again
        return lKeys > 0 && std::string_view(aKeys.data(), static_cast<size_t>(lKeys)).find_first_of("qQ") !=
                                std::string_view::npos;
    }

private:
    bool bEntered = false;
    bool bKeys = false;
    struct termios before {};
};

// Joins the group on a port. Null: the reason is on standard error.
Endpoint join(unsigned int uiPort, const std::string &sInterface) {
    KTNET_ENDPOINT *pDesc = nullptr;
    ktn_xapi_ktnet_init_with_version(&pDesc, 0, 2);
    Endpoint endpoint(pDesc, [](KTNET_ENDPOINT *pEndpoint) { ktn_xapi_ktnet_delete(&pEndpoint); });
    if (pDesc == nullptr) {
        return endpoint;
    }
    pDesc->uiKind = KTNET_KIND_UDP;
    pDesc->uiListen = 1;
    pDesc->uiPort = uiPort;
    std::strncpy(pDesc->szPeer, wire::kGroup, sizeof pDesc->szPeer - 1);
    std::strncpy(pDesc->szLocal, sInterface.c_str(), sizeof pDesc->szLocal - 1);
    if (ktn_xapi_ktnet_create(pDesc) <= 0) {
        endpoint.reset();
    }
    return endpoint;
}

WatchWindow windowOf(const Screen &screen) {
    WatchWindow window;
    struct winsize size {};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col != 0 && size.ws_row != 0) {
        window.uColumns = size.ws_col;
        window.uRows = size.ws_row;
    }
    --window.uRows; // the last row stays empty: a newline in it would scroll
    window.bColour = isColourful(STDOUT_FILENO);
    window.pszEnds = screen.hasKeys() ? "q ends" : "Ctrl-C ends";
    return window;
}

void drawTable(const Watch &watch, const WatchWindow &window) {
    std::string sScreen = "\033[H";
    for (const std::string &sLine : watchDraw(watch.state, vexa_time(nullptr), window)) {
        sScreen += sLine + "\033[K\r\n";
    }
    sScreen += "\033[J";
    std::fwrite(sScreen.data(), 1, sScreen.size(), stdout);
    std::fflush(stdout);
}

bool isOver(const Watch &watch) {
    return Clock::now() >= watch.end || (watch.ulCount != 0 && watch.state.ulDatagrams >= watch.ulCount) ||
           std::ferror(stdout) != 0;
}

// Takes one datagram off the socket and shows it. Returns 0, or an errno: EAGAIN when there is none.
int hear(Watch *pWatch, int iSocket) {
    std::array<unsigned char, 65536> aBytes;
    struct sockaddr_in sender {};
    socklen_t uiSize = sizeof sender;
    const ssize_t lLength = recvfrom(iSocket, aBytes.data(), aBytes.size(), MSG_DONTWAIT,
                                     reinterpret_cast<struct sockaddr *>(&sender), &uiSize);
    if (lLength < 0) {
        return errno;
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

// Hears what the socket has, up to a limit. Returns 0, or the errno of a socket that fails.
int hearAll(Watch *pWatch, int iSocket) {
    int iError = 0;
    for (int i = 0; i < kHearAtOnce && iError == 0 && !isOver(*pWatch); ++i) {
        iError = hear(pWatch, iSocket);
    }
    return iError == EAGAIN || iError == EINTR ? 0 : iError;
}

// Takes a signal. Returns whether it ends the program.
bool takeSignal(int iSignals, const Watch &watch, Screen *pScreen) {
    struct signalfd_siginfo info {};
    if (read(iSignals, &info, sizeof info) != sizeof info) {
        return false;
    }
    if (info.ssi_signo == SIGTSTP) { // Ctrl-Z: the shell gets its screen, and we ours when we go on
        pScreen->leave();
        kill(getpid(), SIGSTOP);
    } else if (info.ssi_signo != SIGWINCH) {
        return true;
    }
    if (watch.bTable && info.ssi_signo == SIGTSTP) {
        pScreen->enter();
    }
    return false;
}

// Runs until the time is over, enough was heard, a signal or the key q comes or the output fails. Returns 0,
// or the errno of a poll or socket that failed.
int run(Watch *pWatch, const std::array<Endpoint, 2> &endpoints, int iSignals, Screen *pScreen) {
    Clock::time_point drawn{};
    bool bNews = true; // something has come since
    while (!isOver(*pWatch)) {
        const auto nextDraw = [&] { return drawn + (bNews ? kDrawInterval : kClockInterval); };
        if (pWatch->bTable && Clock::now() >= nextDraw()) {
            drawTable(*pWatch, windowOf(*pScreen));
            drawn = Clock::now();
            bNews = false;
        }
        const auto wake = pWatch->bTable ? std::min(pWatch->end, nextDraw()) : pWatch->end;
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(wake - Clock::now()).count();
        std::array<struct pollfd, 4> aPoll{{{endpoints[0]->iSocket, POLLIN, 0},
                                            {endpoints[1]->iSocket, POLLIN, 0},
                                            {iSignals, POLLIN, 0},
                                            {pScreen->hasKeys() ? STDIN_FILENO : -1, POLLIN, 0}}};
        if (poll(aPoll.data(), aPoll.size(), static_cast<int>(std::clamp<long>(left, 0, 1000))) < 0 &&
            errno != EINTR) {
            return errno;
        }
        if ((aPoll[2].revents != 0 && takeSignal(iSignals, *pWatch, pScreen)) ||
            (aPoll[3].revents != 0 && pScreen->isQuit())) {
            return 0;
        }
        for (size_t i = 0; i < aPoll.size(); ++i) {
            bNews = bNews || aPoll[i].revents != 0;
            const int iError =
                i < endpoints.size() && aPoll[i].revents != 0 ? hearAll(pWatch, aPoll[i].fd) : 0;
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
        iExit = checkInterface("--interface", options.sInterface);
    }
    if (iExit != EXIT_DONE) {
        return iExit;
    }
    watch.bTable = !options.bJSON && !options.bPlain && isScreen(STDOUT_FILENO);

    const std::array<Endpoint, 2> endpoints{join(wire::announcement::kPort, options.sInterface),
                                            join(wire::broadcast::kPort, options.sInterface)};
    if (!endpoints[0] || !endpoints[1]) {
        return sayAndReturn(
            EXIT_UNAVAILABLE,
            std::string(wire::kGroup) + " cannot be joined" +
                (options.sInterface.empty() ? "" : " on " + options.sInterface) + " (the reason is above)" +
                (options.sInterface.empty()
                     ? "; --interface names the interface to listen on: this machine has " + listInterfaces()
                     : ""));
    }
    const int iSignals = openEndSignals({SIGTSTP, SIGWINCH});
    if (iSignals < 0) {
        return EXIT_INTERNAL;
    }
    Screen screen;
    if (watch.bTable) {
        screen.enter();
    }
    const int iError = run(&watch, endpoints, iSignals, &screen);
    screen.leave();
    if (watch.bTable) {
        WatchWindow window = windowOf(screen);
        window.bColour = false;
        window.pszEnds = nullptr;
        for (const std::string &sLine : watchDraw(watch.state, vexa_time(nullptr), window)) {
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
    if (watch.state.ulDatagrams == 0 && Clock::now() >= watch.end) {
        sayAndReturn(EXIT_DONE,
                     "heard nothing in " + options.sFor +
                         "; a cast on air is announced every 11 s, by the interface of its service");
    }
    return EXIT_DONE;
}

} // namespace

void addWatchCommand(CLI::App &app, int &iExitCode) {
    const Command command(app, "watch", "show what the services on the network announce and send");
    auto options = std::make_shared<WatchOptions>();
    const Option json = command.flag("--json", options->bJSON, "one JSON object for each datagram");
    command.flag("--plain", options->bPlain, "one line for each datagram, even on a terminal").excludes(json);
    command.option("--for", options->sFor, "end after this time").type("DURATION");
    command
        .option("--count", options->sCount,
                "end after so many datagrams; exit code 69 when --for or a signal came first")
        .type("N");
    command.option("--interface", options->sInterface, "listen on this interface").type("NAME|ADDRESS");
    command.footer(helpExample("pccast watch --json --for 1m | jq 'select(.kind == \"message\").text'"));
    command.action([options, &iExitCode] { iExitCode = watchAir(*options); });
}

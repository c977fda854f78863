// pccast tune - a receiver: it shows the cast that is on air, and messages over it.
//
// One thread waits in one poll for the two ports of the group, the packets of an ASF cast, the player and the
// signals. tunelogic decides what is shown, player shows it. What ends or fails on the way is begun again:
// the player, the cast, and the membership of the group.
#include "airsocket.h"
#include "clitext.h"
#include "command.h"
#include "commands.h"
#include "endsignals.h"
#include "interface.h"
#include "player.h"
#include "safetext.h"
#include "tunelogic.h"
#include "wire.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>

namespace {

struct TuneOptions {
    std::string sInterface;
    std::string sPlayer = "mpv";
    bool bFullScreen = false;
};

constexpr int kTick = 50;                   // ms between two looks at the clock
constexpr unsigned long kRejoin = 12'000;   // ms without a datagram: more than between two announcements
constexpr unsigned long kRetryJoin = 2'000; // ms
constexpr unsigned long kAsk = 500;         // ms between two questions to the player
constexpr unsigned long kStill = 4'000;     // ms that a picture may stand still
constexpr unsigned long kFirst = 15'000;    // ms for the first picture: the stream may have few to begin with
constexpr unsigned long kAnswer = 10'000;   // ms for the player to answer, and for it to listen at first
constexpr unsigned long kLived = 10'000;    // ms after which a player runs, even without a picture
constexpr unsigned long kRestartFirst = 200;   // ms, doubled by each player that did not run
constexpr unsigned long kRestartMost = 10'000; // ms
constexpr int kOverlay = 1;                    // the player's number for the message
constexpr int kPosition = 7;                   // marks the answer to a question for the position

struct Tune {
    TuneOptions options;
    TuneState state;
    std::array<AirSocket, 2> air{AirSocket{nullptr, nullptr}, AirSocket{nullptr, nullptr}};
    unsigned long ulJoin = 0; // when the group is joined again, if nothing comes

    Player player;
    unsigned long ulStarted = 0;
    unsigned long ulRestart = 0; // when the next player is started
    unsigned long ulPause = kRestartFirst;
    unsigned long ulAsked = 0;
    unsigned long ulAnswered = 0;
    bool bConnected = false;

    AirSocket media{nullptr, nullptr}; // of an ASF cast
    MSBJoin join;
    double dPosition = -1;
    unsigned long ulMoved = 0;   // when the picture last moved, or the cast was last begun
    bool bMoving = false;        // it has been seen to move
    unsigned long ulReplay = 0;  // when the cast is to be begun again; 0: not asked for
    unsigned long ulReplays = 0; // of this cast, so far
};

unsigned long now() {
    return static_cast<unsigned long>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                          std::chrono::steady_clock::now().time_since_epoch())
                                          .count());
}

void say(const std::string &sText) {
    std::printf("pccast: %s\n", sText.c_str());
}

std::string castText(const TuneCast &cast) {
    return "programme " + std::to_string(cast.uiEPGID) + ", " + (cast.bASF ? "ASF" : "H.264") + " at " +
           cast.sGroup + ":" + std::to_string(cast.usPort);
}

// Shows the cast from where it is now. Its address has been written by groupOf, the interface is this
// machine's own.
void begin(Tune *pTune, const TuneCast &cast) {
    pTune->ulMoved = now();
    pTune->ulReplay = 0;
    pTune->dPosition = -1;
    pTune->bMoving = false;
    pTune->media.reset();
    if (!cast.bASF) {
        const std::string sLocal = interfaceAddress(pTune->options.sInterface);
        playerPlayURL(&pTune->player, "udp://" + cast.sGroup + ":" + std::to_string(cast.usPort) +
                                          "?overrun_nonfatal=1" +
                                          (sLocal.empty() ? "" : "&localaddr=" + sLocal));
        return;
    }
    const MSBCounts counts = pTune->join.counts; // of the whole cast
    pTune->join = MSBJoin{};
    pTune->join.counts = counts;
    pTune->join.formats = cast.formats;
    pTune->media = joinGroup(cast.sGroup, cast.usPort, pTune->options.sInterface);
}

void endMedia(Tune *pTune) {
    if (pTune->media) {
        say("ASF: " + msbText(pTune->join.counts));
        pTune->join = MSBJoin{};
        pTune->media.reset();
    }
}

void show(Tune *pTune, const BannerPage *pPage) {
    playerSend(&pTune->player, Json{{"command",
                                     {{"name", "osd-overlay"},
                                      {"id", kOverlay},
                                      {"format", pPage == nullptr ? "none" : "ass-events"},
                                      {"data", pPage == nullptr ? "" : bannerDraw(*pPage)},
                                      {"res_x", kBannerWidth},
                                      {"res_y", kBannerHeight},
                                      {"z", 10}}}});
}

// Without a connection nothing is done: what is current is shown when the player is there.
void carryOut(Tune *pTune, const std::vector<TuneCommand> &commands, bool bSay) {
    for (const TuneCommand &command : commands) {
        switch (command.eKind) {
        case TUNE_PLAY:
            endMedia(pTune);
            pTune->ulReplays = 0;
            if (bSay) {
                say("on air: " + castText(command.cast));
            }
            begin(pTune, command.cast);
            break;
        case TUNE_STOP:
            endMedia(pTune);
            pTune->ulReplay = 0;
            say("nothing on air");
            playerStop(&pTune->player);
            break;
        case TUNE_SHOW:
            if (bSay) {
                std::string sLines;
                for (const std::string &sLine : command.page.lines) {
                    sLines += (sLines.empty() ? "" : " ") + sLine;
                }
                say("message: " + textForTerminal(sLines));
            }
            show(pTune, &command.page);
            break;
        case TUNE_HIDE:
            show(pTune, nullptr);
            break;
        }
    }
}

void writePieces(Tune *pTune, const std::vector<MSBPiece> &pieces) {
    for (const MSBPiece &piece : pieces) {
        if (piece.bBegins) {
            pTune->ulMoved = now();
            playerPlayPipe(&pTune->player);
        }
        playerWrite(&pTune->player, piece.sBytes); // a player that hangs misses it, and is replaced
    }
}

// Joins the group, and joins it again when it is silent.
void keepJoined(Tune *pTune) {
    constexpr std::array<unsigned short, 2> kPorts{wire::announcement::kPort, wire::broadcast::kPort};
    if (now() >= pTune->ulJoin) {
        const bool bJoined = rejoinGroup(wire::kGroup, kPorts, pTune->options.sInterface, pTune->air);
        pTune->ulJoin = now() + (bJoined ? kRejoin : kRetryJoin);
    }
}

void startPlayer(Tune *pTune) {
    const std::string sProblem = playerStart(&pTune->player);
    pTune->ulStarted = now();
    pTune->ulAnswered = now();
    pTune->bConnected = false;
    pTune->bMoving = false;
    if (!sProblem.empty()) {
        say(sProblem);
        pTune->ulRestart = now() + kRestartMost;
    }
}

void reapPlayer(Tune *pTune) {
    const std::string sEnd = playerReap(&pTune->player);
    pTune->ulPause = pTune->bMoving || now() - pTune->ulStarted >= kLived
                         ? kRestartFirst
                         : std::min(pTune->ulPause * 2, kRestartMost);
    pTune->ulRestart = now() + pTune->ulPause;
    say("the player has ended (" + sEnd + "); it is started again");
}

void hearPlayer(Tune *pTune) {
    for (const Json &message : playerReceive(&pTune->player)) {
        pTune->ulAnswered = now();
        const std::string sEvent = playerEvent(message);
        const auto reason = message.find("reason");
        if (sEvent == "end-file" && reason != message.end() && (*reason == "eof" || *reason == "error")) {
            pTune->ulReplay = now() + kAsk;
        } else if (sEvent == "playback-restart" && !pTune->bMoving) {
            pTune->bMoving = true;
            pTune->ulMoved = now();
            say("the picture is there");
        } else if (message.contains("request_id") && message["request_id"] == kPosition &&
                   message.contains("data") && message["data"].is_number() &&
                   message["data"].get<double>() != pTune->dPosition) {
            pTune->dPosition = message["data"].get<double>();
            pTune->ulMoved = now();
        }
    }
}

// Looks after the player: starts it, connects, asks it, and replaces it when it does not answer. Begins the
// cast again when its picture stands still.
void keepPlaying(Tune *pTune) {
    Player *const pPlayer = &pTune->player;
    if (pPlayer->iProcess == 0) {
        if (now() >= pTune->ulRestart) {
            startPlayer(pTune);
        }
        return;
    }
    if (now() - pTune->ulAnswered > kAnswer) {
        reapPlayer(pTune);
        return;
    }
    // A connection may fail while the player lives: what it was told last is not known then.
    pTune->bConnected = pTune->bConnected && pPlayer->socket.i >= 0;
    if (!playerConnect(pPlayer)) {
        return;
    }
    if (!pTune->bConnected) {
        pTune->bConnected = true;
        carryOut(pTune, tuneResume(pTune->state), false);
    }
    if (now() - pTune->ulAsked >= kAsk) {
        pTune->ulAsked = now();
        playerSend(pPlayer, Json{{"command", {"get_property", "time-pos"}}, {"request_id", kPosition}});
    }
    if (!pTune->state.cast) {
        return;
    }
    const bool bStill = now() - pTune->ulMoved > (pTune->bMoving ? kStill : kFirst);
    if (bStill || (pTune->ulReplay != 0 && now() >= pTune->ulReplay)) {
        if (pTune->ulReplays++ == 0 || pTune->bMoving) {
            say("no picture; the cast is begun again until it comes");
        }
        begin(pTune, *pTune->state.cast);
    }
}

// Runs until a signal comes. Returns 0, or the errno of a poll that failed.
int run(Tune *pTune, int iSignals) {
    for (;;) {
        keepJoined(pTune);
        keepPlaying(pTune);
        const Player &player = pTune->player;
        const auto descriptor = [](const AirSocket &socket) { return socket ? socket->iSocket : -1; };
        std::array<struct pollfd, 7> aPoll{{{iSignals, POLLIN, 0},
                                            {descriptor(pTune->air[0]), POLLIN, 0},
                                            {descriptor(pTune->air[1]), POLLIN, 0},
                                            {descriptor(pTune->media), POLLIN, 0},
                                            {player.process.i, POLLIN, 0},
                                            {player.socket.i, POLLIN, 0},
                                            {player.sUnpiped.empty() ? -1 : player.pipe.i, POLLOUT, 0}}};
        if (poll(aPoll.data(), aPoll.size(), kTick) < 0 && errno != EINTR) {
            return errno;
        }
        if (aPoll[0].revents != 0) {
            return 0;
        }
        for (size_t i = 0; i < pTune->air.size(); ++i) {
            if (aPoll[i + 1].revents != 0) {
                pTune->ulJoin = now() + kRejoin;
                drainSocket(aPoll[i + 1].fd, [pTune](const unsigned char *pBytes, size_t uLength) {
                    carryOut(pTune, tuneHear(&pTune->state, decodeAir(pBytes, uLength), now()), true);
                });
            }
        }
        carryOut(pTune, tuneTick(&pTune->state, now()), true);
        if (pTune->media) {
            std::vector<MSBPiece> pieces;
            drainSocket(pTune->media->iSocket, [pTune, &pieces](const unsigned char *pBytes, size_t uLength) {
                msbTake(&pTune->join, pBytes, uLength, now(), &pieces);
            });
            msbTick(&pTune->join, now(), &pieces);
            writePieces(pTune, pieces);
        }
        if (aPoll[6].revents != 0 && player.pipe.i >= 0) {
            playerFlush(&pTune->player);
        }
        if (aPoll[5].revents != 0 && player.socket.i >= 0) {
            hearPlayer(pTune);
        }
        if (aPoll[4].revents != 0) {
            reapPlayer(pTune);
        }
    }
}

int tune(const TuneOptions &options) {
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    const int iExit = checkInterface("--interface", options.sInterface);
    if (iExit != EXIT_DONE) {
        return iExit;
    }
    const Descriptor pending(openEndSignals());
    if (pending.i < 0) {
        return EXIT_INTERNAL;
    }
    Tune tune;
    tune.options = options;
    tune.player.sProgram = options.sPlayer;
    tune.player.bFullScreen = options.bFullScreen;
    std::string sProblem = playerOpen(&tune.player);
    if (sProblem.empty()) {
        sProblem = playerStart(&tune.player);
    }
    if (!sProblem.empty()) {
        playerClose(&tune.player);
        return sayAndReturn(EXIT_UNAVAILABLE, sProblem + "; Debian's package is mpv, --player names another");
    }
    tune.ulStarted = now();
    tune.ulAnswered = now();
    say("listening to " + std::string(wire::kGroup) + "; Ctrl-C or SIGTERM ends it");
    const int iError = run(&tune, pending.i);
    endMedia(&tune);
    playerClose(&tune.player);
    return iError == 0
               ? EXIT_DONE
               : sayAndReturn(EXIT_INTERNAL, std::string("listening failed: ") + std::strerror(iError));
}

} // namespace

void addTuneCommand(CLI::App &app, int &iExitCode) {
    const Command command(app, "tune", "show the cast that is on air, and messages over it");
    auto options = std::make_shared<TuneOptions>();
    command.option("--interface", options->sInterface, "listen on this interface").type("NAME|ADDRESS");
    command.flag("--fullscreen", options->bFullScreen, "fill the screen, and take no keys");
    command.option("--player", options->sPlayer, "the mpv to run: a name or a path").type("PROGRAM");
    command.footer(helpExample("pccast tune --interface eth0 --fullscreen"));
    command.action([options, &iExitCode] { iExitCode = tune(*options); });
}

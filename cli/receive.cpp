// pccast receive - writes down what is cast: what a group gets, or what the announcements say is on air.
//
// One thread. A transport stream is written as it comes. An ASF cast becomes a file that players take: the
// header that its station file has, then the data packets in order.
#include "airsocket.h"
#include "clitext.h"
#include "command.h"
#include "commands.h"
#include "endsignals.h"
#include "interface.h"
#include "tunelogic.h"
#include "wire.h"

#include "nsc.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>

namespace {

struct ReceiveOptions {
    std::vector<std::string> arguments; // [ADDRESS:PORT] FILE
    bool bOnAir = false;
    std::string sStation;
    std::string sInterface;
    std::string sDatagrams;
    std::string sIdle = "2s";
    std::string sWait = "30s";
    std::string sFor;
};

constexpr int kTick = 50;                 // ms between two looks at the clock
constexpr unsigned long kRejoin = 12'000; // ms without an announcement
constexpr unsigned int kFilesMost = 9999;

using File = std::unique_ptr<FILE, int (*)(FILE *)>;

unsigned long now() {
    return static_cast<unsigned long>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                          std::chrono::steady_clock::now().time_since_epoch())
                                          .count());
}

struct Receive {
    std::string sFile;
    std::string sInterface;
    unsigned long ulDatagramsMost = ULONG_MAX;
    unsigned long ulIdle = 0; // ms
    unsigned long ulWait = 0; // ms
    unsigned long ulEnd = ULONG_MAX;

    bool bOnAir = false;
    AirSocket air{nullptr, nullptr};
    TuneState state;
    unsigned long ulAnnounced = now(); // when a datagram last came, or the group was last joined

    AirSocket media{nullptr, nullptr};
    bool bASF = false;
    MSBJoin join;
    unsigned long ulHeard = now(); // when the last datagram came, or when the waiting began

    File file{nullptr, nullptr};
    unsigned int uiFiles = 0;
    std::string sOpen; // path of the file
    std::string sError;
    unsigned long ulDatagrams = 0;
    unsigned long ulBytes = 0; // of this file
};

void failFile(Receive *pReceive) {
    pReceive->sError = pReceive->sOpen + ": " + std::strerror(errno);
}

void closeFile(Receive *pReceive) {
    if (!pReceive->file) {
        return;
    }
    if (std::fclose(pReceive->file.release()) != 0) {
        failFile(pReceive);
    }
    sayAndReturn(EXIT_DONE, pReceive->sOpen + ": " + std::to_string(pReceive->ulBytes) + " bytes" +
                                (pReceive->bASF ? ", " + msbText(pReceive->join.counts) : ""));
    pReceive->ulBytes = 0;
}

// The first file has the name that was given, and replaces an older one. Those after it have a number, and
// replace none: FILE-2.ts.
void openFile(Receive *pReceive) {
    const std::filesystem::path given(pReceive->sFile);
    int iFile = -1;
    if (pReceive->sFile == "-") {
        pReceive->sOpen = "standard output";
        iFile = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0);
    } else {
        do {
            const bool bFirst = pReceive->uiFiles++ == 0;
            pReceive->sOpen = bFirst ? pReceive->sFile
                                     : (given.parent_path() / given.stem()).string() + "-" +
                                           std::to_string(pReceive->uiFiles) + given.extension().string();
            iFile = open(pReceive->sOpen.c_str(),
                         O_WRONLY | O_CREAT | O_CLOEXEC | (bFirst ? O_TRUNC : O_EXCL), 0666);
        } while (iFile < 0 && errno == EEXIST && pReceive->uiFiles < kFilesMost);
    }
    pReceive->file = File(iFile < 0 ? nullptr : fdopen(iFile, "wb"), std::fclose);
    if (pReceive->file) {
        std::setvbuf(pReceive->file.get(), nullptr, _IONBF, 0); // who reads along gets each datagram at once
    } else {
        failFile(pReceive);
    }
}

void writeBytes(Receive *pReceive, const void *pBytes, size_t uLength) {
    if (!pReceive->file && pReceive->sError.empty()) {
        openFile(pReceive);
    }
    if (!pReceive->sError.empty()) {
        return;
    }
    const size_t uWritten = std::fwrite(pBytes, 1, uLength, pReceive->file.get());
    pReceive->ulBytes += uWritten;
    if (uWritten != uLength) {
        failFile(pReceive);
    }
}

void writePieces(Receive *pReceive, const std::vector<MSBPiece> &pieces) {
    for (const MSBPiece &piece : pieces) {
        if (piece.bBegins) {
            closeFile(pReceive);
        }
        writeBytes(pReceive, piece.sBytes.data(), piece.sBytes.size());
    }
}

void hearMedia(Receive *pReceive) {
    std::vector<MSBPiece> pieces;
    drainSocket(pReceive->media->iSocket, [pReceive, &pieces](const unsigned char *pBytes, size_t uLength) {
        if (pReceive->ulDatagrams >= pReceive->ulDatagramsMost) {
            return;
        }
        pReceive->ulDatagrams++;
        pReceive->ulHeard = now();
        if (pReceive->bASF) {
            msbTake(&pReceive->join, pBytes, uLength, now(), &pieces);
        } else {
            writeBytes(pReceive, pBytes, uLength);
        }
    });
    msbTick(&pReceive->join, now(), &pieces);
    writePieces(pReceive, pieces);
}

void follow(Receive *pReceive, const std::vector<TuneCommand> &commands) {
    for (const TuneCommand &command : commands) {
        if (command.eKind != TUNE_PLAY && command.eKind != TUNE_STOP) {
            continue;
        }
        closeFile(pReceive);
        pReceive->media.reset();
        if (command.eKind == TUNE_PLAY) {
            pReceive->bASF = command.cast.bASF;
            pReceive->join = MSBJoin{};
            pReceive->join.formats = command.cast.formats;
            pReceive->media = joinGroup(command.cast.sGroup, command.cast.usPort, pReceive->sInterface);
            sayAndReturn(EXIT_DONE, "on air: programme " + std::to_string(command.cast.uiEPGID) + " at " +
                                        command.cast.sGroup + ":" + std::to_string(command.cast.usPort));
        }
    }
}

bool isOver(const Receive &receive) {
    const unsigned long ulPatience = receive.ulDatagrams == 0 ? receive.ulWait : receive.ulIdle;
    return !receive.sError.empty() || now() >= receive.ulEnd ||
           receive.ulDatagrams >= receive.ulDatagramsMost ||
           (!receive.bOnAir && now() - receive.ulHeard >= ulPatience);
}

// Runs until it is over or a signal comes.
void run(Receive *pReceive, int iSignals) {
    while (!isOver(*pReceive)) {
        const auto descriptor = [](const AirSocket &socket) { return socket ? socket->iSocket : -1; };
        std::array<struct pollfd, 3> aPoll{{{iSignals, POLLIN, 0},
                                            {descriptor(pReceive->air), POLLIN, 0},
                                            {descriptor(pReceive->media), POLLIN, 0}}};
        if (poll(aPoll.data(), aPoll.size(), kTick) < 0 && errno != EINTR) {
            pReceive->sError = std::string("poll: ") + std::strerror(errno);
        }
        if (aPoll[0].revents != 0) {
            break;
        }
        if (pReceive->media) {
            hearMedia(pReceive);
        }
        if (aPoll[1].revents != 0) {
            pReceive->ulAnnounced = now();
            drainSocket(aPoll[1].fd, [pReceive](const unsigned char *pBytes, size_t uLength) {
                follow(pReceive, tuneHear(&pReceive->state, decodeAir(pBytes, uLength), now()));
            });
        }
        follow(pReceive, tuneTick(&pReceive->state, now()));
        if (pReceive->bOnAir && now() - pReceive->ulAnnounced >= kRejoin) {
            pReceive->ulAnnounced = now();
            rejoinGroup(wire::kGroup, std::span(&wire::announcement::kPort, 1), pReceive->sInterface,
                        std::span(&pReceive->air, 1));
        }
    }
    closeFile(pReceive);
}

// Reads the station file that says how to make a file of the packets.
int readStation(const std::string &sPath, Receive *pReceive) {
    std::string sReason;
    std::string sAddress;
    unsigned short usPort = 0;
    NscStation station;
    if (!nscRead(sPath.c_str(), station, sReason)) {
        return sayAndReturn(EXIT_NO_INPUT, sPath + ": " + sReason);
    }
    sReason = msbReadStation(nscWrite(station), &pReceive->join.formats, &sAddress, &usPort);
    if (!sReason.empty()) {
        return sayAndReturn(EXIT_BAD_DATA, sPath + ": " + sReason);
    }
    pReceive->bASF = true;
    return EXIT_DONE;
}

int receive(const ReceiveOptions &options) {
    Receive receive;
    receive.bOnAir = options.bOnAir;
    receive.sInterface = options.sInterface;
    receive.sFile = options.arguments.back();
    if (options.arguments.size() != (options.bOnAir ? 1 : 2)) {
        return sayAndReturn(EXIT_USAGE, "receive wants ADDRESS:PORT FILE, or --on-air FILE");
    }
    std::string sAddress = wire::kGroup;
    unsigned short usPort = wire::announcement::kPort;
    unsigned long ulFor = 0;
    int iExit = checkArguments(
        {{"ADDRESS:PORT", options.bOnAir ? "" : readEndpoint(options.arguments.front(), &sAddress, &usPort)},
         {"--datagrams", options.sDatagrams.empty()
                             ? ""
                             : readNumber(options.sDatagrams, kNumberMax, &receive.ulDatagramsMost, 1)},
         {"--idle", readDuration(options.sIdle, &receive.ulIdle)},
         {"--wait", readDuration(options.sWait, &receive.ulWait)},
         {"--for", options.sFor.empty() ? "" : readDuration(options.sFor, &ulFor)}});
    if (iExit == EXIT_DONE) {
        iExit = checkInterface("--interface", options.sInterface);
    }
    if (iExit == EXIT_DONE && !options.sStation.empty()) {
        iExit = readStation(options.sStation, &receive);
    }
    if (iExit != EXIT_DONE) {
        return iExit;
    }
    receive.ulIdle *= 1000;
    receive.ulWait *= 1000;
    (options.bOnAir ? receive.air : receive.media) = joinGroup(sAddress, usPort, options.sInterface);
    if (!receive.air && !receive.media) {
        return sayAndReturn(EXIT_UNAVAILABLE, sAddress + " cannot be joined; the reason is above");
    }
    if (!options.sFor.empty()) {
        receive.ulEnd = now() + ulFor * 1000;
    }

    const int iSignals = openEndSignals();
    if (iSignals < 0) {
        return EXIT_INTERNAL;
    }
    run(&receive, iSignals);
    close(iSignals);
    if (!receive.sError.empty()) {
        return sayAndReturn(EXIT_INTERNAL, receive.sError);
    }
    const bool bEnough =
        options.sDatagrams.empty() ? receive.ulDatagrams > 0 : receive.ulDatagrams >= receive.ulDatagramsMost;
    return sayAndReturn(bEnough ? EXIT_DONE : EXIT_UNAVAILABLE,
                        std::to_string(receive.ulDatagrams) + " datagrams received" +
                            (options.bOnAir ? "" : " on " + options.arguments.front()));
}

} // namespace

void addReceiveCommand(CLI::App &app, int &iExitCode) {
    const Command command(app, "receive", "write what a group gets, or what is on air, to a file");
    auto options = std::make_shared<ReceiveOptions>();
    command
        .option("FILE", options->arguments,
                "the group or address to receive, and the file to write; with --on-air the file alone; "
                "- is standard output")
        .type("[ADDRESS:PORT] FILE")
        .required()
        .expects(1, 2);
    const Option onAir =
        command.flag("--on-air", options->bOnAir, "follow the announcements: each cast has its own file");
    command
        .option("--station", options->sStation,
                "the station file of an ASF cast: write a file that players take")
        .type("FILE")
        .excludes(onAir);
    command.option("--datagrams", options->sDatagrams, "end after so many datagrams").type("N");
    command
        .option("--idle", options->sIdle, "end when none has come for so long after the first (default 2s)")
        .type("DURATION")
        .excludes(onAir);
    command.option("--wait", options->sWait, "end when none comes at all for so long (default 30s)")
        .type("DURATION")
        .excludes(onAir);
    command.option("--for", options->sFor, "end after this time").type("DURATION");
    command.option("--interface", options->sInterface, "listen on this interface").type("NAME|ADDRESS");
    command.footer(helpExample("pccast receive 239.1.2.3:5000 received.ts --for 1m"));
    command.action([options, &iExitCode] { iExitCode = receive(*options); });
}

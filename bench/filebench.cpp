// Measures how exactly stored files are played, and what a datagram costs. The drivers play transport streams
// and ASF files of constant rate. A bare loop of clock_nanosleep and send plays the same datagrams at the
// same instants; other players play the same files where they are installed. All take turns, so the ratios
// hold even when the machine's speed changes.
//
// The kernel stamps each datagram as it arrives on loopback, which is while the sender sends it. A datagram's
// lateness is the time between its own instant and that stamp. The first hundredth of a turn's datagrams
// tells when its playout began.
#include "bench.h"

#include "filecast.h"

#include <poll.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fstream>
#include <iterator>
#include <thread>

namespace bench {

namespace {

constexpr const char *kGroup = "239.3.3.3";
constexpr const char *kTarget = "239.3.3.3:5004";
constexpr unsigned short kPort = 5004;
constexpr int kTurns = 5;
constexpr size_t kRun = size_t{188} * 7;
constexpr size_t kMsbHeader = 8;
constexpr size_t kAsfHeader = 30 + 104 + 50;
constexpr double kMiddleBoundUs = 10;
constexpr double kTailBoundUs = 150;
constexpr double kCostBound = 1.3; // of the bare loop's processor time

// A file, and the datagrams that it is played as.
struct Media {
    std::string name;
    bool bASF;
    double dBitRate;
    std::string path;
    std::string bytes;   // what the datagrams hold, one behind the other
    size_t ulDatagram;   // bytes in one datagram; an ASF datagram also has the MSB header
    double dNanoseconds; // between two datagrams
};

struct Turn {
    std::vector<double> latenessUs;
    double dCostUs; // processor time per datagram
};

struct Player {
    std::string name;
    std::vector<Turn> turns;
};

// ---- files

pid_t startProgram(const std::vector<std::string> &command) {
    return inProcess([&] { become(command); });
}

// Waits for the program's end. Returns the processor time that it took, in seconds; -1 if it failed.
double endOf(pid_t iChild) {
    int iStatus = 0;
    rusage usage{};
    require(wait4(iChild, &iStatus, 0, &usage) == iChild, "wait4");
    const auto seconds = [](const timeval &time) {
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
    };
    return iStatus == 0 ? seconds(usage.ru_utime) + seconds(usage.ru_stime) : -1;
}

void putLittle(std::string &bytes, size_t ulAt, unsigned long long ullValue, size_t ulLength) {
    for (size_t i = 0; i < ulLength; ++i) {
        bytes[ulAt + i] = static_cast<char>(ullValue >> 8 * i);
    }
}

// An ASF file with one data packet a millisecond: send times are whole milliseconds.
Media makeASF(double dBitRate, double dSeconds) {
    const auto ulPacket = static_cast<size_t>(dBitRate / 8 / 1000);
    const auto ulPackets = static_cast<size_t>(dSeconds * 1000);
    Media media{"asf" + std::to_string(std::lround(dBitRate / 1e6)),
                true,
                dBitRate,
                "/tmp/bench.asf",
                "",
                ulPacket,
                1e6};
    std::string header(kAsfHeader, '\0');
    constexpr char kTail[] = "\x8E\x66\xCF\x11\xA6\xD9\x00\xAA\x00\x62\xCE\x6C";
    constexpr char kProperties[] = "\xA1\xDC\xAB\x8C\x47\xA9\xCF\x11\x8E\xE4\x00\xC0\x0C\x20\x53\x65";
    header.replace(0, 16, "\x30\x26\xB2\x75" + std::string(kTail, 12));
    putLittle(header, 16, 30 + 104, 8);
    header.replace(30, 16, std::string(kProperties, 16));
    putLittle(header, 30 + 16, 104, 8);
    for (const size_t ulAt : {92U, 96U}) {
        putLittle(header, 30 + ulAt, ulPacket, 4);
    }
    putLittle(header, 30 + 100, static_cast<unsigned long long>(dBitRate), 4);
    header.replace(134, 16, "\x36\x26\xB2\x75" + std::string(kTail, 12));
    putLittle(header, 134 + 16, 50 + ulPackets * ulPacket, 8);
    media.bytes.resize(ulPackets * ulPacket, 'x');
    for (size_t i = 0; i < ulPackets; ++i) {
        putLittle(media.bytes, i * ulPacket, 0x5D00, 2);
        putLittle(media.bytes, i * ulPacket + 2, i, 4); // the send time
    }
    std::ofstream file(media.path, std::ios::binary);
    file << header << media.bytes;
    require(file.flush().good(), "/tmp/bench.asf");
    return media;
}

// A transport stream of ffmpeg's, of constant rate, with the index that multicat plays by. Its name is empty
// without ffmpeg.
Media makeTS(double dBitRate, double dSeconds) {
    const std::string path = "/tmp/bench.ts";
    const std::string rate = std::to_string(std::lround(dBitRate));
    const double dMade = endOf(startProgram({"ffmpeg",
                                             "-v",
                                             "error",
                                             "-nostdin",
                                             "-y",
                                             "-f",
                                             "lavfi",
                                             "-i",
                                             "testsrc2=size=640x360:rate=25",
                                             "-t",
                                             std::to_string(dSeconds),
                                             "-c:v",
                                             "mpeg2video",
                                             "-b:v",
                                             "3M",
                                             "-muxrate",
                                             rate,
                                             "-f",
                                             "mpegts",
                                             path}));
    if (dMade < 0) {
        return {};
    }
    std::ifstream file(path, std::ios::binary);
    const std::string bytes{std::istreambuf_iterator<char>(file), {}};
    endOf(startProgram({"ingests", "-p", "256", path}));
    return {"ts" + std::to_string(std::lround(dBitRate / 1e6)), false, dBitRate, path, bytes, kRun,
            static_cast<double>(kRun) * 8e9 / dBitRate};
}

// ---- receiving

struct Arrival {
    size_t ulNumber; // of the datagram, lost ones counted
    int64_t lAt;     // nanoseconds
};

// Reads what the kernel adds to a datagram: when it arrived, and how many it has dropped for want of room.
Arrival arrivalOf(msghdr *pMessage, size_t ulReceived) {
    Arrival arrival{ulReceived, 0};
    for (cmsghdr *pControl = CMSG_FIRSTHDR(pMessage); pControl != nullptr;
         pControl = CMSG_NXTHDR(pMessage, pControl)) {
        if (pControl->cmsg_type == SO_RXQ_OVFL) {
            uint32_t uiDropped = 0;
            std::memcpy(&uiDropped, CMSG_DATA(pControl), sizeof uiDropped);
            arrival.ulNumber += uiDropped;
        } else if (pControl->cmsg_type == SCM_TIMESTAMPNS) {
            timespec at{};
            std::memcpy(&at, CMSG_DATA(pControl), sizeof at);
            arrival.lAt = at.tv_sec * 1'000'000'000LL + at.tv_nsec;
        }
    }
    return arrival;
}

// Receives until *pDone is set and nothing has come for a while. Sets *pOpen once it can receive.
std::vector<Arrival> receive(const std::atomic<bool> *pDone, std::atomic<bool> *pOpen) {
    const int iSocket = openReceiver(kGroup, kPort, 16 << 20);
    const int iOn = 1;
    require(setsockopt(iSocket, SOL_SOCKET, SO_TIMESTAMPNS, &iOn, sizeof iOn) == 0 &&
                setsockopt(iSocket, SOL_SOCKET, SO_RXQ_OVFL, &iOn, sizeof iOn) == 0,
            "file receiver");
    *pOpen = true;
    std::vector<Arrival> arrivals;
    std::array<unsigned char, 65536> datagram;
    pollfd wait{iSocket, POLLIN, 0};
    while (poll(&wait, 1, 100) > 0 || !*pDone) {
        alignas(cmsghdr) std::array<char, 128> control{};
        iovec piece{datagram.data(), datagram.size()};
        msghdr message{nullptr, 0, &piece, 1, control.data(), control.size(), 0};
        if (recvmsg(iSocket, &message, MSG_DONTWAIT) > 0) {
            arrivals.push_back(arrivalOf(&message, arrivals.size()));
        }
    }
    close(iSocket);
    return arrivals;
}

// ---- players. Each returns the processor time that it took, in seconds; -1 if it failed.

double threadSeconds() {
    timespec spent{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &spent);
    return static_cast<double>(spent.tv_sec) + static_cast<double>(spent.tv_nsec) / 1e9;
}

double playDriver(const Media &media) {
    KTPLUGIN_INFO_TAG block{};
    block.eState = ENGINE_RUNNING;
    CASTInfo *pInfo = nullptr;
    require(MAKECASTInfo(&pInfo, nullptr, kGroup, media.path.c_str(), CAST_TYPE_FILE) == 1, "cast record");
    const double dBefore = threadSeconds();
    int iResult = 0;
    if (media.bASF) {
        ASFCASTARG argument{};
        argument.pszFile = media.path.c_str();
        argument.pszNSC = "/tmp/no.nsc";
        argument.pszTarget = kGroup;
        argument.uiTargetPort = kPort;
        argument.pBlock = &block;
        argument.pInfo = pInfo;
        iResult = qxbox_asfcast(&argument);
    } else {
        TSCASTARG argument{};
        argument.pszFile = media.path.c_str();
        argument.pszTarget = kTarget;
        argument.uiCasterParam = 16;
        argument.pBlock = &block;
        argument.pInfo = pInfo;
        iResult = qxbox_tscast(&argument);
    }
    const double dSpent = threadSeconds() - dBefore;
    ELIMINATECASTInfo(&pInfo);
    return iResult == 1 ? dSpent : -1;
}

double playBare(const Media &media) {
    const int iSocket = openSender(kGroup, kPort);
    // An ASF datagram is as long as the driver's; what its MSB header holds makes no difference.
    const size_t ulHeader = media.bASF ? kMsbHeader : 0;
    const std::string bytes = std::string(ulHeader, 'm') + media.bytes;
    prctl(PR_SET_TIMERSLACK, 1UL);
    const double dBefore = threadSeconds();
    const int64_t lStart = now();
    int64_t lNumber = 0;
    for (size_t ulAt = 0; ulAt < media.bytes.size(); ulAt += media.ulDatagram) {
        const int64_t lDue = lStart + std::llround(static_cast<double>(lNumber++) * media.dNanoseconds);
        const timespec until{lDue / 1'000'000'000, lDue % 1'000'000'000};
        clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr);
        const size_t ulLength = std::min(media.ulDatagram, media.bytes.size() - ulAt) + ulHeader;
        require(send(iSocket, bytes.data() + ulAt, ulLength, 0) == static_cast<ssize_t>(ulLength),
                "bare loop");
    }
    const double dSpent = threadSeconds() - dBefore;
    close(iSocket);
    return dSpent;
}

double playMulticat(const Media &media) {
    return endOf(startProgram({"multicat", "-U", media.path, std::string(kTarget) + "/ifaddr=127.0.0.1"}));
}

double playFfmpeg(const Media &media) {
    return endOf(startProgram({"ffmpeg", "-v", "error", "-nostdin", "-re", "-i", media.path, "-c", "copy",
                               "-muxrate", std::to_string(std::lround(media.dBitRate)), "-f", "mpegts",
                               std::string("udp://") + kTarget + "?pkt_size=1316&localaddr=127.0.0.1"}));
}

// Lets the player play the file once. Returns false if it did not send all of it. What the receiver loses is
// left out.
bool takeTurn(const Media &media, double (*pPlay)(const Media &), Turn *pTurn) {
    std::atomic<bool> bDone{false}, bOpen{false};
    std::vector<Arrival> arrivals;
    double dSpent = 0;
    std::thread receiver([&] { arrivals = receive(&bDone, &bOpen); });
    while (!bOpen) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    std::thread player([&] { dSpent = pPlay(media); });
    player.join();
    bDone = true;
    receiver.join();
    const size_t ulDatagrams = (media.bytes.size() + media.ulDatagram - 1) / media.ulDatagram;
    // ffmpeg packs the packets anew, into nearly as many datagrams.
    if (dSpent < 0 || arrivals.size() < ulDatagrams / 2 ||
        (arrivals.back().ulNumber + 1 != ulDatagrams && pPlay != playFfmpeg)) {
        return false;
    }
    std::vector<double> offsets; // from the datagram's own instant to its arrival
    offsets.reserve(arrivals.size());
    for (const Arrival &arrival : arrivals) {
        offsets.push_back(static_cast<double>(arrival.lAt - arrivals[0].lAt) -
                          static_cast<double>(arrival.ulNumber) * media.dNanoseconds);
    }
    std::vector<double> sorted = offsets;
    const double dStart = percentile(sorted, 0.01);
    for (const double dOffset : offsets) {
        pTurn->latenessUs.push_back(std::fabs(dOffset - dStart) / 1000);
    }
    pTurn->dCostUs = dSpent * 1e6 / static_cast<double>(arrivals.back().ulNumber + 1);
    return true;
}

// ---- results

double latenessRow(const std::string &name, Player &player, double dShare) {
    std::vector<double> values;
    for (Turn &turn : player.turns) {
        values.push_back(percentile(turn.latenessUs, dShare));
    }
    return rowSpread(name, values, "us");
}

// Rows of the player's distribution of lateness: the value, and the share of datagrams that stay below it.
void distributionRows(const Media &media, const Player &player) {
    std::vector<double> all;
    for (const Turn &turn : player.turns) {
        all.insert(all.end(), turn.latenessUs.begin(), turn.latenessUs.end());
    }
    for (const double dShare :
         {0.01, 0.05, 0.1, 0.2, 0.3, 0.4, 0.5, 0.6, 0.7, 0.8, 0.9, 0.95, 0.98, 0.99, 0.995, 0.998, 0.999}) {
        std::printf("lateness.%s.%s %.3f us %.1f\n", media.name.c_str(), player.name.c_str(),
                    percentile(all, dShare), dShare * 100);
    }
}

bool measure(const Media &media) {
    struct Entry {
        const char *pName;
        double (*pPlay)(const Media &);
    };
    std::vector<Entry> entries = {{"pccast", playDriver}, {"bare", playBare}};
    if (!media.bASF) {
        entries.insert(entries.end(), {{"multicat", playMulticat}, {"ffmpeg", playFfmpeg}});
    }
    std::vector<Player> players;
    players.reserve(entries.size());
    std::vector<bool> plays(entries.size(), true);
    for (const Entry &entry : entries) {
        players.push_back({entry.pName, {}});
    }
    for (int i = 0; i < kTurns; ++i) {
        for (size_t j = 0; j < entries.size(); ++j) {
            Turn turn{};
            plays[j] = plays[j] && takeTurn(media, entries[j].pPlay, &turn);
            if (plays[j]) {
                players[j].turns.push_back(std::move(turn));
            }
        }
    }
    if (!plays[0] || !plays[1]) {
        std::fprintf(stderr, "bench: %s: not all datagrams of %s arrived\n", media.name.c_str(),
                     players[plays[0]].name.c_str());
        return false;
    }
    bool bHolds = true;
    for (size_t j = 0; j < players.size(); ++j) {
        if (!plays[j]) {
            continue;
        }
        Player &player = players[j];
        const std::string name = "file." + media.name + "." + player.name;
        const double dMiddle = latenessRow(name + ".p50", player, 0.5);
        const double dTail = latenessRow(name + ".p99", player, 0.99);
        latenessRow(name + ".p99_9", player, 0.999);
        std::vector<double> costs, ratios;
        for (size_t i = 0; i < player.turns.size(); ++i) {
            costs.push_back(player.turns[i].dCostUs);
            ratios.push_back(player.turns[i].dCostUs / players[1].turns[i].dCostUs);
        }
        rowSpread(name + ".cost", costs, "us/datagram");
        const double dRatio = rowSpread(name + ".ratio", ratios, "times_bare");
        if (j == 0) {
            bHolds &= keepsAtMost(name + ".p50", dMiddle, kMiddleBoundUs);
            bHolds &= keepsAtMost(name + ".p99", dTail, kTailBoundUs);
            bHolds &= keepsAtMost(name + ".ratio", dRatio, kCostBound);
        }
        distributionRows(media, player);
    }
    return bHolds;
}

} // namespace

bool fileBench(double dSeconds) {
    bool bHolds = true;
    for (const double dBitRate : {8e6, 40e6}) {
        const Media transport = makeTS(dBitRate, dSeconds);
        if (transport.name.empty()) {
            std::fprintf(stderr, "bench: without ffmpeg there is no transport stream to play\n");
            bHolds = false;
        } else {
            bHolds &= measure(transport);
        }
        bHolds &= measure(makeASF(dBitRate, dSeconds));
    }
    return bHolds;
}

} // namespace bench

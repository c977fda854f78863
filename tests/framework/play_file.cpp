// play_file - plays a stored file through the framework's stream and casters and receives it on the spot.
//
//   play_file FILE ADDRESS:PORT RECORD            a transport stream
//   play_file FILE ADDRESS:PORT RECORD STATION    an ASF file to its station, whose target must be
//   ADDRESS:PORT
//
// RECORD gets the payloads as they arrive; of an ASF file the station's header first, then the data packets
// taken out of their datagrams. Says on standard output how many datagrams went and came, how late they left
// against their due times, and what the playing thread cost. Fails when a datagram is lost or out of order.
#include "asfstream.h"
#include "casttarget.h"
#include "nsc.h"
#include "tsstream.h"
#include "udpsocket.h"

#include <qxapi.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <thread>
#include <time.h>
#include <unistd.h>

namespace {

[[noreturn]] void fail(const std::string &sText) {
    std::fprintf(stderr, "play_file: %s\n", sText.c_str());
    std::exit(1);
}

long long now(clockid_t iClock) {
    timespec Time{};
    clock_gettime(iClock, &Time);
    return Time.tv_sec * 1'000'000'000LL + Time.tv_nsec;
}

// The due times of the whole file, read without playing it.
std::vector<long long> dueTimes(const char *pszFile, bool bASF) {
    std::string sReason;
    std::vector<long long> Due;
    const int iFile = fileOpenRegular(pszFile, sReason);
    ASFREADER ASF;
    TSREADER TS;
    MEDIAPACKET Packet{};
    if (iFile < 0 ||
        !(bASF ? asfReaderStart(ASF, iFile, pszFile, sReason) : tsReaderStart(TS, iFile, pszFile, sReason)))
        fail(sReason);
    for (int iStep = MEDIA_BUSY; iStep != MEDIA_END;) {
        iStep = bASF ? asfReaderNext(ASF, Packet) : tsReaderNext(TS, Packet);
        if (iStep == MEDIA_PACKET)
            Due.push_back(Packet.llDue);
    }
    close(iFile);
    return Due;
}

// Writes what arrives to pRecord until bEnd and silence. Returns the datagrams.
std::size_t receive(int iSocket, FILE *pRecord, bool bMSB, const std::atomic<bool> &bEnd) {
    static unsigned char aData[65536];
    std::size_t ulCount = 0;
    for (;;) {
        pollfd Poll = {iSocket, POLLIN, 0};
        if (poll(&Poll, 1, 200) != 1) {
            if (bEnd)
                return ulCount;
            continue;
        }
        const ssize_t lLength = recv(iSocket, aData, sizeof aData, 0);
        const std::size_t ulHead = bMSB ? 8 : 0;
        if (lLength < static_cast<ssize_t>(ulHead))
            fail("a datagram without a header arrived");
        if (bMSB && (aData[0] | aData[1] << 8) != static_cast<int>(ulCount & 0xFFFF))
            fail("packet ids do not follow each other");
        std::fwrite(aData + ulHead, 1, static_cast<std::size_t>(lLength) - ulHead, pRecord);
        ulCount++;
    }
}

} // namespace

int main(int iCount, char **ppszArgument) {
    if (iCount < 4)
        fail("usage: play_file FILE ADDRESS:PORT RECORD [STATION]");
    const char *pszFile = ppszArgument[1];
    const bool bASF = iCount > 4;
    CASTTARGET Target;
    NSCSTATION Station;
    std::string sReason;
    FILE *pRecord = std::fopen(ppszArgument[3], "wb");
    if (!pRecord || !castTargetParse(ppszArgument[2], 0, Target, sReason) ||
        (bASF && !nscRead(ppszArgument[4], Station, sReason)))
        fail("cannot begin: " + sReason);
    const std::vector<long long> Due = dueTimes(pszFile, bASF);
    if (bASF)
        std::fwrite(Station.Formats[0].Header.data(), 1, Station.Formats[0].Header.size(), pRecord);
    const int iSocket = udpOpenReceiver(Target.sAddress.c_str(), Target.usPort, nullptr);
    std::atomic<bool> bEnd{false};
    std::size_t ulReceived = 0;
    std::thread Receiver([&] { ulReceived = receive(iSocket, pRecord, bASF, bEnd); });

    ts_qxapi_asfcast *pASF = qxapi_open_asfcast();
    ts_qxapi_tscast *pTS = qxapi_open_tscast();
    ts_qxapi_stream *pStream = qxapi_open_stream(pszFile);
    pASF->uiHops = 16;
    if (!pStream || (bASF ? pASF->pSetStation(pASF, ppszArgument[4], 0)
                          : pTS->pSetUp(pTS, nullptr, -1, ppszArgument[2], 2777, 16)) != 1)
        fail("cannot play");
    const long long llCPU = now(CLOCK_THREAD_CPUTIME_ID);
    if (pStream->pStart(pStream) != 1)
        fail("cannot start");
    const long long llStart = now(CLOCK_MONOTONIC);
    std::vector<double> LateMs;
    while (!pStream->pIsAtEnd(pStream)) {
        ts_qxapi_packet *pPacket = pStream->pNextPacket(pStream);
        if (!pPacket) {
            qxapi_load_balance();
            continue;
        }
        if ((bASF ? pASF->pSend(pASF, pPacket->pData, pPacket->uiLength)
                  : pTS->pSend(pTS, pPacket->pData, pPacket->uiLength)) != 1)
            fail("a datagram was not sent");
        if (LateMs.size() < Due.size())
            LateMs.push_back(static_cast<double>(now(CLOCK_MONOTONIC) - llStart - Due[LateMs.size()]) / 1e6);
        pStream->pReleasePacket(pStream, pPacket);
    }
    const double dSeconds = static_cast<double>(now(CLOCK_MONOTONIC) - llStart) / 1e9;
    const double dCPU = static_cast<double>(now(CLOCK_THREAD_CPUTIME_ID) - llCPU) / 1e9;
    bEnd = true;
    Receiver.join();
    std::fclose(pRecord);
    qxapi_close_stream(pStream);
    qxapi_close_asfcast(pASF);
    qxapi_close_tscast(pTS);
    if (LateMs.empty() || LateMs.size() != Due.size() || ulReceived != Due.size())
        fail(std::to_string(Due.size()) + " datagrams due, " + std::to_string(LateMs.size()) + " sent, " +
             std::to_string(ulReceived) + " received");
    const double dLast = LateMs.back();
    std::sort(LateMs.begin(), LateMs.end());
    std::printf(
        "%zu datagrams in %.3f s; ms late: least %.3f, median %.3f, 99 %% %.3f, most %.3f, last one %.3f; "
        "processor %.2f %%\n",
        LateMs.size(), dSeconds, LateMs.front(), LateMs[LateMs.size() / 2], LateMs[LateMs.size() * 99 / 100],
        LateMs.back(), dLast, 100 * dCPU / dSeconds);
    return 0;
}

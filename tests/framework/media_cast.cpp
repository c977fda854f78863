// The casters on real sockets: datagrams byte for byte, hop limits, targets and stations that are none.
#include "media_files.h"
#include "nsc.h"
#include "udpsocket.h"

#include <memory>
#include <netinet/in.h>
#include <poll.h>
#include <qxapi.h>
#include <sys/socket.h>

namespace {

using ASFCASTER = std::unique_ptr<ts_qxapi_asfcast, decltype(&qxapi_close_asfcast)>;
using TSCASTER = std::unique_ptr<ts_qxapi_tscast, decltype(&qxapi_close_tscast)>;

TSCASTER openTs() {
    return {qxapi_open_tscast(), qxapi_close_tscast};
}

// A caster with a hop limit of 16, and with the station if one is named.
ASFCASTER openAsf(const MEMORYFILE *pStation = nullptr, unsigned int uiFormatIndex = 0) {
    ASFCASTER pCaster(qxapi_open_asfcast(), qxapi_close_asfcast);
    pCaster->uiHops = 16;
    if (pStation && pCaster->pSetStation(pCaster.get(), pStation->sPath.c_str(), uiFormatIndex) != 1)
        ADD_FAILURE() << "the station is not taken";
    return pCaster;
}

template <typename CASTER>
int send(const CASTER &pCaster, const std::string &sData) {
    return pCaster->pSend(pCaster.get(), reinterpret_cast<const unsigned char *>(sData.data()),
                          static_cast<unsigned int>(sData.size()));
}

struct RECEIVER {
    int iSocket;
    int iHops = -1; // of the last datagram

    RECEIVER(const char *pszAddress, unsigned short usPort)
        : iSocket(udpOpenReceiver(pszAddress, usPort, nullptr)) {
        const int iOn = 1;
        EXPECT_EQ(setsockopt(iSocket, IPPROTO_IP, IP_RECVTTL, &iOn, sizeof iOn), 0);
    }
    RECEIVER(const RECEIVER &) = delete;
    RECEIVER &operator=(const RECEIVER &) = delete;
    ~RECEIVER() { close(iSocket); }

    // The next datagram; "nothing" when none comes.
    std::string next() {
        static char aData[65536];
        alignas(cmsghdr) char aControl[64];
        pollfd Poll = {iSocket, POLLIN, 0};
        if (poll(&Poll, 1, 1000) != 1)
            return "nothing";
        iovec Piece = {aData, sizeof aData};
        msghdr Message{nullptr, 0, &Piece, 1, aControl, sizeof aControl, 0};
        const ssize_t lLength = recvmsg(iSocket, &Message, 0);
        const cmsghdr *pControl = CMSG_FIRSTHDR(&Message);
        iHops = pControl ? *reinterpret_cast<const int *>(CMSG_DATA(pControl)) : -1;
        return lLength < 0 ? "nothing" : std::string(aData, static_cast<std::size_t>(lLength));
    }
};

// A station of two formats, Format1 with id 0x12 and Format4 with id 0x7FE.
std::string stationText(const char *pszAddress, unsigned short usPort, int iHops) {
    NSCSTATION Station;
    Station.sAddress = pszAddress;
    Station.usPort = usPort;
    Station.iHops = iHops;
    Station.Formats = {{1, 0x12, {'h'}, ""}, {4, 0x7FE, {'i'}, ""}};
    return nscWrite(Station);
}

} // namespace

TEST(MediaCast, MsbPacketsAreTheStationsByteForByte) {
    using namespace std::string_literals;
    RECEIVER Receiver("239.1.2.3", 6001);
    const MEMORYFILE Station(stationText("239.1.2.3", 6001, 5));

    const ASFCASTER pFirst = openAsf(&Station);
    EXPECT_EQ(send(pFirst, "packet"), 1);
    EXPECT_EQ(send(pFirst, "second packet"), 1);
    const std::string sFirst = Receiver.next();
    const char cToggle = sFirst.size() > 5 ? sFirst[5] : 'x'; // of which value the process has got to
    EXPECT_EQ(sFirst, "\x00\x00\x00\x00\x12"s + cToggle + "\x0E\x00packet"s);
    EXPECT_EQ(Receiver.next(), "\x01\x00\x00\x00\x12"s + cToggle + "\x15\x00second packet"s);
    EXPECT_TRUE(cToggle == '\0' || cToggle == '\x80');
    EXPECT_EQ(Receiver.iHops, 5); // the station's, not the caster's 16

    const ASFCASTER pUnused = openAsf(&Station); // a caster that sends nothing is no playout
    EXPECT_EQ(send(openAsf(&Station, 4), "x"), 1);
    EXPECT_EQ(Receiver.next(),
              "\x00\x00\x00\x00\xFE"s + static_cast<char>(0x07 | (cToggle ^ '\x80')) + "\x09\x00x"s);
}

TEST(MediaCast, ExplicitTargetReplacesTheStationsAndTheCastersHopLimitStandsIn) {
    RECEIVER Receiver("239.1.2.5", 6002);
    const MEMORYFILE Station(stationText("239.1.2.4", 6003, -1));
    const ASFCASTER pCaster = openAsf(&Station, 1);
    ASSERT_EQ(pCaster->pSetTarget(pCaster.get(), "239.1.2.5", 6002), 1);
    EXPECT_EQ(pCaster->pSetTarget(pCaster.get(), "239.1.2.5", 0), 0); // leaves the one before

    EXPECT_EQ(send(pCaster, std::string(65507 - 8, 'x')), 1);
    const std::string sDatagram = Receiver.next();
    ASSERT_EQ(sDatagram.size(), 65507U);
    EXPECT_EQ(sDatagram[4], '\x12');
    EXPECT_EQ(sDatagram.substr(6, 2), "\xE3\xFF");
    EXPECT_EQ(Receiver.iHops, 16);
}

TEST(MediaCast, OversizedPacketFails) {
    RECEIVER Receiver("127.0.0.1", 6006);
    const ASFCASTER pAsf = openAsf();
    ASSERT_EQ(pAsf->pSetTarget(pAsf.get(), "127.0.0.1:6006", 0), 1);
    EXPECT_EQ(send(pAsf, std::string(65500, 'x')), -1);
    const TSCASTER pTs = openTs();
    ASSERT_EQ(pTs->pSetUp(pTs.get(), nullptr, -1, "127.0.0.1:6006", 2777, 16), 1);
    EXPECT_EQ(send(pTs, std::string(65508, 'x')), -1);
    EXPECT_EQ(send(pTs, "still usable"), 1);
    EXPECT_EQ(Receiver.next(), "still usable");
}

TEST(MediaCast, TsTargetsAreReadStrictly) {
    struct TARGET {
        const char *pszTarget;
        unsigned int uiPort = 2777;
        unsigned int uiHops = 16;
    };
    RECEIVER Receiver("239.1.2.7", 6007);
    for (const TARGET &Good : {TARGET{"239.1.2.7:6007"}, {"239.1.2.7", 6007}, {"239.1.2.7:6007", 0, 17}}) {
        const TSCASTER pCaster = openTs();
        EXPECT_EQ(pCaster->pSetUp(pCaster.get(), nullptr, -1, Good.pszTarget, Good.uiPort, Good.uiHops), 1);
        EXPECT_EQ(send(pCaster, "G"), 1);
        EXPECT_EQ(Receiver.next(), "G");
        EXPECT_EQ(Receiver.iHops, static_cast<int>(Good.uiHops));
    }
    for (const TARGET &Bad : {TARGET{nullptr},
                              {""},
                              {":6007"},
                              {"239.1.2.7:"},
                              {"239.1.2.7:0"},
                              {"239.1.2.7:65536"},
                              {"239.1.2.7:6007x"},
                              {"239.1.2.7: 6007"},
                              {"239.1.2.7:-1"},
                              {"239.1.2.7:6007:6007"},
                              {"239.1.2:6007"},
                              {"239.1.2.256:6007"},
                              {"0.0.0.0:6007"},
                              {"localhost:6007"},
                              {"239.1.2.7:4294973303"},
                              {"239.1.2.7", 0},
                              {"239.1.2.7", 65536},
                              {"239.1.2.7:6007", 2777, 256}}) {
        const TSCASTER pCaster = openTs();
        EXPECT_EQ(pCaster->pSetUp(pCaster.get(), nullptr, -1, Bad.pszTarget, Bad.uiPort, Bad.uiHops), 0)
            << (Bad.pszTarget ? Bad.pszTarget : "null");
        EXPECT_EQ(send(pCaster, "G"), 0);
    }
}

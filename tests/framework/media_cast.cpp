// Tests of the casters on real sockets: datagrams byte for byte, hop limits, invalid targets and stations.
#include "ktn_support.h"
#include "media_files.h"
#include "nsc.h"
#include "udpsocket.h"

#include <memory>
#include <netinet/in.h>
#include <poll.h>
#include <qxapi.h>
#include <sys/socket.h>

namespace {

using AsfCasterOwner = std::unique_ptr<ts_qxapi_asfcast, decltype(&qxapi_close_asfcast)>;
using TsCasterOwner = std::unique_ptr<ts_qxapi_tscast, decltype(&qxapi_close_tscast)>;

TsCasterOwner openTs() {
    return {qxapi_open_tscast(), qxapi_close_tscast};
}

// Returns a caster with a hop limit of 16. Sets the station unless it is null.
AsfCasterOwner openAsf(const MemoryFile *pStation = nullptr, unsigned int uiFormatIndex = 0) {
    AsfCasterOwner pCaster(qxapi_open_asfcast(), qxapi_close_asfcast);
    pCaster->uiHops = 16;
    if (pStation && pCaster->pSetStation(pCaster.get(), pStation->sPath.c_str(), uiFormatIndex) != 1) {
        ADD_FAILURE() << "the station is not taken";
    }
    return pCaster;
}

template <typename Caster>
int send(const Caster &pCaster, const std::string &sData) {
    return pCaster->pSend(pCaster.get(), reinterpret_cast<const unsigned char *>(sData.data()),
                          static_cast<unsigned int>(sData.size()));
}

struct Receiver {
    int iSocket;
    int iHops = -1; // of the last datagram

    Receiver(const char *pszAddress, unsigned short usPort)
        : iSocket(udpOpenReceiver(pszAddress, usPort, nullptr)) {
        const int iOn = 1;
        EXPECT_EQ(setsockopt(iSocket, IPPROTO_IP, IP_RECVTTL, &iOn, sizeof iOn), 0);
    }
    Receiver(const Receiver &) = delete;
    Receiver &operator=(const Receiver &) = delete;
    ~Receiver() { close(iSocket); }

    // Returns the next datagram, "nothing" if none comes in time.
    std::string next() {
        static char aData[65536];
        alignas(cmsghdr) char aControl[64];
        pollfd readiness = {iSocket, POLLIN, 0};
        if (poll(&readiness, 1, 1000) != 1) {
            return "nothing";
        }
        iovec piece = {aData, sizeof aData};
        msghdr message{nullptr, 0, &piece, 1, aControl, sizeof aControl, 0};
        const ssize_t lLength = recvmsg(iSocket, &message, 0);
        const cmsghdr *pControl = CMSG_FIRSTHDR(&message);
        iHops = pControl ? *reinterpret_cast<const int *>(CMSG_DATA(pControl)) : -1;
        return lLength < 0 ? "nothing" : std::string(aData, static_cast<std::size_t>(lLength));
    }
};

// Returns a station with two formats: Format1 with id 0x12 and Format4 with id 0x7FE.
std::string stationText(const char *pszAddress, unsigned short usPort, int iHops) {
    NscStation station;
    station.sAddress = pszAddress;
    station.usPort = usPort;
    station.iHops = iHops;
    station.formats = {{1, 0x12, {'h'}, ""}, {4, 0x7FE, {'i'}, ""}};
    return nscWrite(station);
}

} // namespace

TEST(MediaCast, MsbPacketsAreTheStationsByteForByte) {
    using namespace std::string_literals;
    Receiver receiver("239.1.2.3", 6001);
    const MemoryFile station(stationText("239.1.2.3", 6001, 5));

    const AsfCasterOwner pFirst = openAsf(&station);
    EXPECT_EQ(send(pFirst, "packet"), 1);
    EXPECT_EQ(send(pFirst, "second packet"), 1);
    const std::string sFirst = receiver.next();
    const char cToggle = sFirst.size() > 5 ? sFirst[5] : 'x'; // the process may be at either value
    EXPECT_EQ(sFirst, "\x00\x00\x00\x00\x12"s + cToggle + "\x0E\x00packet"s);
    EXPECT_EQ(receiver.next(), "\x01\x00\x00\x00\x12"s + cToggle + "\x15\x00second packet"s);
    EXPECT_TRUE(cToggle == '\0' || cToggle == '\x80');
    EXPECT_EQ(receiver.iHops, 5); // the station's, not the caster's 16

    const AsfCasterOwner pUnused = openAsf(&station); // sends nothing, so it is no playout
    const MemoryFile near(stationText("239.1.2.3", 6001, 0));
    EXPECT_EQ(send(openAsf(&near, 4), "x"), 1);
    EXPECT_EQ(receiver.next(),
              "\x00\x00\x00\x00\xFE"s + static_cast<char>(0x07 | (cToggle ^ '\x80')) + "\x09\x00x"s);
    EXPECT_EQ(receiver.iHops, 0); // for this machine alone
}

TEST(MediaCast, ExplicitTargetReplacesTheStationsAndTheCastersHopLimitStandsIn) {
    Receiver receiver("239.1.2.5", 6002);
    const MemoryFile station(stationText("239.1.2.4", 6003, -1));
    const AsfCasterOwner pCaster = openAsf(&station, 1);
    ASSERT_EQ(pCaster->pSetTarget(pCaster.get(), "239.1.2.5", 6002), 1);
    EXPECT_EQ(pCaster->pSetTarget(pCaster.get(), "239.1.2.5", 0), 0); // the earlier target stays

    EXPECT_EQ(send(pCaster, std::string(65507 - 8, 'x')), 1);
    const std::string sDatagram = receiver.next();
    ASSERT_EQ(sDatagram.size(), 65507U);
    EXPECT_EQ(sDatagram[4], '\x12');
    EXPECT_EQ(sDatagram.substr(6, 2), "\xE3\xFF");
    EXPECT_EQ(receiver.iHops, 16);
}

TEST(MediaCast, OversizedPacketFails) {
    Receiver receiver("127.0.0.1", 6006);
    const AsfCasterOwner pAsf = openAsf();
    ASSERT_EQ(pAsf->pSetTarget(pAsf.get(), "127.0.0.1:6006", 0), 1);
    testing::internal::CaptureStderr();
    EXPECT_EQ(send(pAsf, std::string(65500, 'x')), -1);
    faults().iSendErrno = EPERM;
    EXPECT_EQ(send(pAsf, "x"), -1);
    faults().iSendErrno = 0;
    EXPECT_EQ(send(pAsf, std::string(65507 - 8, 'x')), 1);
    EXPECT_EQ(receiver.next().size(), 65507U);
    const TsCasterOwner pTs = openTs();
    ASSERT_EQ(pTs->pSetUp(pTs.get(), nullptr, -1, "127.0.0.1:6006", 2777, 16), 1);
    EXPECT_EQ(send(pTs, std::string(65508, 'x')), -1);
    EXPECT_EQ(reported(),
              "asfcast: 127.0.0.1:6006: a data packet of 65500 bytes is too large for a datagram\n"
              "asfcast: 127.0.0.1:6006: a packet of 9 bytes cannot be sent: Operation not permitted\n"
              "tscast: 127.0.0.1:6006: a datagram of 65508 bytes cannot be sent: Message too long\n");
    EXPECT_EQ(send(pTs, "still usable"), 1);
    EXPECT_EQ(receiver.next(), "still usable");
}

TEST(MediaCast, TsTargetsAreReadStrictly) {
    struct TargetCase {
        const char *pszTarget;
        unsigned int uiPort = 2777;
        unsigned int uiHops = 16;
    };
    Receiver receiver("239.1.2.7", 6007);
    for (const TargetCase &good :
         {TargetCase{"239.1.2.7:6007"}, {"239.1.2.7", 6007}, {"239.1.2.7:6007", 0, 17}}) {
        const TsCasterOwner pCaster = openTs();
        EXPECT_EQ(pCaster->pSetUp(pCaster.get(), nullptr, -1, good.pszTarget, good.uiPort, good.uiHops), 1);
        EXPECT_EQ(send(pCaster, "G"), 1);
        EXPECT_EQ(receiver.next(), "G");
        EXPECT_EQ(receiver.iHops, static_cast<int>(good.uiHops));
    }
    testing::internal::CaptureStderr();
    for (const TargetCase &bad : {TargetCase{nullptr},
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
        const TsCasterOwner pCaster = openTs();
        EXPECT_EQ(pCaster->pSetUp(pCaster.get(), nullptr, -1, bad.pszTarget, bad.uiPort, bad.uiHops), 0)
            << (bad.pszTarget ? bad.pszTarget : "null");
        EXPECT_EQ(send(pCaster, "G"), 0);
    }
    failOnce("socket", EMFILE);
    const TsCasterOwner pCaster = openTs();
    EXPECT_EQ(pCaster->pSetUp(pCaster.get(), nullptr, -1, "239.1.2.7:6007", 0, 255), 0);
    for (int i = 0; i < 2; i++) { // the second replaces the first
        EXPECT_EQ(pCaster->pSetUp(pCaster.get(), nullptr, -1, "239.1.2.7:6007", 0, 255), 1);
    }
    failOnce("new", 0);
    EXPECT_EQ(pCaster->pSetUp(pCaster.get(), nullptr, -1, "239.192.100.100:60070", 0, 255), 0);
    EXPECT_EQ(send(pCaster, "the earlier target stays"), 1);
    EXPECT_EQ(receiver.next(), "the earlier target stays");
    EXPECT_EQ(reported(R"("[^"]*")"),
              "tscast: no target is named: nothing can be sent\n"
              "tscast: $ is no IPv4 address to send to: nothing can be sent\n"
              "tscast: $ has no port from 1 to 65535: nothing can be sent\n"
              "tscast: 239.1.2.7:6007: a hop limit of 256 is above 255: nothing can be sent\n"
              "udpOpenSender: no socket for 239.1.2.7:6007: Too many open files\n"
              "tscast: no memory: nothing can be sent\n");
}

TEST(MediaCast, StationsThatCanNotBeTakenAreRefusedByName) {
    const MemoryFile station(stationText("239.1.2.9", 6009, -1)), none("GIF89a");
    testing::internal::CaptureStderr();
    const long lObjects = faults().lObjects;
    {
        const AsfCasterOwner pCaster = openAsf();
        const auto set = [&](const char *pszFile, unsigned int uiFormat) {
            return pCaster->pSetStation(pCaster.get(), pszFile, uiFormat);
        };
        EXPECT_EQ(set(nullptr, 0), 0);
        EXPECT_EQ(set(none.sPath.c_str(), 0), 0);
        EXPECT_EQ(set(station.sPath.c_str(), 2), 0);
        failOnce("socket", EMFILE);
        EXPECT_EQ(set(station.sPath.c_str(), 1), 0);
        failOnce("new", 0);
        EXPECT_EQ(set(station.sPath.c_str(), 1), 0);
        EXPECT_EQ(pCaster->pSetTarget(pCaster.get(), nullptr, 1), 0);
        failOnce("new", 0);
        EXPECT_EQ(pCaster->pSetTarget(pCaster.get(), "239.192.100.100:60070", 1), 0);
        EXPECT_EQ(send(pCaster, "x"), 0) << "it has no target";
        pCaster->uiHops = 256;
        EXPECT_EQ(set(station.sPath.c_str(), 1), 0);
        EXPECT_EQ(pCaster->pSetTarget(pCaster.get(), "239.1.2.9:1", 1), 0);
        pCaster->uiHops = 255;
        EXPECT_EQ(set(station.sPath.c_str(), 1), 1);
        failOnce("new", 0);
        EXPECT_EQ(qxapi_open_asfcast(), nullptr);
        failOnce("new", 0);
        EXPECT_EQ(qxapi_open_tscast(), nullptr);
        qxapi_close_asfcast(nullptr);
        qxapi_close_tscast(nullptr);
    }
    EXPECT_EQ(faults().lObjects, lObjects);
    EXPECT_EQ(reported(station.sPath + "|" + none.sPath),
              "asfcast: (no file named) is no station to send from: no station file is named\n"
              "asfcast: $ is no station to send from: line 1 is not of a station file\n"
              "asfcast: $ has no Format2\n"
              "udpOpenSender: no socket for 239.1.2.9:6009: Too many open files\n"
              "asfcast: $: no memory to read it\n"
              "asfcast: no target is named: it is not taken as the target\n"
              "asfcast: no memory to take a target\n"
              "asfcast: 239.1.2.9:6009: a hop limit of 256 is above 255: nothing is sent there\n"
              "asfcast: 239.1.2.9:1: a hop limit of 256 is above 255: nothing is sent there\n");
}

// KTNet over UDP, multicast and unicast.
#include "ktn_support.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <netinet/in.h>
#include <tuple>

namespace {

ENDPOINT sender(const std::string &Address = "239.1.1.1", unsigned int uiPort = 5000) {
    return endpoint(KTNET_KIND_UDP, Address, "", uiPort, 0);
}
ENDPOINT receiver(const std::string &Address = "239.1.1.1", unsigned int uiPort = 5000,
                  const std::string &Local = "127.0.0.1", unsigned int uiTimeoutMs = 2000) {
    return endpoint(KTNET_KIND_UDP, Address, Local, uiPort, 1, uiTimeoutMs);
}
ENDPOINT opened(ENDPOINT Desc) {
    EXPECT_EQ(ktn_xapi_ktnet_create(Desc.get()), 1) << Desc->szPeer << ":" << Desc->uiPort;
    return Desc;
}

// Waits for the next datagram of an endpoint. Empty when none comes.
BYTES take(const ENDPOINT &Receiver, unsigned int uiTimeoutMs = 2000) {
    BYTES Data(65536);
    if (ktn_xapi_rx_poll_socket(Receiver->iSocket, uiTimeoutMs) != 1)
        return {};
    const ssize_t lLength = recv(Receiver->iSocket, Data.data(), Data.size(), 0);
    Data.resize(lLength > 0 ? static_cast<size_t>(lLength) : 0);
    return Data;
}

int give(const ENDPOINT &Sender, BYTES Data) {
    KTNET_BUFFER Buffer{Data.data(), Data.size()};
    return ktn_xapi_ktnet_tx_a_packet(Sender.get(), 0, &Buffer);
}

int option(const ENDPOINT &Desc, int iLevel, int iOption) {
    int iValue = -1;
    socklen_t uiLength = sizeof iValue;
    getsockopt(Desc->iSocket, iLevel, iOption, &iValue, &uiLength);
    return iValue;
}

TEST(Udp, GroupAndPortAloneAreReceivedByEveryListener) {
    const ENDPOINT First = opened(receiver()), Second = opened(receiver()),
                   OtherGroup = opened(receiver("239.1.1.2")),
                   OtherPort = opened(receiver("239.1.1.1", 5001, "lo")), Sender = opened(sender());
    EXPECT_EQ(give(opened(sender("127.0.0.1")), {8}), 1); // to the port alone: nobody's
    EXPECT_EQ(give(Sender, {1, 2, 3}), 3);
    EXPECT_EQ(give(Sender, {}), 1) << "an empty datagram is sent too";
    EXPECT_EQ(take(First), (BYTES{1, 2, 3}));
    EXPECT_EQ(ktn_xapi_rx_poll_socket(First->iSocket, 1000), 1);
    EXPECT_EQ(take(Second), (BYTES{1, 2, 3}));
    EXPECT_EQ(take(OtherGroup, 50), BYTES{});
    EXPECT_EQ(take(OtherPort, 0), BYTES{});
}

TEST(Udp, HopLimitAndLoopAreTakenOrRefused) {
    const ENDPOINT Sender = opened(sender());
    EXPECT_EQ(option(Sender, IPPROTO_IP, IP_MULTICAST_LOOP), 1);
    for (const auto &[iFamily, iHops, iOn] : {std::tuple{0, 0, 0}, {AF_INET, 255, 1}, {0, 5, 0}}) {
        EXPECT_EQ(ktn_xapi_hops_socket(iFamily, Sender->iSocket, iHops, iOn), 1);
        EXPECT_EQ(option(Sender, IPPROTO_IP, IP_MULTICAST_TTL), iHops);
        EXPECT_EQ(option(Sender, IPPROTO_IP, IP_MULTICAST_LOOP), iOn);
    }
    EXPECT_EQ(ktn_xapi_hops_socket(0, Sender->iSocket, 256, 1), -EINVAL);
    EXPECT_EQ(ktn_xapi_hops_socket(AF_INET6, Sender->iSocket, 5, 1), -EAFNOSUPPORT);
    EXPECT_EQ(ktn_xapi_hops_socket(0, -1, 5, 1), -EBADF);
}

TEST(Udp, FrameIsOneDatagramByteForByte) {
    const ENDPOINT Receiver = opened(receiver()), Sender = opened(sender());
    BYTES Payload = {'a', 'b', 'c'};
    KTNET_PACKET Packet = packetOf(Payload);
    ASSERT_EQ(ktn_xapi_ktnet_tx_data(Sender.get(), &Packet), 1);
    EXPECT_EQ(take(Receiver), FrameBytes);

    for (const size_t ulSize : {size_t{0}, size_t{KTNET_UDP_FRAME_MAX - 28}}) {
        Payload.assign(ulSize, 0x5A);
        Packet = packetOf(Payload);
        ASSERT_EQ(ktn_xapi_ktnet_tx_data(Sender.get(), &Packet), 1);
        KTNET_PACKET Received{};
        ASSERT_EQ(ktn_xapi_ktnet_rx_data(Receiver.get(), &Received), 1);
        EXPECT_EQ(Received.uiParam, 0x01020304u);
        EXPECT_EQ(payloadOf(Received), Payload);
    }
    Payload.push_back(0);
    Packet = packetOf(Payload);
    EXPECT_EQ(ktn_xapi_ktnet_tx_data(Sender.get(), &Packet), -EMSGSIZE);
    EXPECT_EQ(give(Sender, BYTES(KTNET_UDP_FRAME_MAX + 1)), -EMSGSIZE);
    EXPECT_EQ(Sender->uiError, static_cast<unsigned int>(EMSGSIZE));
}

TEST(Udp, DatagramThatIsNoFrameDoesNotBlockTheNext) {
    const ENDPOINT Receiver = opened(receiver("239.1.1.1", 5000, "127.0.0.1", 200)),
                   Sender = opened(sender());
    KTNET_PACKET Received{};
    EXPECT_EQ(ktn_xapi_ktnet_rx_data(Receiver.get(), &Received), -ETIMEDOUT);
    for (const BAD_FRAME &Bad : badFrames()) {
        give(Sender, Bad.bytes());
        give(Sender, FrameBytes);
        EXPECT_EQ(ktn_xapi_ktnet_rx_data(Receiver.get(), &Received), -EPROTO) << Bad.pszWhat;
        EXPECT_EQ(Received.pPayload, nullptr) << Bad.pszWhat;
        EXPECT_EQ(ktn_xapi_ktnet_rx_data(Receiver.get(), &Received), 1) << Bad.pszWhat;
        EXPECT_EQ(payloadOf(Received), (BYTES{'a', 'b', 'c'})) << Bad.pszWhat;
    }
}

// A connected unicast socket reports the ICMP answer to one datagram at the next: that one must go all the
// same.
TEST(Udp, UnicastReceiverThatComesLateGetsTheNextDatagram) {
    const ENDPOINT Sender = opened(sender("127.0.0.1", 6000));
    for (unsigned char c = 1; c <= 3; c++)
        EXPECT_EQ(give(Sender, {c}), 1) << "nobody listens yet";
    const ENDPOINT Receiver = opened(receiver("127.0.0.1", 6000));
    EXPECT_EQ(give(Sender, {4}), 1);
    EXPECT_EQ(take(Receiver), BYTES{4});
    EXPECT_EQ(ktn_xapi_ktnet_create(receiver("127.0.0.1", 6000).get()), -EADDRINUSE)
        << "one receiver, not two by turns";
}

TEST(Udp, AddressesThatAreNoneAreRefused) {
    const std::pair<const char *, unsigned int> Cases[] = {
        {"", 5000},          {"239.1.1", 5000},  {"239.1.1.1 ", 5000},    {"256.1.1.1", 5000},
        {"::1", 5000},       {"0.0.0.0", 5000},  {"239.1.1.1", 0},        {"239.1.1.1", 70000},
        {"localhost", 5000}, {"-1.2.3.4", 5000}, {"239.1.1.1:5000", 5000}};
    for (const auto &[pszAddress, uiPort] : Cases) {
        for (const unsigned int uiListen : {0u, 1u}) {
            const ENDPOINT Desc = endpoint(KTNET_KIND_UDP, pszAddress, "127.0.0.1", uiPort, uiListen);
            EXPECT_EQ(ktn_xapi_ktnet_create(Desc.get()), -EINVAL) << pszAddress << " " << uiPort;
            EXPECT_EQ(Desc->iSocket, -1);
            EXPECT_EQ(give(Desc, {1}), -EBADF) << "a failed endpoint carries nothing";
        }
    }
    EXPECT_EQ(ktn_xapi_ktnet_create(receiver("192.0.2.1").get()), -EADDRNOTAVAIL);
    EXPECT_EQ(ktn_xapi_ktnet_create(sender(std::string(128, '1')).get()), -ENAMETOOLONG);
}

TEST(Udp, GroupThatCanNotBeJoinedIsAnErrorThatNamesIt) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(ktn_xapi_ktnet_create(receiver("239.1.1.1", 5000, "10.9.8.7").get()), -ENODEV);
    EXPECT_EQ(ktn_xapi_ktnet_create(receiver("239.1.1.1", 5000, "nosuch0").get()), -ENODEV);
    const std::string Printed = testing::internal::GetCapturedStderr();
    EXPECT_NE(Printed.find("can not join 239.1.1.1:5000 on 10.9.8.7: No such device"), std::string::npos)
        << Printed;
    EXPECT_NE(Printed.find("\"nosuch0\""), std::string::npos) << Printed;
}

TEST(Udp, SendingInterfaceComesFromTheEnvironmentElseFromTheRoutes) {
    ASSERT_EQ(std::system("ip route del 224.0.0.0/4"), 0);
    const ENDPOINT Receiver = opened(receiver());
    testing::internal::CaptureStderr();
    EXPECT_EQ(ktn_xapi_ktnet_create(sender().get()), -ENETUNREACH);
    EXPECT_NE(testing::internal::GetCapturedStderr().find("KTNET_MULTICAST_IF can name"), std::string::npos);
    for (const char *pszInterface : {"lo", "127.0.0.1"}) {
        setenv("KTNET_MULTICAST_IF", pszInterface, 1);
        EXPECT_EQ(give(opened(sender()), {7}), 1);
        EXPECT_EQ(take(Receiver), BYTES{7}) << pszInterface;
    }
    for (const char *pszInterface : {"nosuch0", "10.9.8.7"}) {
        setenv("KTNET_MULTICAST_IF", pszInterface, 1);
        EXPECT_LT(ktn_xapi_ktnet_create(sender().get()), 0) << pszInterface;
    }
    opened(sender("127.0.0.1")); // a plain address takes no interface
    unsetenv("KTNET_MULTICAST_IF");
    EXPECT_EQ(std::system("ip route add 224.0.0.0/4 dev lo"), 0);
}

// 100 ms of 1316-byte datagrams at 400 Mbit/s, as far as this kernel gives the room; if it does not, it is
// said.
TEST(Udp, StallOfTheReaderLosesNothing) {
    testing::internal::CaptureStderr();
    const ENDPOINT Receiver = opened(receiver()), Sender = opened(sender());
    const std::string Printed = testing::internal::GetCapturedStderr();
    const int iWanted = 3799, iRoom = option(Receiver, SOL_SOCKET, SO_RCVBUF) / 2304;
    EXPECT_EQ(Printed.find("raise net.core.rmem_max") != std::string::npos, iRoom < iWanted * 9 / 10)
        << Printed;
    const int iSent = std::min(iWanted, iRoom);
    for (int i = 0; i < iSent; i++)
        ASSERT_EQ(give(Sender, BYTES(1316, static_cast<unsigned char>(i))), 1316);
    for (int i = 0; i < iSent; i++)
        ASSERT_EQ(take(Receiver, 0), BYTES(1316, static_cast<unsigned char>(i))) << i << " of " << iSent;
}

} // namespace

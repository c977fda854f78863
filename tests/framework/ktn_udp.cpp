// Tests of KTNet over UDP, multicast and unicast.
#include "ktn_support.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <netinet/in.h>
#include <thread>
#include <tuple>

namespace {

Endpoint makeSender(const std::string &address = "239.1.1.1", unsigned int uiPort = 5000) {
    return makeEndpoint(KTNET_KIND_UDP, address, "", uiPort, 0);
}
Endpoint makeReceiver(const std::string &address = "239.1.1.1", unsigned int uiPort = 5000,
                      const std::string &local = "127.0.0.1", unsigned int uiTimeoutMs = 2000) {
    return makeEndpoint(KTNET_KIND_UDP, address, local, uiPort, 1, uiTimeoutMs);
}
Endpoint opened(Endpoint desc) {
    EXPECT_EQ(ktn_xapi_ktnet_create(desc.get()), 1) << desc->szPeer << ":" << desc->uiPort;
    return desc;
}

// Returns the next datagram of an endpoint. Empty if none comes in time.
Bytes take(const Endpoint &receiver, unsigned int uiTimeoutMs = 2000) {
    Bytes data(65536);
    if (ktn_xapi_rx_poll_socket(receiver->iSocket, uiTimeoutMs) != 1) {
        return {};
    }
    const ssize_t lLength = recv(receiver->iSocket, data.data(), data.size(), 0);
    data.resize(lLength > 0 ? static_cast<std::size_t>(lLength) : 0);
    return data;
}

int give(const Endpoint &sender, Bytes data) {
    KTNET_BUFFER buffer{data.data(), data.size()};
    return ktn_xapi_ktnet_tx_a_packet(sender.get(), 0, &buffer);
}

int option(const Endpoint &desc, int iLevel, int iOption) {
    int iValue = -1;
    socklen_t uiLength = sizeof iValue;
    getsockopt(desc->iSocket, iLevel, iOption, &iValue, &uiLength);
    return iValue;
}

TEST(Udp, GroupAndPortAloneAreReceivedByEveryListener) {
    const Endpoint first = opened(makeReceiver()), second = opened(makeReceiver()),
                   otherGroup = opened(makeReceiver("239.1.1.2")),
                   otherPort = opened(makeReceiver("239.1.1.1", 5001, "lo")), sender = opened(makeSender());
    // The same port at another address: nobody gets it.
    EXPECT_EQ(give(opened(makeSender("127.0.0.1")), {8}), 1);
    EXPECT_EQ(give(sender, {1, 2, 3}), 3);
    EXPECT_EQ(give(sender, {}), 1) << "an empty datagram is sent too";
    EXPECT_EQ(take(first), (Bytes{1, 2, 3}));
    EXPECT_EQ(ktn_xapi_rx_poll_socket(first->iSocket, 1000), 1);
    EXPECT_EQ(take(second), (Bytes{1, 2, 3}));
    EXPECT_EQ(take(otherGroup, 50), Bytes{});
    EXPECT_EQ(take(otherPort, 0), Bytes{});
}

TEST(Udp, HopLimitAndLoopAreTakenOrRefused) {
    const Endpoint sender = opened(makeSender());
    EXPECT_EQ(option(sender, IPPROTO_IP, IP_MULTICAST_LOOP), 1);
    for (const auto &[iFamily, iHops, iOn] : {std::tuple{0, 0, 0}, {AF_INET, 255, 1}, {0, 5, 0}}) {
        EXPECT_EQ(ktn_xapi_hops_socket(iFamily, sender->iSocket, iHops, iOn), 1);
        EXPECT_EQ(option(sender, IPPROTO_IP, IP_MULTICAST_TTL), iHops);
        EXPECT_EQ(option(sender, IPPROTO_IP, IP_MULTICAST_LOOP), iOn);
    }
    EXPECT_EQ(ktn_xapi_hops_socket(0, sender->iSocket, 256, 1), -EINVAL);
    EXPECT_EQ(ktn_xapi_hops_socket(AF_INET6, sender->iSocket, 5, 1), -EAFNOSUPPORT);
    EXPECT_EQ(ktn_xapi_hops_socket(0, -1, 5, 1), -EBADF);
    EXPECT_EQ(ktn_xapi_rx_poll_socket(-1, 0), -EBADF);
}

TEST(Udp, FrameIsOneDatagramByteForByte) {
    const Endpoint receiver = opened(makeReceiver()), sender = opened(makeSender());
    Bytes payload = {'a', 'b', 'c'};
    KTNET_PACKET packet = packetOf(payload);
    ASSERT_EQ(ktn_xapi_ktnet_tx_data(sender.get(), &packet), 1);
    EXPECT_EQ(take(receiver), kFrameBytes);

    for (const std::size_t ulSize : {std::size_t{0}, std::size_t{KTNET_UDP_FRAME_MAX - 28}}) {
        payload.assign(ulSize, 0x5A);
        packet = packetOf(payload);
        ASSERT_EQ(ktn_xapi_ktnet_tx_data(sender.get(), &packet), 1);
        KTNET_PACKET received{};
        ASSERT_EQ(ktn_xapi_ktnet_rx_data(receiver.get(), &received), 1);
        EXPECT_EQ(received.uiParam, 0x01020304u);
        EXPECT_EQ(payloadOf(received), payload);
    }
    payload.push_back(0);
    packet = packetOf(payload);
    EXPECT_EQ(ktn_xapi_ktnet_tx_data(sender.get(), &packet), -EMSGSIZE);
    EXPECT_EQ(give(sender, Bytes(KTNET_UDP_FRAME_MAX + 1)), -EMSGSIZE);
    EXPECT_EQ(sender->uiError, static_cast<unsigned int>(EMSGSIZE));
}

TEST(Udp, DatagramThatIsNoFrameDoesNotBlockTheNext) {
    const Endpoint receiver = opened(makeReceiver("239.1.1.1", 5000, "127.0.0.1", 200)),
                   sender = opened(makeSender());
    KTNET_PACKET received{};
    testing::internal::CaptureStderr();
    EXPECT_EQ(ktn_xapi_ktnet_rx_data(receiver.get(), &received), -ETIMEDOUT);
    for (const BadFrame &bad : badFrames()) {
        give(sender, bad.bytes());
        give(sender, kFrameBytes);
        EXPECT_EQ(ktn_xapi_ktnet_rx_data(receiver.get(), &received), -EPROTO) << bad.pszWhat;
        EXPECT_EQ(received.pPayload, nullptr) << bad.pszWhat;
        EXPECT_EQ(ktn_xapi_ktnet_rx_data(receiver.get(), &received), 1) << bad.pszWhat;
        EXPECT_EQ(payloadOf(received), (Bytes{'a', 'b', 'c'})) << bad.pszWhat;
    }
    EXPECT_EQ(reported("^.*: "),
              "$shorter than a frame header\n$does not begin with KTNF\n$another frame version\n"
              "$another header length\n$payload length and bytes present do not agree\n");
}

// A connected unicast socket reports the ICMP answer to one datagram when it sends the next. That next
// datagram must go out all the same.
TEST(Udp, UnicastReceiverThatComesLateGetsTheNextDatagram) {
    const Endpoint sender = opened(makeSender("127.0.0.1", 6000));
    for (unsigned char c = 1; c <= 3; c++) {
        EXPECT_EQ(give(sender, {c}), 1) << "nobody listens yet";
    }
    const Endpoint receiver = opened(makeReceiver("127.0.0.1", 6000));
    EXPECT_EQ(give(sender, {4}), 1);
    EXPECT_EQ(take(receiver), Bytes{4});
    EXPECT_EQ(ktn_xapi_ktnet_create(makeReceiver("127.0.0.1", 6000).get()), -EADDRINUSE)
        << "one receiver, not two by turns";
}

TEST(Udp, AddressesThatAreNoneAreRefused) {
    const std::pair<const char *, unsigned int> cases[] = {
        {"", 5000},          {"239.1.1", 5000},  {"239.1.1.1 ", 5000},    {"256.1.1.1", 5000},
        {"::1", 5000},       {"0.0.0.0", 5000},  {"239.1.1.1", 0},        {"239.1.1.1", 70000},
        {"localhost", 5000}, {"-1.2.3.4", 5000}, {"239.1.1.1:5000", 5000}};
    EXPECT_EQ(ktn_xapi_ktnet_create(makeSender(std::string(128, '1')).get()), -ENAMETOOLONG);
    testing::internal::CaptureStderr();
    for (const auto &[pszAddress, uiPort] : cases) {
        for (const unsigned int uiListen : {0u, 1u}) {
            const Endpoint desc = makeEndpoint(KTNET_KIND_UDP, pszAddress, "127.0.0.1", uiPort, uiListen);
            EXPECT_EQ(ktn_xapi_ktnet_create(desc.get()), -EINVAL) << pszAddress << " " << uiPort;
            EXPECT_EQ(desc->iSocket, -1);
            EXPECT_EQ(give(desc, {1}), -EBADF) << "a failed endpoint carries nothing";
        }
    }
    EXPECT_EQ(ktn_xapi_ktnet_create(makeReceiver("192.0.2.1").get()), -EADDRNOTAVAIL);
    EXPECT_EQ(ktn_xapi_ktnet_create(opened(makeSender()).get()), -EALREADY);
    EXPECT_EQ(ktn_xapi_ktnet_create(makeEndpoint(7, "", "", 0, 0).get()), -EINVAL);
    EXPECT_EQ(
        reported(R"("[^"]*"|(239.1.1.1 |[^ ]*):\d+)"),
        "udpOpenSender: $ is no IPv4 address (four numbers with dots)\n"
        "ktn_xapi_ktnet_tx_a_packet: datagram not sent to $: Bad file descriptor\n"
        "udpOpenReceiver: $ is no IPv4 address (four numbers with dots)\n"
        "udpOpenSender: $ names no target: neither the address nor the port may be zero\n"
        "udpOpenReceiver: $ names no target: neither the address nor the port may be zero\n"
        "ktn_xapi_ktnet_create: 239.1.1.1: 70000 is no UDP port\n"
        "udpOpenReceiver: can not receive on $: neither a multicast group nor an address of this machine\n"
        "ktn_xapi_ktnet_create: the endpoint has a socket already\n"
        "ktn_xapi_ktnet_create: there is no endpoint of kind 0x7\n");
}

TEST(Udp, GroupThatCanNotBeJoinedIsAnErrorThatNamesIt) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(ktn_xapi_ktnet_create(makeReceiver("239.1.1.1", 5000, "10.9.8.7").get()), -ENODEV);
    EXPECT_EQ(ktn_xapi_ktnet_create(makeReceiver("239.1.1.1", 5000, "nosuch0").get()), -ENODEV);
    ASSERT_EQ(std::system("ip route del 224.0.0.0/4"), 0);
    EXPECT_EQ(ktn_xapi_ktnet_create(makeReceiver("239.1.1.1", 5000, "").get()), -ENODEV);
    EXPECT_EQ(std::system("ip route add 224.0.0.0/4 dev lo"), 0);
    opened(makeReceiver("239.1.1.1", 5000, ""));
    EXPECT_EQ(
        reported(),
        "udpOpenReceiver: can not join 239.1.1.1:5000 on 10.9.8.7: No such device\n"
        "udpOpenReceiver: \"nosuch0\" (given) is neither a network interface nor an address of "
        "this machine\n"
        "udpOpenReceiver: can not join 239.1.1.1:5000 on the routing table's interface: No such device (no "
        "route leads to 224.0.0.0/4)\n");
}

TEST(Udp, SendingInterfaceComesFromTheEnvironmentElseFromTheRoutes) {
    ASSERT_EQ(std::system("ip route del 224.0.0.0/4"), 0);
    const Endpoint receiver = opened(makeReceiver());
    testing::internal::CaptureStderr();
    EXPECT_EQ(ktn_xapi_ktnet_create(makeSender().get()), -ENETUNREACH);
    EXPECT_EQ(reported(), "udpOpenSender: no way to 239.1.1.1:5000: Network is unreachable "
                          "(KTNET_MULTICAST_IF can name the sending interface)\n");
    for (const char *pszInterface : {"lo", "127.0.0.1"}) {
        setenv("KTNET_MULTICAST_IF", pszInterface, 1);
        EXPECT_EQ(give(opened(makeSender()), {7}), 1);
        EXPECT_EQ(take(receiver), Bytes{7}) << pszInterface;
    }
    testing::internal::CaptureStderr();
    for (const char *pszInterface : {"nosuch0", "10.9.8.7"}) {
        setenv("KTNET_MULTICAST_IF", pszInterface, 1);
        EXPECT_LT(ktn_xapi_ktnet_create(makeSender().get()), 0) << pszInterface;
    }
    EXPECT_EQ(reported(),
              "udpOpenSender: \"nosuch0\" (from KTNET_MULTICAST_IF) is neither a network interface nor "
              "an address of this machine\nudpOpenSender: can not send to 239.1.1.1 through "
              "\"10.9.8.7\" (from KTNET_MULTICAST_IF): Cannot assign requested address\n");
    opened(makeSender("127.0.0.1")); // a plain address needs no interface
    unsetenv("KTNET_MULTICAST_IF");
    EXPECT_EQ(std::system("ip route add 224.0.0.0/4 dev lo"), 0);
}

// The reader stalls for 100 ms of 1316-byte datagrams at 400 Mbit/s. If this kernel gives less room, the
// framework must say so; the test then sends what has room.
TEST(Udp, StallOfTheReaderLosesNothing) {
    testing::internal::CaptureStderr();
    const Endpoint receiver = opened(makeReceiver()), sender = opened(makeSender());
    const std::string printed = testing::internal::GetCapturedStderr();
    const int iWanted = 3799, iRoom = option(receiver, SOL_SOCKET, SO_RCVBUF) / 2304;
    EXPECT_EQ(printed.find("raise net.core.rmem_max") != std::string::npos, iRoom < iWanted * 9 / 10)
        << printed;
    const int iSent = std::min(iWanted, iRoom);
    for (int i = 0; i < iSent; i++) {
        ASSERT_EQ(give(sender, Bytes(1316, static_cast<unsigned char>(i))), 1316);
    }
    for (int i = 0; i < iSent; i++) {
        ASSERT_EQ(take(receiver, 0), Bytes(1316, static_cast<unsigned char>(i))) << i << " of " << iSent;
    }
}

TEST(Udp, ReceiveBufferIsAskedForAndASmallOneIsSaid) {
    const Endpoint first = opened(makeReceiver("127.0.0.1")), plain = opened(makeSender());
    const int iAsked = 3799 * 2304; // the kernel doubles it, or gives what it may
    if (setsockopt(plain->iSocket, SOL_SOCKET, SO_RCVBUFFORCE, &iAsked, sizeof iAsked) != 0) {
        setsockopt(plain->iSocket, SOL_SOCKET, SO_RCVBUF, &iAsked, sizeof iAsked);
    }
    EXPECT_EQ(option(first, SOL_SOCKET, SO_RCVBUF), option(plain, SOL_SOCKET, SO_RCVBUF));
    testing::internal::CaptureStderr();
    for (const int iGiven : {7'877'601, 7'877'600}) { // nine tenths of it do
        faults().iBuffer = iGiven;
        opened(makeReceiver("127.0.0.1", 5001));
    }
    faults().iBuffer = -1;
    EXPECT_EQ(reported(),
              "udpOpenReceiver: 127.0.0.1:5001: the kernel gives a receive buffer of 7877600 bytes; 8752896 "
              "ride out a 100 ms stall at 400 Mbit/s: raise net.core.rmem_max to 8752896\n");
}

// Programs that read the socket themselves must not hang on it.
TEST(Udp, SocketsOwnTimeOutsAreTheDescriptors) {
    for (const Endpoint &desc : {opened(makeReceiver("239.1.1.1", 5000, "127.0.0.1", 1250)),
                                 opened(makeEndpoint(KTNET_KIND_UDP, "239.1.1.1", "", 5000, 0, 1250))}) {
        for (const int iOption : {SO_RCVTIMEO, SO_SNDTIMEO}) {
            timeval bound{};
            socklen_t uiLength = sizeof bound;
            getsockopt(desc->iSocket, SOL_SOCKET, iOption, &bound, &uiLength);
            EXPECT_EQ(bound.tv_sec, 1);
            EXPECT_NEAR(static_cast<double>(bound.tv_usec), 250'000, 10'000);
        }
    }
}

TEST(Udp, ShortFaultIsRiddenOutAndALongOneHoldsUpOnce) {
    const Endpoint receiver = opened(makeReceiver()), sender = opened(makeSender());
    Bytes payload = {'a', 'b', 'c'};
    KTNET_PACKET packet = packetOf(payload);
    for (const int iErrno : {ENOBUFS, ENOMEM, ENETDOWN, ENETUNREACH, ENODEV, EADDRNOTAVAIL}) {
        faults().iSendErrno = iErrno;
        std::thread mending([] {
            std::this_thread::sleep_for(200ms);
            faults().iSendErrno = 0;
        });
        const Stopwatch watch;
        EXPECT_EQ(iErrno == ENOBUFS ? ktn_xapi_ktnet_tx_data(sender.get(), &packet) : give(sender, {1}), 1);
        EXPECT_GE(watch.spent(), 150ms) << std::strerror(iErrno);
        mending.join();
        EXPECT_EQ(take(receiver), iErrno == ENOBUFS ? kFrameBytes : Bytes{1}) << "once, and unharmed";
    }
    for (const auto &[iErrno, first] : {std::pair{ENOBUFS, 490ms}, {ENETDOWN, 490ms}, {EPERM, 0ms}}) {
        faults().iSendErrno = iErrno;
        const Stopwatch firstWatch;
        EXPECT_EQ(give(sender, {2}), -iErrno);
        EXPECT_GE(firstWatch.spent(), first);
        EXPECT_LT(firstWatch.spent(), first + 400ms);
        const Stopwatch laterWatch;
        for (int i = 0; i < 100; i++) {
            EXPECT_EQ(give(sender, {3}), -iErrno);
        }
        EXPECT_LT(laterWatch.spent(), 200ms);
        faults().iSendErrno = 0;
        EXPECT_EQ(give(sender, {4}), 1);
        EXPECT_EQ(take(receiver), Bytes{4});
    }
}

// A cable modem, a VPN or a bridge may take an interface away and make it again, with another number and
// another address.
TEST(Udp, InterfaceThatIsMadeAgainIsFoundAgain) {
    const auto make = [](const char *pszAddress) {
        const std::string address = pszAddress;
        return std::system(("ip link add ktn0 type veth peer name ktn1 && ip address add " + address +
                            "/24 dev ktn0 && ip link set ktn0 up && ip link set ktn1 up && ip route replace "
                            "239.5.0.0/16 dev ktn0 src " +
                            address)
                               .c_str()) == 0;
    };
    for (const bool bNamed : {true, false}) {
        if (!make("10.77.0.1")) {
            GTEST_SKIP() << "this kernel has no veth interfaces";
        }
        if (bNamed) {
            setenv("KTNET_MULTICAST_IF", "ktn0", 1);
        } else {
            unsetenv("KTNET_MULTICAST_IF");
        }
        const Endpoint sender = opened(makeSender("239.5.1.1"));
        ASSERT_EQ(ktn_xapi_hops_socket(0, sender->iSocket, 5, 1), 1);
        EXPECT_EQ(give(sender, {1}), 1);
        ASSERT_EQ(std::system("ip link del ktn0"), 0);
        if (bNamed) {
            EXPECT_LT(give(sender, {2}), 0);
        }
        ASSERT_TRUE(make("10.77.0.2"));
        const Endpoint receiver = opened(makeReceiver("239.5.1.1", 5000, "ktn0"));
        const Stopwatch watch;
        while (give(sender, {3}) < 0 && watch.spent() < 3s) {
            std::this_thread::sleep_for(5ms);
        }
        EXPECT_LT(watch.spent(), 1500ms) << bNamed;
        EXPECT_EQ(take(receiver), Bytes{3}) << bNamed;
        EXPECT_EQ(option(sender, IPPROTO_IP, IP_MULTICAST_TTL), 5);
        EXPECT_EQ(std::system("ip link del ktn0"), 0);
    }
}

} // namespace

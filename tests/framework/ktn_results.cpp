// Tests of what the KTNet calls answer: to wrong arguments, and when the system or the memory fails.
#include "ktn_support.h"

#include <qxapi_ktn_frame.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <netinet/in.h>

namespace {

const std::string kPath = testing::TempDir() + "ktn_results";

Endpoint local(unsigned int uiListen, unsigned int uiTimeoutMs = 200) {
    return makeEndpoint(KTNET_KIND_LOCAL, kPath, kPath, 0, uiListen, uiTimeoutMs);
}
Endpoint udp(unsigned int uiListen, const char *pszAddress = "127.0.0.1") {
    return makeEndpoint(KTNET_KIND_UDP, pszAddress, "127.0.0.1", 5100, uiListen, 0);
}
Endpoint opened(Endpoint desc) {
    EXPECT_EQ(ktn_xapi_ktnet_create(desc.get()), 1);
    return desc;
}
int create(const Endpoint &desc) {
    return ktn_xapi_ktnet_create(desc.get());
}
bool isClosedOnExec(int iFile) {
    return (fcntl(iFile, F_GETFD) & FD_CLOEXEC) != 0;
}

TEST(Results, WrongArgumentsAreNamedByTheirNumber) {
    const Endpoint fresh = local(0), listener = local(1), datagram = udp(0);
    std::memset(fresh->szLocal, 'x', sizeof fresh->szLocal);
    KTNET_ENDPOINT foreign{}, *pForeign = &foreign, *pNone = nullptr, *pOut = &foreign;
    KTNET_PACKET packet{}, empty{};
    packet.ulPayloadLen = 1;
    KTNET_BUFFER buffer{};
    struct Row {
        int iResult, iExpected;
        unsigned int uiError = 1; // right after the call, what the endpoint keeps of it; 1 not asked
    };
    testing::internal::CaptureStderr();
    const Row rows[] = {
        {ktn_xapi_ktnet_init_with_version(nullptr, 0, 2), -1},
        {ktn_xapi_ktnet_init_with_version(&pOut, 0, 1), -1},
        {ktn_xapi_ktnet_create(nullptr), -EINVAL},
        {ktn_xapi_ktnet_create(&foreign), -EINVAL},
        {create(fresh), -ENAMETOOLONG, fresh->uiError},
        {ktn_xapi_ktnet_accept(listener.get(), nullptr), -EINVAL},
        {ktn_xapi_ktnet_accept(nullptr, &pOut), -EINVAL},
        {ktn_xapi_ktnet_accept(listener.get(), &pOut), -EOPNOTSUPP, listener->uiError},
        {ktn_xapi_ktnet_connect(nullptr), -EINVAL},
        {ktn_xapi_ktnet_connect(listener.get()), -EOPNOTSUPP, listener->uiError},
        {ktn_xapi_ktnet_connect(datagram.get()), -EOPNOTSUPP, datagram->uiError},
        {ktn_xapi_ktnet_close(nullptr), 0},
        {ktn_xapi_ktnet_close(fresh.get()), 0},
        {ktn_xapi_ktnet_delete(nullptr), 0},
        {ktn_xapi_ktnet_delete(&pNone), 0},
        {ktn_xapi_ktnet_delete(&pForeign), 0},
        {ktn_xapi_ktnet_rx_data(nullptr, &packet), -EINVAL},
        {ktn_xapi_ktnet_rx_data(fresh.get(), nullptr), -EINVAL},
        {ktn_xapi_ktnet_rx_data(fresh.get(), &empty), -ENOTCONN, fresh->uiError},
        {ktn_xapi_ktnet_tx_data(nullptr, &packet), -EINVAL},
        {ktn_xapi_ktnet_tx_data(fresh.get(), nullptr), -EINVAL},
        {ktn_xapi_ktnet_tx_data(fresh.get(), &packet), -EINVAL, fresh->uiError},
        {ktn_xapi_ktnet_tx_data(fresh.get(), &empty), -ENOTCONN, fresh->uiError},
        {ktn_xapi_ktnet_tx_a_packet(nullptr, 0, &buffer), -EINVAL},
        {ktn_xapi_ktnet_tx_a_packet(datagram.get(), 0, nullptr), -EINVAL},
        {ktn_xapi_ktnet_tx_a_packet(datagram.get(), 1, &buffer), -EOPNOTSUPP, datagram->uiError},
        {ktn_xapi_ktnet_tx_a_packet(fresh.get(), 0, &buffer), -EOPNOTSUPP, fresh->uiError},
        {ktn_xapi_rx_poll_socket(1000, 1000), -EBADF},
        {ktn_xapi_hops_socket(0, 0, -1, 1), -EINVAL},
        {ktn_xapi_hops_socket(0, 0, 5, 1), -ENOTSOCK},
    };
    for (std::size_t ul = 0; ul < std::size(rows); ul++) {
        EXPECT_EQ(rows[ul].iResult, rows[ul].iExpected) << "row " << ul;
        EXPECT_TRUE(rows[ul].uiError == 1 || static_cast<int>(rows[ul].uiError) == -rows[ul].iExpected)
            << "row " << ul;
    }
    EXPECT_EQ(pOut, nullptr);
    EXPECT_EQ(pForeign, &foreign);
    EXPECT_EQ(packet.uiStatus, static_cast<unsigned int>(EINVAL));
    EXPECT_EQ(empty.uiStatus, static_cast<unsigned int>(ENOTCONN));
    EXPECT_EQ(reported(kPath),
              "ktn_xapi_ktnet_init_with_version: version 1 is asked for, this library has 2\n"
              "ktn_xapi_ktnet_create: an address is longer than 127 bytes\n"
              "ktn_xapi_ktnet_tx_data: frame not sent to $: Invalid argument\n"
              "ktn_xapi_ktnet_tx_data: frame not sent to $: Transport endpoint is not connected\n"
              "ktn_xapi_hops_socket: hop limit 5 not set: Socket operation on non-socket\n");
}

TEST(Results, DefaultsAndTextsAreTheDocumentedOnes) {
    KTNET_ENDPOINT *pDesc = nullptr;
    const long lObjects = faults().lObjects;
    ASSERT_EQ(ktn_xapi_ktnet_init_with_version(&pDesc, 1, 2), 1);
    EXPECT_EQ(pDesc->iLibraryMode, 1);
    EXPECT_EQ(pDesc->iLibraryVersion, 2);
    EXPECT_EQ(pDesc->iSocket, -1);
    EXPECT_EQ(pDesc->uiTimeoutMs, 1000u);
    EXPECT_EQ(ktn_xapi_ktnet_delete(&pDesc), 1);
    EXPECT_EQ(pDesc, nullptr);
    EXPECT_EQ(faults().lObjects, lObjects);

    const Endpoint listener = opened(local(1, 1234)), client = opened(local(0)), sender = opened(udp(0));
    const Endpoint group = opened(udp(1, "239.1.1.1"));
    ASSERT_EQ(ktn_xapi_ktnet_connect(client.get()), 1);
    Bytes payload = {'a'};
    KTNET_PACKET packet = packetOf(payload);
    ASSERT_EQ(ktn_xapi_ktnet_tx_data(client.get(), &packet), 1);
    ASSERT_EQ(ktn_xapi_ktnet_accept(listener.get(), &pDesc), 1);
    const Endpoint conn(pDesc);
    EXPECT_EQ(conn->uiKind, KTNET_KIND_LOCAL);
    EXPECT_EQ(conn->uiTimeoutMs, 1234u);
    for (const Endpoint *pOpen : {&listener, &client, &sender, &group, &conn}) {
        EXPECT_TRUE(isClosedOnExec((*pOpen)->iSocket));
    }
    int iOption = -1, iPlain = -1;
    socklen_t uiLength = sizeof iOption;
    getsockopt(group->iSocket, IPPROTO_IP, IP_MULTICAST_ALL, &iOption, &uiLength);
    EXPECT_EQ(iOption, 0);
    const int iSize = 2 * 1024 * 1024; // of a plain socket, as far as this kernel gives it
    setsockopt(group->iSocket, SOL_SOCKET, SO_SNDBUF, &iSize, sizeof iSize);
    getsockopt(group->iSocket, SOL_SOCKET, SO_SNDBUF, &iPlain, &uiLength);
    getsockopt(sender->iSocket, SOL_SOCKET, SO_SNDBUF, &iOption, &uiLength);
    EXPECT_EQ(iOption, iPlain);
    EXPECT_EQ(ktn_xapi_ktnet_close(sender.get()), 1);
    KTNET_BUFFER buffer{payload.data(), 1};
    EXPECT_EQ(ktn_xapi_ktnet_tx_a_packet(sender.get(), 0, &buffer), -EBADF);

    packet.ulPayloadLen = 3;
    packet.uiStatus = 9;
    testing::internal::CaptureStdout();
    ktn_xapi_dump_packet_info(&packet);
    ktn_xapi_dump_packet_info(nullptr);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "KTNET_PACKET: ident 200 service 205 command 0x40020 param 16909060 payload 3 bytes status 9\n"
              "KTNET_PACKET: NULL\n");
    std::string texts;
    for (int iResult = 1; iResult >= -6; iResult--) {
        texts += std::string(ktn_xapi_frame_text(iResult)) + "\n";
    }
    EXPECT_EQ(texts, "good\nno frame result\nshorter than a frame header\ndoes not begin with KTNF\n"
                     "another frame version\nanother header length\n"
                     "payload length and bytes present do not agree\nno frame result\n");
}

// One call of the system fails. The answer is its errno, the report names it, and nothing stays behind.
TEST(Results, FailureOfTheSystemIsNamedAndLeavesNothing) {
    const auto stale = [] { return PlainSocket(kPath).bindTo(); };
    const auto receive = [](const Endpoint &desc) {
        KTNET_PACKET packet{};
        const int iResult = ktn_xapi_ktnet_rx_data(desc.get(), &packet);
        EXPECT_EQ(payloadOf(packet), iResult == 1 ? (Bytes{'a', 'b', 'c'}) : Bytes{});
        return iResult;
    };
    // Opens a listener, lets a client send a frame, and receives it.
    const auto serve = [&](bool bPoll = false, bool bMemory = false) {
        const Endpoint listener = opened(local(1)), client = opened(local(0));
        Bytes payload = {'a', 'b', 'c'};
        KTNET_PACKET sent = packetOf(payload);
        KTNET_ENDPOINT *pConn = nullptr;
        if (bMemory) {
            failOnce("new", 0);
        }
        const int iResults[] = {ktn_xapi_ktnet_connect(client.get()),
                                ktn_xapi_ktnet_tx_data(client.get(), &sent)};
        const int iPoll = bPoll ? ktn_xapi_rx_poll_socket(listener->iSocket, 100) : 1;
        const int iAccept = ktn_xapi_ktnet_accept(listener.get(), &pConn);
        const Endpoint conn(pConn);
        EXPECT_TRUE(pConn != nullptr || iAccept != 1);
        for (const int iResult : {iResults[0], iResults[1], iPoll, iAccept}) {
            if (iResult != 1) {
                return iResult;
            }
        }
        const int iReceived = receive(conn);
        EXPECT_EQ(iReceived == 1 ? 0u : static_cast<unsigned int>(-iReceived), conn->uiError);
        return iReceived;
    };
    const auto serves = [&] { return serve(); };
    const auto listens = [] { return create(local(1)); };
    const auto listensAgain = [&] { return stale() ? create(local(1)) : 0; };
    const auto datagram = [&] {
        const Endpoint receiver = opened(udp(1)), sender = opened(udp(0));
        Bytes payload = {'a', 'b', 'c'};
        KTNET_PACKET sent = packetOf(payload);
        return ktn_xapi_ktnet_tx_data(sender.get(), &sent) == 1 ? receive(receiver) : 0;
    };
    const struct {
        const char *pszCall;
        int iErrno, iPass;
        std::function<int()> act;
        int iResult;
        std::string report; // $ for the path
    } rows[] = {
        {"socket", EMFILE, 0, [&] { return create(udp(0)); }, -EMFILE,
         "udpOpenSender: no socket for 127.0.0.1:5100: Too many open files\n"},
        {"socket", EMFILE, 0, [&] { return create(udp(1)); }, -EMFILE,
         "udpOpenReceiver: no socket for 127.0.0.1:5100: Too many open files\n"},
        {"setsockopt", EPERM, 1, [&] { return create(udp(0, "239.1.1.1")); }, -EPERM,
         "udpOpenSender: 239.1.1.1: can not set the hop limit -1: Operation not permitted\n"},
        {"socket", EMFILE, 0, [&] { return create(local(0)); }, -EMFILE,
         "ktn_xapi_ktnet_create: no socket for a local client: Too many open files\n"},
        {"socket", EMFILE, 0, listens, -EMFILE,
         "ktn_xapi_ktnet_create: can not listen at $: Too many open files\n"},
        {"bind", EPERM, 0, listens, -EPERM,
         "ktn_xapi_ktnet_create: can not listen at $: Operation not permitted\n"},
        {"listen", ENOBUFS, 0, [&] { return create(local(1)) + std::filesystem::exists(kPath); }, -ENOBUFS,
         "ktn_xapi_ktnet_create: can not listen at $: No buffer space available\n"},
        {"flock", ENOLCK, 0, listens, -ENOLCK,
         "ktn_xapi_ktnet_create: another start holds $.lock: No locks available\n"},
        {"flock", EINTR, 0, listens, 1, ""},
        {"unlink", EPERM, 0, listensAgain, -EPERM,
         "ktn_xapi_ktnet_create: can not remove the stale $: Operation not permitted\n"},
        {"unlink", ENOENT, 0, listensAgain, -EADDRINUSE,
         "ktn_xapi_ktnet_create: can not listen at $: Address already in use\n"},
        {"connect", ENOENT, 0, listensAgain, 1, ""},
        {"socket", ENFILE, 1, listensAgain, -ENFILE,
         "ktn_xapi_ktnet_create: $ can not be probed: Too many open files in system; it is left alone\n"},
        {"connect", EINTR, 0, serves, 1, ""},
        {"sendmsg", EINTR, 0, serves, 1, ""},
        {"sendmsg", EAGAIN, 0, serves, 1, ""},
        {"sendmsg", EIO, 0, serves, -EIO,
         "ktn_xapi_ktnet_tx_data: frame not sent to $: Input/output error\n"},
        {"accept4", ENFILE, 0, serves, -ENFILE,
         "ktn_xapi_ktnet_accept: no connection taken: Too many open files in system\n"},
        {"accept4", ENOBUFS, 0, [&] { return serve(true); }, 1,
         "ktn_xapi_ktnet_accept: no connection taken: No buffer space available\n"},
        {"accept4", EINTR, 0, serves, 0, ""},
        {"accept4", ECONNABORTED, 0, serves, 0, ""},
        {"recv", EINTR, 0, serves, 0, ""},      // looks again next time
        {"recv", ECONNRESET, 0, serves, 0, ""}, // gone
        {"recv", EINTR, 1, serves, 1, ""},
        {"recv", EAGAIN, 1, serves, 1, ""},
        {"recv", ECONNRESET, 1, serves, -ECONNRESET,
         "ktn_xapi_ktnet_rx_data: frame not received: Connection reset by peer\n"},
        {nullptr, 0, 0, [&] { return serve(false, true); }, -ENOMEM,
         "ktn_xapi_ktnet_init_with_version: no memory for an endpoint\n"},
        {"recv", EINTR, 0, datagram, 1, ""},
        {"recv", EIO, 0, datagram, -EIO,
         "ktn_xapi_ktnet_rx_data: datagram not received: Input/output error\n"},
        {"recvmsg", EINTR, 0, datagram, 1, ""},
        {"recvmsg", EIO, 0, datagram, -EPROTO, ""},
        {"sendmsg", EINTR, 0, datagram, 1, ""},
        {"poll", ENOMEM, 0, [&] { return ktn_xapi_rx_poll_socket(0, 1000); }, -ENOMEM, ""},
        {"poll", EINTR, 0, [&] { return ktn_xapi_rx_poll_socket(0, 1000); }, 0, ""},
        {"poll", ENOMEM, 0, [&] { return ktn_xapi_rx_poll_socket(opened(local(1))->iSocket, 1000); }, -ENOMEM,
         ""},
        {"poll", EINTR, 0, [&] { return ktn_xapi_rx_poll_socket(opened(local(1))->iSocket, 1000); }, 0, ""},
        {"poll", ENOMEM, 0, [&] { return receive(opened(udp(1))); }, -ENOMEM,
         "ktn_xapi_ktnet_rx_data: datagram not received: Cannot allocate memory\n"},
        {"poll", EINTR, 0, [&] { return receive(opened(udp(1))); }, -ETIMEDOUT, ""},
        {"new", 0, 0,
         [&] {
             KTNET_ENDPOINT foreign, *pDesc = &foreign;
             const int iResult = ktn_xapi_ktnet_init_with_version(&pDesc, 0, 2);
             return pDesc == nullptr ? iResult : 0;
         },
         -1, "ktn_xapi_ktnet_init_with_version: no memory for an endpoint\n"},
    };
    for (std::size_t ul = 0; ul < std::size(rows); ul++) {
        faults().lAhead += 20; // what was reported before is reported again
        testing::internal::CaptureStderr();
        failOnce(rows[ul].pszCall, rows[ul].iErrno, rows[ul].iPass);
        EXPECT_EQ(rows[ul].act(), rows[ul].iResult) << "row " << ul;
        EXPECT_EQ(faults().pszCall.exchange(nullptr), nullptr) << "row " << ul << ": the call was not made";
        EXPECT_EQ(reported(kPath), rows[ul].report) << "row " << ul;
        std::filesystem::remove(kPath);
        std::filesystem::remove(kPath + ".lock");
    }
}

} // namespace

// Tests of KTNet over local stream sockets.
#include "ktn_support.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sys/file.h>
#include <sys/stat.h>
#include <thread>

namespace {

class Local : public testing::Test {
protected:
    void SetUp() override { std::filesystem::create_directories(folder); }
    void TearDown() override { std::filesystem::remove_all(folder); }

    Endpoint makeServer(unsigned int uiTimeoutMs = 2000) {
        return makeEndpoint(KTNET_KIND_LOCAL, "", path, 0, 1, uiTimeoutMs);
    }
    Endpoint serve(unsigned int uiTimeoutMs = 2000) {
        Endpoint server = makeServer(uiTimeoutMs);
        EXPECT_EQ(ktn_xapi_ktnet_create(server.get()), 1);
        return server;
    }
    Endpoint makeClient(unsigned int uiTimeoutMs = 2000) {
        Endpoint client = makeEndpoint(KTNET_KIND_LOCAL, path, "", 0, 0, uiTimeoutMs);
        EXPECT_EQ(ktn_xapi_ktnet_create(client.get()), 1);
        return client;
    }
    static Endpoint acceptFrom(const Endpoint &server) {
        KTNET_ENDPOINT *pConn = nullptr;
        EXPECT_EQ(ktn_xapi_rx_poll_socket(server->iSocket, 2000), 1);
        EXPECT_EQ(ktn_xapi_ktnet_accept(server.get(), &pConn), 1);
        return Endpoint(pConn);
    }
    // Leaves the socket file of a process that is gone.
    void leaveStaleFile() { ASSERT_TRUE(PlainSocket(path).bindTo()); }
    auto filesLeft() const { return std::distance(std::filesystem::directory_iterator(folder), {}); }

    const std::string folder = testing::TempDir() + "ktn_local_test";
    const std::string path = folder + "/socket";
};

TEST_F(Local, FramesOfEverySizeArriveWhole) {
    const Endpoint server = serve();
    for (const std::size_t ulSize :
         {std::size_t{0}, std::size_t{1}, std::size_t{65535}, std::size_t{KTNET_LOCAL_FRAME_MAX - 28}}) {
        Bytes payload(ulSize);
        for (std::size_t i = 0; i < ulSize; i++) {
            payload[i] = static_cast<unsigned char>(i * 7 + i / 256);
        }
        std::thread commander([&] {
            const Endpoint client = makeClient();
            KTNET_PACKET sent = packetOf(payload);
            EXPECT_EQ(ktn_xapi_ktnet_connect(client.get()), 1);
            EXPECT_EQ(ktn_xapi_ktnet_tx_data(client.get(), &sent), 1);
        });
        const Endpoint conn = acceptFrom(server);
        KTNET_PACKET received{};
        EXPECT_EQ(ktn_xapi_ktnet_rx_data(conn.get(), &received), 1);
        commander.join();
        EXPECT_EQ(received.uiIdent, 200u);
        EXPECT_EQ(received.uiService, 205u);
        EXPECT_EQ(received.uiCommand, 0x40020u);
        EXPECT_EQ(received.uiParam, 0x01020304u);
        EXPECT_EQ(received.pPayload == nullptr, ulSize == 0);
        EXPECT_EQ(payloadOf(received), payload);
    }
}

TEST_F(Local, LyingAndCutFramesAreRefused) {
    const Endpoint server = serve();
    testing::internal::CaptureStderr();
    for (const BadFrame &bad : badFrames()) {
        PlainSocket client(path);
        ASSERT_TRUE(client.connectTo() && client.put(bad.bytes()));
        if (bad.iLocal != -EMSGSIZE) { // a frame too long is refused at once, while the client waits
            client.end();
        }
        if (bad.iLocal == 0) { // who closes without a byte is not handed out
            EXPECT_EQ(ktn_xapi_rx_poll_socket(server->iSocket, 20), 0);
            continue;
        }
        const Endpoint conn = acceptFrom(server);
        KTNET_PACKET received{};
        received.pPayload = reinterpret_cast<unsigned char *>(this);
        const Stopwatch watch;
        EXPECT_EQ(ktn_xapi_ktnet_rx_data(conn.get(), &received), bad.iLocal) << bad.pszWhat;
        EXPECT_LT(watch.spent(), 1000ms) << bad.pszWhat;
        EXPECT_EQ(received.pPayload, nullptr) << bad.pszWhat;
        EXPECT_EQ(static_cast<int>(conn->uiError), -bad.iLocal) << bad.pszWhat;
    }
    EXPECT_EQ(reported(), "ktn_xapi_ktnet_rx_data: a client closed in the middle of a frame\n"
                          "ktn_xapi_ktnet_rx_data: a client sent no frame: does not begin with KTNF\n"
                          "ktn_xapi_ktnet_rx_data: a client sent no frame: another frame version\n"
                          "ktn_xapi_ktnet_rx_data: a client sent no frame: another header length\n"
                          "ktn_xapi_ktnet_rx_data: a client announced a frame of more than 1048576 bytes\n");
}

// The receiver serves one client at a time. No client may hold it longer than the time-out, whatever the
// client does.
TEST_F(Local, SilentAndSlowClientsAreGivenUp) {
    const Endpoint server = serve(100);
    testing::internal::CaptureStderr();
    for (const std::ptrdiff_t lAtOnce : {0, 28, 1}) { // the last client sends on, a byte every 20 ms
        PlainSocket client(path);
        ASSERT_TRUE(client.connectTo() &&
                    client.put(Bytes(kFrameBytes.begin(), kFrameBytes.begin() + lAtOnce)));
        std::thread dripping([&] {
            for (std::size_t i = 1; lAtOnce == 1 && i < kFrameBytes.size() && client.put({kFrameBytes[i]});
                 i++) {
                std::this_thread::sleep_for(20ms);
            }
        });
        EXPECT_EQ(ktn_xapi_rx_poll_socket(server->iSocket, 60), 0) << lAtOnce;
        EXPECT_FALSE(client.isClosed()) << lAtOnce;
        EXPECT_EQ(ktn_xapi_rx_poll_socket(server->iSocket, 300), 0) << lAtOnce;
        EXPECT_TRUE(client.isClosed()) << lAtOnce;
        dripping.join();
    }

    PlainSocket stalling(path);
    Bytes part = kFrameBytes;
    part[24] = part[25] = 0xFF; // 65535 bytes of payload and more
    part[26] = 0x08;
    part.resize(70'000);
    ASSERT_TRUE(stalling.connectTo() && stalling.put(part));
    const Endpoint conn = acceptFrom(server);
    KTNET_PACKET received{};
    const Stopwatch watch;
    EXPECT_EQ(ktn_xapi_ktnet_rx_data(conn.get(), &received), -ETIMEDOUT);
    EXPECT_GE(watch.spent(), 95ms);
    EXPECT_LT(watch.spent(), 500ms);
    EXPECT_EQ(reported(), "ktn_xapi_ktnet_accept: a client sent no whole frame within 100 ms\n"
                          "ktn_xapi_ktnet_rx_data: a client sent no whole frame within 100 ms\n");
}

TEST_F(Local, SilentClientsHoldUpNobody) {
    for (const int iSilent : {63, 1000}) {
        const Endpoint server = serve();
        std::deque<PlainSocket> silent;
        for (int i = 0; i < iSilent; i++) {
            ASSERT_TRUE(silent.emplace_back(path).connectTo());
            ASSERT_TRUE(i % 3 != 0 || silent.back().put({'K'})); // some send a byte
        }
        PlainSocket client(path);
        ASSERT_TRUE(client.connectTo() && client.put(kFrameBytes));
        const Stopwatch watch;
        const Endpoint conn = acceptFrom(server);
        EXPECT_LT(watch.spent(), iSilent < 64 ? 500ms : 2000ms) << iSilent;
        KTNET_PACKET received{};
        ASSERT_EQ(ktn_xapi_ktnet_rx_data(conn.get(), &received), 1) << iSilent;
        EXPECT_EQ(payloadOf(received), (Bytes{'a', 'b', 'c'}));
        EXPECT_FALSE(silent.back().isClosed()) << "there was room for this one";
        EXPECT_EQ(silent.front().isClosed(), iSilent > 64) << "the one silent for the longest";
    }
}

TEST_F(Local, ClientsAreServedInTheOrderOfTheirConnections) {
    const Endpoint server = serve();
    std::deque<PlainSocket> clients;
    const auto send = [&](unsigned int uiClient) {
        Bytes frame = kFrameBytes;
        frame.back() = static_cast<unsigned char>('0' + uiClient);
        ASSERT_TRUE(clients[uiClient].put(frame));
    };
    for (int i = 0; i < 4; i++) {
        ASSERT_TRUE(clients.emplace_back(path).connectTo());
    }
    std::string order;
    const auto serveOne = [&] {
        KTNET_PACKET received{};
        EXPECT_EQ(ktn_xapi_ktnet_rx_data(acceptFrom(server).get(), &received), 1);
        order += static_cast<char>(payloadOf(received).back());
    };
    send(2);
    serveOne();
    for (const unsigned int uiClient : {3u, 1u, 0u}) {
        send(uiClient);
    }
    for (int i = 0; i < 3; i++) {
        serveOne();
    }
    EXPECT_EQ(order, "2013");
}

TEST_F(Local, SenderIsNotHeldByAReceiverThatDoesNotRead) {
    PlainSocket listener(path);
    ASSERT_TRUE(listener.listenTo(1));
    const Endpoint client = makeClient(200);
    Bytes payload(KTNET_LOCAL_FRAME_MAX - 28);
    KTNET_PACKET packet = packetOf(payload);
    EXPECT_EQ(ktn_xapi_ktnet_tx_data(client.get(), &packet), -ENOTCONN);
    ASSERT_EQ(ktn_xapi_ktnet_connect(client.get()), 1);
    const Stopwatch watch;
    EXPECT_EQ(ktn_xapi_ktnet_tx_data(client.get(), &packet), -ETIMEDOUT);
    EXPECT_GE(watch.spent(), 190ms);
    EXPECT_LT(watch.spent(), 1000ms);
    listener.end();
    EXPECT_EQ(ktn_xapi_ktnet_tx_data(client.get(), &packet), -EPIPE) << "and no SIGPIPE";
    payload.push_back(0);
    packet = packetOf(payload);
    EXPECT_EQ(ktn_xapi_ktnet_tx_data(client.get(), &packet), -EMSGSIZE);
    EXPECT_EQ(packet.uiStatus, static_cast<unsigned int>(EMSGSIZE));
}

TEST_F(Local, FullQueueIsWaitedForWithinTheTimeout) {
    PlainSocket listener(path), first(path);
    ASSERT_TRUE(listener.listenTo(0) && first.connectTo());
    const Endpoint client = makeClient(200);
    const Stopwatch watch;
    EXPECT_EQ(ktn_xapi_ktnet_connect(client.get()), -ETIMEDOUT);
    EXPECT_GE(watch.spent(), 190ms);
    EXPECT_LT(watch.spent(), 1000ms);
    client->uiTimeoutMs = 5000;
    std::thread server([&] {
        std::this_thread::sleep_for(100ms);
        close(accept(listener.iSocket, nullptr, nullptr));
    });
    EXPECT_EQ(ktn_xapi_ktnet_connect(client.get()), 1);
    server.join();
}

TEST_F(Local, SocketFileIsOursAloneAndGoesWithTheListener) {
    leaveStaleFile();
    const mode_t uiBefore = umask(0);
    Endpoint server = serve();
    umask(uiBefore);
    struct stat status {};
    ASSERT_EQ(lstat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode, static_cast<mode_t>(S_IFSOCK | 0600));
    EXPECT_TRUE(PlainSocket(path).connectTo());
    EXPECT_EQ(filesLeft(), 1) << "nothing but the socket";
    server.reset();
    EXPECT_EQ(filesLeft(), 0);
}

TEST_F(Local, WhatIsNotOursAtThePathIsLeftAlone) {
    PlainSocket live(path), datagram(path, SOCK_DGRAM);
    const std::pair<std::function<bool()>, int> cases[] = {
        {[&] { return std::filesystem::create_directory(path); }, -EEXIST},
        {[&] { return static_cast<bool>(std::ofstream(path) << "text" << std::flush); }, -EEXIST},
        {[&] { return symlink("nowhere", path.c_str()) == 0; }, -EEXIST},
        {[&] { return mkfifo(path.c_str(), 0600) == 0; }, -EEXIST},
        {[&] { return datagram.bindTo(); }, -EPROTOTYPE},
        {[&] { return live.listenTo(0) && PlainSocket(path).connectTo(); }, -EADDRINUSE}}; // a full queue
    testing::internal::CaptureStderr();
    for (const auto &[prepare, iExpected] : cases) {
        ASSERT_TRUE(prepare());
        struct stat before, after;
        lstat(path.c_str(), &before);
        const Endpoint server = makeServer();
        EXPECT_EQ(ktn_xapi_ktnet_create(server.get()), iExpected);
        EXPECT_EQ(server->iSocket, -1);
        ASSERT_EQ(lstat(path.c_str(), &after), 0);
        EXPECT_EQ(before.st_ino, after.st_ino);
        EXPECT_EQ(before.st_mode, after.st_mode);
        std::filesystem::remove_all(path);
    }
    EXPECT_EQ(reported(path),
              "ktn_xapi_ktnet_create: $ is there and is no socket; it is left alone\n"
              "ktn_xapi_ktnet_create: $ can not be probed: Protocol wrong type for socket; it is left alone\n"
              "ktn_xapi_ktnet_create: $ is served by another listener; it is left alone\n");
}

TEST_F(Local, ReplacedSocketFileIsNotRemoved) {
    Endpoint old = serve();
    std::filesystem::remove(path);
    const Endpoint successor = serve();
    old.reset();
    EXPECT_TRUE(PlainSocket(path).connectTo());
}

// If two hosts start at the same time on a stale file, only one may serve the path.
TEST_F(Local, OneOfManyStartersWins) {
    constexpr int kStarters = 4;
    for (int iRound = 0; iRound < 300; iRound++) {
        leaveStaleFile();
        std::atomic<int> iReady{0}, iWon{0};
        std::vector<Endpoint> servers(kStarters);
        std::vector<std::thread> threads;
        threads.reserve(kStarters);
        for (Endpoint &server : servers) {
            threads.emplace_back([&] {
                server = makeServer();
                for (iReady++; iReady < kStarters;) { // all start in the same instant
                    std::this_thread::yield();
                }
                iWon += ktn_xapi_ktnet_create(server.get()) == 1;
            });
        }
        for (std::thread &thread : threads) {
            thread.join();
        }
        ASSERT_EQ(iWon, 1) << "round " << iRound;
        ASSERT_TRUE(PlainSocket(path).connectTo());
        servers.clear();
        ASSERT_EQ(filesLeft(), 0);
    }
}

TEST_F(Local, PathsThatCanNotBeServedAreRefused) {
    const std::pair<std::string, int> cases[] = {
        {"", -EINVAL},
        {folder + "/missing/socket", -ENOENT},
        {"/" + std::string(120, 'x'), -ENAMETOOLONG},
        {"/" + std::string(127, 'x'), -ENAMETOOLONG}}; // no room for the terminating zero
    testing::internal::CaptureStderr();
    for (const auto &[wrong, iExpected] : cases) {
        const Endpoint server = makeEndpoint(KTNET_KIND_LOCAL, "", wrong, 0, 1), client = makeClient();
        EXPECT_EQ(ktn_xapi_ktnet_create(server.get()), iExpected) << wrong;
        std::memset(client->szPeer, 0, sizeof client->szPeer);
        wrong.copy(client->szPeer, sizeof client->szPeer);
        EXPECT_EQ(ktn_xapi_ktnet_connect(client.get()), iExpected) << wrong;
    }
    EXPECT_EQ(reported(folder + "|\"/?x*\""),
              "ktn_xapi_ktnet_create: $ can not be a socket path: empty, or longer than 107 bytes\n"
              "ktn_xapi_ktnet_connect: $ can not be a socket path: empty, or longer than 107 bytes\n"
              "ktn_xapi_ktnet_create: can not open $/missing/socket.lock: No such file or directory\n"
              "ktn_xapi_ktnet_connect: no connection to $/missing/socket: No such file or directory\n"
              "ktn_xapi_ktnet_create: an address is longer than 127 bytes\n");
}

TEST_F(Local, ClientOfAnotherUserIsRefused) {
    const Endpoint server = serve();
    PlainSocket client(path);
    ASSERT_TRUE(client.connectTo() && client.put(kFrameBytes));
    faults().iPeer = 4711;
    testing::internal::CaptureStderr();
    EXPECT_EQ(ktn_xapi_rx_poll_socket(server->iSocket, 100), 0);
    KTNET_ENDPOINT *pConn = nullptr;
    EXPECT_EQ(ktn_xapi_ktnet_accept(server.get(), &pConn), 0);
    faults().iPeer = -1;
    EXPECT_EQ(reported(), "ktn_xapi_ktnet_accept: a client of another user (4711) is refused\n");
    EXPECT_TRUE(recv(client.iSocket, &pConn, 1, 0) <= 0) << "the connection is closed";
}

// Another user may have made the socket file before the service did.
TEST_F(Local, ServerOfAnotherUserGetsNoByte) {
    struct Case {
        int iServer;
        const char *pszTrusted;
        int iResult;
        const char *pszReported = nullptr; // repeated lines are left out
    };
    for (const Case &row : {Case{4711, nullptr, -EACCES, "4711"},
                            {4711, "", -EACCES},
                            {4711, "471,47110,4711x,nosuchuser,daemon", -EACCES},
                            {1, "root,nosuchuser,11", -EACCES, "daemon"},
                            {2, "", -EACCES, "bin"},
                            {1'000'000'000, "1000000000", 1},
                            {1'000'000'000, "91000000000,01000000000", -EACCES, "1000000000"},
                            {4711, "nosuchuser,4711", 1},
                            {1, "daemon", 1},
                            {0, nullptr, 1}}) {
        const std::string trusted = row.pszTrusted != nullptr ? row.pszTrusted : "(unset)";
        PlainSocket server(path);
        ASSERT_TRUE(server.listenTo(1));
        if (row.pszTrusted != nullptr) {
            setenv("KTNET_PEER_USERS", row.pszTrusted, 1);
        }
        testing::internal::CaptureStderr();
        faults().iPeer = row.iServer;
        Endpoint client = makeClient();
        EXPECT_EQ(ktn_xapi_ktnet_connect(client.get()), row.iResult) << row.iServer << " " << trusted;
        faults().iPeer = -1;
        unsetenv("KTNET_PEER_USERS");
        EXPECT_EQ(testing::internal::GetCapturedStderr(),
                  row.pszReported == nullptr
                      ? ""
                      : "ktn_xapi_ktnet_connect: " + path + " is served by another user (" + row.pszReported +
                            "): nothing is sent; KTNET_PEER_USERS can name a user to trust\n");
        Bytes payload = {'k', 'e', 'y'};
        KTNET_PACKET packet = packetOf(payload);
        EXPECT_EQ(ktn_xapi_ktnet_tx_data(client.get(), &packet), row.iResult == 1 ? 1 : -EPIPE);
        client.reset();
        char read[64];
        const int iConn = accept(server.iSocket, nullptr, nullptr);
        EXPECT_EQ(recv(iConn, read, sizeof read, 0), row.iResult == 1 ? 31 : 0) << trusted;
        close(iConn);
        std::filesystem::remove(path);
    }
}

// /tmp is everybody's: whatever another user may lock or make there must neither delay a start nor fail it in
// silence.
TEST_F(Local, StartIsLockedByAFileOfOurOwn) {
    const int iFolder = open(folder.c_str(), O_RDONLY | O_DIRECTORY);
    ASSERT_EQ(flock(iFolder, LOCK_EX), 0);
    const Stopwatch watch;
    Endpoint server = serve();
    EXPECT_LT(watch.spent(), 500ms);
    server.reset();
    close(iFolder);

    const std::string lock = path + ".lock";
    std::ofstream(lock) << ""; // as a start that was killed leaves it
    serve();
    EXPECT_EQ(filesLeft(), 0);

    const int iLock = open(lock.c_str(), O_RDWR | O_CREAT, 0600);
    ASSERT_EQ(flock(iLock, LOCK_EX), 0);
    EXPECT_EQ(ktn_xapi_ktnet_create(makeServer(100).get()), -EWOULDBLOCK);
    close(iLock);
    std::filesystem::remove(lock);

    testing::internal::CaptureStderr();
    ASSERT_EQ(symlink("elsewhere", lock.c_str()), 0);
    EXPECT_EQ(ktn_xapi_ktnet_create(makeServer(100).get()), -EACCES);
    EXPECT_NE(testing::internal::GetCapturedStderr().find(lock + " of the user root is in the way"),
              std::string::npos);
    EXPECT_EQ(filesLeft(), 1) << "neither the link's target nor a socket";
}

} // namespace

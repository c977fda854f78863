// KTNet over local stream sockets.
#include "ktn_support.h"

#include "ktnlocal.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <deque>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sys/stat.h>
#include <thread>

namespace {

class Local : public testing::Test {
protected:
    void SetUp() override { std::filesystem::create_directories(Folder); }
    void TearDown() override { std::filesystem::remove_all(Folder); }

    ENDPOINT server(unsigned int uiTimeoutMs = 2000) {
        return endpoint(KTNET_KIND_LOCAL, "", Path, 0, 1, uiTimeoutMs);
    }
    ENDPOINT serve(unsigned int uiTimeoutMs = 2000) {
        ENDPOINT Server = server(uiTimeoutMs);
        EXPECT_EQ(ktn_xapi_ktnet_create(Server.get()), 1);
        return Server;
    }
    ENDPOINT client(unsigned int uiTimeoutMs = 2000) {
        ENDPOINT Client = endpoint(KTNET_KIND_LOCAL, Path, "", 0, 0, uiTimeoutMs);
        EXPECT_EQ(ktn_xapi_ktnet_create(Client.get()), 1);
        return Client;
    }
    static ENDPOINT acceptFrom(const ENDPOINT &Server) {
        KTNET_ENDPOINT *pConn = nullptr;
        EXPECT_EQ(ktn_xapi_rx_poll_socket(Server->iSocket, 2000), 1);
        EXPECT_EQ(ktn_xapi_ktnet_accept(Server.get(), &pConn), 1);
        return ENDPOINT(pConn);
    }
    void leaveStaleFile() { ASSERT_TRUE(PLAIN_SOCKET(Path).bindTo()); } // of a process that is gone
    auto filesLeft() const { return std::distance(std::filesystem::directory_iterator(Folder), {}); }

    const std::string Folder = testing::TempDir() + "ktn_local_test";
    const std::string Path = Folder + "/socket";
};

TEST_F(Local, FramesOfEverySizeArriveWhole) {
    const ENDPOINT Server = serve();
    for (const size_t ulSize : {size_t{0}, size_t{1}, size_t{65535}, size_t{KTNET_LOCAL_FRAME_MAX - 28}}) {
        BYTES Payload(ulSize);
        for (size_t i = 0; i < ulSize; i++)
            Payload[i] = static_cast<unsigned char>(i * 7 + i / 256);
        std::thread Commander([&] {
            const ENDPOINT Client = client();
            KTNET_PACKET Sent = packetOf(Payload);
            EXPECT_EQ(ktn_xapi_ktnet_connect(Client.get()), 1);
            EXPECT_EQ(ktn_xapi_ktnet_tx_data(Client.get(), &Sent), 1);
        });
        const ENDPOINT Conn = acceptFrom(Server);
        KTNET_PACKET Received{};
        EXPECT_EQ(ktn_xapi_ktnet_rx_data(Conn.get(), &Received), 1);
        Commander.join();
        EXPECT_EQ(Received.uiIdent, 200u);
        EXPECT_EQ(Received.uiService, 205u);
        EXPECT_EQ(Received.uiCommand, 0x40020u);
        EXPECT_EQ(Received.uiParam, 0x01020304u);
        EXPECT_EQ(Received.pPayload == nullptr, ulSize == 0);
        EXPECT_EQ(payloadOf(Received), Payload);
    }
}

TEST_F(Local, LyingAndCutFramesAreRefused) {
    const ENDPOINT Server = serve();
    for (const BAD_FRAME &Bad : badFrames()) {
        PLAIN_SOCKET Client(Path);
        ASSERT_TRUE(Client.connectTo() && Client.put(Bad.bytes()));
        if (Bad.iLocal != -EMSGSIZE) // that one is told at once, without waiting for what never comes
            Client.end();
        const ENDPOINT Conn = acceptFrom(Server);
        KTNET_PACKET Received{};
        Received.pPayload = reinterpret_cast<unsigned char *>(this);
        const STOPWATCH Watch;
        EXPECT_EQ(ktn_xapi_ktnet_rx_data(Conn.get(), &Received), Bad.iLocal) << Bad.pszWhat;
        EXPECT_LT(Watch.spent(), 1000ms) << Bad.pszWhat;
        EXPECT_EQ(Received.pPayload, nullptr) << Bad.pszWhat;
        EXPECT_EQ(static_cast<int>(Conn->uiError), -Bad.iLocal) << Bad.pszWhat;
    }
}

// The receiver serves one client at a time: none may hold it longer than the time-out, whatever it does.
TEST_F(Local, SilentAndSlowClientsAreGivenUp) {
    const ENDPOINT Server = serve(100);
    for (const std::ptrdiff_t lAtOnce : {0, 28, 1}) { // the last one drips on, a byte each 20 ms
        PLAIN_SOCKET Client(Path);
        ASSERT_TRUE(Client.connectTo() &&
                    Client.put(BYTES(FrameBytes.begin(), FrameBytes.begin() + lAtOnce)));
        std::thread Dripping([&] {
            for (size_t i = 1; lAtOnce == 1 && i < FrameBytes.size() && Client.put({FrameBytes[i]}); i++)
                std::this_thread::sleep_for(20ms);
        });
        ENDPOINT Conn = acceptFrom(Server);
        KTNET_PACKET Received{};
        const STOPWATCH Watch;
        EXPECT_EQ(ktn_xapi_ktnet_rx_data(Conn.get(), &Received), -ETIMEDOUT) << lAtOnce;
        const auto Spent = Watch.spent();
        Conn.reset();
        Dripping.join();
        EXPECT_GE(Spent, 95ms) << lAtOnce;
        EXPECT_LT(Spent, 500ms) << lAtOnce;
    }
}

TEST_F(Local, SenderIsNotHeldByAReceiverThatDoesNotRead) {
    PLAIN_SOCKET Listener(Path);
    ASSERT_TRUE(Listener.listenTo(1));
    const ENDPOINT Client = client(200);
    BYTES Payload(KTNET_LOCAL_FRAME_MAX - 28);
    KTNET_PACKET Packet = packetOf(Payload);
    EXPECT_EQ(ktn_xapi_ktnet_tx_data(Client.get(), &Packet), -ENOTCONN);
    ASSERT_EQ(ktn_xapi_ktnet_connect(Client.get()), 1);
    const STOPWATCH Watch;
    EXPECT_EQ(ktn_xapi_ktnet_tx_data(Client.get(), &Packet), -ETIMEDOUT);
    EXPECT_GE(Watch.spent(), 190ms);
    EXPECT_LT(Watch.spent(), 1000ms);
    Listener.end();
    EXPECT_EQ(ktn_xapi_ktnet_tx_data(Client.get(), &Packet), -EPIPE) << "and no SIGPIPE";
    Payload.push_back(0);
    Packet = packetOf(Payload);
    EXPECT_EQ(ktn_xapi_ktnet_tx_data(Client.get(), &Packet), -EMSGSIZE);
    EXPECT_EQ(Packet.uiStatus, static_cast<unsigned int>(EMSGSIZE));
}

TEST_F(Local, FullQueueIsWaitedForWithinTheTimeout) {
    PLAIN_SOCKET Listener(Path), First(Path);
    ASSERT_TRUE(Listener.listenTo(0) && First.connectTo());
    const ENDPOINT Client = client(200);
    const STOPWATCH Watch;
    EXPECT_EQ(ktn_xapi_ktnet_connect(Client.get()), -ETIMEDOUT);
    EXPECT_GE(Watch.spent(), 190ms);
    EXPECT_LT(Watch.spent(), 1000ms);
    Client->uiTimeoutMs = 5000;
    std::thread Server([&] {
        std::this_thread::sleep_for(100ms);
        close(accept(Listener.iSocket, nullptr, nullptr));
    });
    EXPECT_EQ(ktn_xapi_ktnet_connect(Client.get()), 1);
    Server.join();
}

TEST_F(Local, ThousandClientsAtOnceFindRoom) {
    const ENDPOINT Server = serve();
    std::deque<PLAIN_SOCKET> Clients;
    for (int i = 0; i < 1000; i++)
        ASSERT_TRUE(Clients.emplace_back(Path).connectTo()) << i << ": " << strerror(errno);
}

TEST_F(Local, SocketFileIsOursAloneAndGoesWithTheListener) {
    leaveStaleFile();
    const mode_t uiBefore = umask(0);
    ENDPOINT Server = serve();
    umask(uiBefore);
    struct stat Status {};
    ASSERT_EQ(lstat(Path.c_str(), &Status), 0);
    EXPECT_EQ(Status.st_mode, static_cast<mode_t>(S_IFSOCK | 0600));
    EXPECT_TRUE(PLAIN_SOCKET(Path).connectTo());
    EXPECT_EQ(filesLeft(), 1) << "nothing but the socket";
    Server.reset();
    EXPECT_EQ(filesLeft(), 0);
}

TEST_F(Local, WhatIsNotOursAtThePathIsLeftAlone) {
    PLAIN_SOCKET Live(Path), Datagram(Path, SOCK_DGRAM);
    const std::pair<std::function<bool()>, int> Cases[] = {
        {[&] { return std::filesystem::create_directory(Path); }, -EEXIST},
        {[&] { return static_cast<bool>(std::ofstream(Path) << "text" << std::flush); }, -EEXIST},
        {[&] { return symlink("nowhere", Path.c_str()) == 0; }, -EEXIST},
        {[&] { return mkfifo(Path.c_str(), 0600) == 0; }, -EEXIST},
        {[&] { return Datagram.bindTo(); }, -EPROTOTYPE},
        {[&] { return Live.listenTo(0) && PLAIN_SOCKET(Path).connectTo(); }, -EADDRINUSE}}; // a full queue
    for (const auto &[Prepare, iExpected] : Cases) {
        ASSERT_TRUE(Prepare());
        struct stat Before, After;
        lstat(Path.c_str(), &Before);
        const ENDPOINT Server = server();
        EXPECT_EQ(ktn_xapi_ktnet_create(Server.get()), iExpected);
        EXPECT_EQ(Server->iSocket, -1);
        ASSERT_EQ(lstat(Path.c_str(), &After), 0);
        EXPECT_EQ(Before.st_ino, After.st_ino);
        EXPECT_EQ(Before.st_mode, After.st_mode);
        std::filesystem::remove_all(Path);
    }
}

TEST_F(Local, ReplacedSocketFileIsNotRemoved) {
    ENDPOINT Old = serve();
    std::filesystem::remove(Path);
    const ENDPOINT New = serve();
    Old.reset();
    EXPECT_TRUE(PLAIN_SOCKET(Path).connectTo());
}

// Hosts that start at once on a stale file must not both believe that they serve the path.
TEST_F(Local, OneOfManyStartersWins) {
    constexpr int STARTERS = 4;
    for (int iRound = 0; iRound < 300; iRound++) {
        leaveStaleFile();
        std::atomic<int> iReady{0}, iWon{0};
        std::vector<ENDPOINT> Servers(STARTERS);
        std::vector<std::thread> Threads;
        for (ENDPOINT &Server : Servers)
            Threads.emplace_back([&] {
                Server = server();
                for (iReady++; iReady < STARTERS;) // all set off in the same instant
                    std::this_thread::yield();
                iWon += ktn_xapi_ktnet_create(Server.get()) == 1;
            });
        for (std::thread &Thread : Threads)
            Thread.join();
        ASSERT_EQ(iWon, 1) << "round " << iRound;
        ASSERT_TRUE(PLAIN_SOCKET(Path).connectTo());
        Servers.clear();
        ASSERT_EQ(filesLeft(), 0);
    }
}

TEST_F(Local, PathsThatCanNotBeServedAreRefused) {
    const std::pair<std::string, int> Cases[] = {
        {"", -EINVAL},
        {Folder + "/missing/socket", -ENOENT},
        {"/" + std::string(120, 'x'), -ENAMETOOLONG},
        {"/" + std::string(127, 'x'), -ENAMETOOLONG}}; // no room for a zero
    for (const auto &[Wrong, iExpected] : Cases) {
        const ENDPOINT Server = endpoint(KTNET_KIND_LOCAL, "", Wrong, 0, 1), Client = client();
        EXPECT_EQ(ktn_xapi_ktnet_create(Server.get()), iExpected) << Wrong;
        memset(Client->szPeer, 0, sizeof Client->szPeer);
        Wrong.copy(Client->szPeer, sizeof Client->szPeer);
        EXPECT_EQ(ktn_xapi_ktnet_connect(Client.get()), iExpected) << Wrong;
    }
}

TEST_F(Local, OnlyTheSameUserAndRootMayTalk) {
    const auto Allowed = [](uid_t uiPeer, uid_t uiOwn) { return ktnLocalPeerAllowed({1, uiPeer, 0}, uiOwn); };
    EXPECT_TRUE(Allowed(1000, 1000));
    EXPECT_TRUE(Allowed(0, 1000));
    EXPECT_FALSE(Allowed(1001, 1000));
    EXPECT_FALSE(Allowed(1000, 0));
    EXPECT_FALSE(Allowed(65534, 0)); // a user of another user namespace
}

} // namespace

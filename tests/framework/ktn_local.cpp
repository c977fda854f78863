// KTNet over local stream sockets.
#include "ktn_support.h"

#include "ktnlocal.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sys/stat.h>
#include <thread>

namespace {

class Local : public testing::Test {
protected:
    void SetUp() override {
        std::filesystem::remove_all(Folder);
        std::filesystem::create_directories(Folder);
    }
    void TearDown() override { std::filesystem::remove_all(Folder); }

    // A server with one client's connection, the client without the library.
    ENDPOINT serve(unsigned int uiTimeoutMs = 2000) {
        ENDPOINT Server = server(Path, uiTimeoutMs);
        EXPECT_EQ(ktn_xapi_ktnet_create(Server.get()), 1);
        return Server;
    }
    static ENDPOINT acceptFrom(const ENDPOINT &Server) {
        KTNET_ENDPOINT *pConn = nullptr;
        EXPECT_EQ(ktn_xapi_rx_poll_socket(Server->iSocket, 2000), 1);
        EXPECT_EQ(ktn_xapi_ktnet_accept(Server.get(), &pConn), 1);
        return ENDPOINT(pConn);
    }
    bool exists() const { return std::filesystem::exists(std::filesystem::symlink_status(Path)); }
    size_t filesLeft() const {
        return static_cast<size_t>(std::distance(std::filesystem::directory_iterator(Folder), {}));
    }

    const std::string Folder = testing::TempDir() + "ktn_local_test";
    const std::string Path = Folder + "/socket";
};

TEST_F(Local, FrameTravelsByteForByte) {
    PLAIN_SOCKET Listener(Path, SOCK_STREAM);
    ASSERT_TRUE(Listener.bindTo() && listen(Listener.iSocket, 1) == 0);
    ENDPOINT Client = client(Path);
    BYTES Payload = {'a', 'b', 'c'};
    KTNET_PACKET Sent = packetOf(Payload);
    ASSERT_EQ(ktn_xapi_ktnet_create(Client.get()), 1);
    ASSERT_EQ(ktn_xapi_ktnet_connect(Client.get()), 1);
    ASSERT_EQ(ktn_xapi_ktnet_tx_data(Client.get(), &Sent), 1);
    ktn_xapi_ktnet_close(Client.get());
    const int iConnection = accept(Listener.iSocket, nullptr, nullptr);
    BYTES Received(100);
    Received.resize(static_cast<size_t>(recv(iConnection, Received.data(), Received.size(), MSG_WAITALL)));
    close(iConnection);
    EXPECT_EQ(Received, FrameBytes);
}

TEST_F(Local, RepliesOfEverySizeArriveWhole) {
    const ENDPOINT Server = serve();
    for (const size_t ulSize : {size_t{0}, size_t{1}, size_t{65535}, size_t{KTNET_LOCAL_FRAME_MAX - 28}}) {
        BYTES Payload(ulSize);
        for (size_t i = 0; i < ulSize; i++)
            Payload[i] = static_cast<unsigned char>(i * 7 + i / 256);
        std::thread Commander([&] {
            ENDPOINT Client = client(Path);
            KTNET_PACKET Sent = packetOf(Payload);
            EXPECT_EQ(ktn_xapi_ktnet_create(Client.get()), 1);
            EXPECT_EQ(ktn_xapi_ktnet_connect(Client.get()), 1);
            EXPECT_EQ(ktn_xapi_ktnet_tx_data(Client.get(), &Sent), 1);
        });
        const ENDPOINT Conn = acceptFrom(Server);
        KTNET_PACKET Received{};
        Received.uiIdent = 999;
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
        ASSERT_TRUE(Client.connectTo());
        BYTES Bytes = FrameBytes;
        std::copy(Bad.Put.begin(), Bad.Put.end(), Bytes.begin() + static_cast<std::ptrdiff_t>(Bad.ulAt));
        Bytes.resize(Bad.ulKeep);
        ASSERT_TRUE(Client.put(Bytes));
        if (Bad.iLocal != -EMSGSIZE) // that one is told at once, without waiting for what never comes
            Client.end();
        const ENDPOINT Conn = acceptFrom(Server);
        KTNET_PACKET Received{};
        Received.pPayload = Bytes.data();
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
    for (const size_t ulAtOnce :
         {size_t{0}, size_t{28}, size_t{1}}) { // the last one drips on, a byte each 20 ms
        PLAIN_SOCKET Client(Path);
        ASSERT_TRUE(Client.connectTo());
        ASSERT_TRUE(Client.put(
            BYTES(FrameBytes.begin(), FrameBytes.begin() + static_cast<std::ptrdiff_t>(ulAtOnce))));
        std::thread Dripping([&] {
            for (size_t i = 1; ulAtOnce == 1 && i < FrameBytes.size(); i++) {
                std::this_thread::sleep_for(20ms);
                if (!Client.put({FrameBytes[i]}))
                    return; // given up
            }
        });
        ENDPOINT Conn = acceptFrom(Server);
        KTNET_PACKET Received{};
        const STOPWATCH Watch;
        EXPECT_EQ(ktn_xapi_ktnet_rx_data(Conn.get(), &Received), -ETIMEDOUT) << ulAtOnce;
        const auto Spent = Watch.spent();
        Conn.reset();
        Dripping.join();
        EXPECT_GE(Spent, 95ms) << ulAtOnce;
        EXPECT_LT(Spent, 500ms) << ulAtOnce;
    }
}

TEST_F(Local, SenderIsNotHeldByAReceiverThatDoesNotRead) {
    PLAIN_SOCKET Listener(Path);
    ASSERT_TRUE(Listener.bindTo() && listen(Listener.iSocket, 1) == 0);
    ENDPOINT Client = client(Path, 200);
    BYTES Payload(KTNET_LOCAL_FRAME_MAX - 28);
    KTNET_PACKET Packet = packetOf(Payload);
    ASSERT_EQ(ktn_xapi_ktnet_create(Client.get()), 1);
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
    PLAIN_SOCKET Listener(Path);
    ASSERT_TRUE(Listener.bindTo() && listen(Listener.iSocket, 0) == 0);
    PLAIN_SOCKET First(Path);
    ASSERT_TRUE(First.connectTo());
    ENDPOINT Client = client(Path, 200);
    ASSERT_EQ(ktn_xapi_ktnet_create(Client.get()), 1);
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
    std::vector<PLAIN_SOCKET> Clients;
    for (int i = 0; i < 1000; i++)
        ASSERT_TRUE(Clients.emplace_back(Path).connectTo()) << i << ": " << strerror(errno);
}

TEST_F(Local, SocketFileIsOursAloneAndGoesWithTheListener) {
    const mode_t uiBefore = umask(0);
    PLAIN_SOCKET Stale(Path); // left behind by a process that is gone
    ASSERT_TRUE(Stale.bindTo());
    Stale.end();
    ENDPOINT Server = serve();
    umask(uiBefore);
    struct stat Status {};
    ASSERT_EQ(lstat(Path.c_str(), &Status), 0);
    EXPECT_EQ(Status.st_mode, static_cast<mode_t>(S_IFSOCK | 0600));
    PLAIN_SOCKET Client(Path);
    EXPECT_TRUE(Client.connectTo());
    EXPECT_EQ(filesLeft(), 1u) << "nothing but the socket";
    Server.reset();
    EXPECT_FALSE(exists());
}

TEST_F(Local, WhatIsNotOursAtThePathIsLeftAlone) {
    PLAIN_SOCKET Live(Path), Datagram(Path, SOCK_DGRAM);
    struct CASE {
        const char *pszWhat;
        std::function<bool()> Prepare;
        int iExpected;
    };
    const CASE Cases[] = {
        {"folder", [&] { return std::filesystem::create_directory(Path); }, -EEXIST},
        {"file", [&] { return static_cast<bool>(std::ofstream(Path) << "text" << std::flush); }, -EEXIST},
        {"dangling link", [&] { return symlink("nowhere", Path.c_str()) == 0; }, -EEXIST},
        {"fifo", [&] { return mkfifo(Path.c_str(), 0600) == 0; }, -EEXIST},
        {"datagram socket", [&] { return Datagram.bindTo(); }, -EPROTOTYPE},
        {"live listener with a full queue", [&] { return Live.bindTo() && listen(Live.iSocket, 0) == 0; },
         -EADDRINUSE}};
    for (const CASE &Case : Cases) {
        ASSERT_TRUE(Case.Prepare()) << Case.pszWhat;
        struct stat Before {
        }, After{};
        lstat(Path.c_str(), &Before);
        for (int iTime = 0; iTime < 2; iTime++) {
            const ENDPOINT Server = server(Path);
            EXPECT_EQ(ktn_xapi_ktnet_create(Server.get()), Case.iExpected) << Case.pszWhat;
            EXPECT_EQ(Server->iSocket, -1);
        }
        lstat(Path.c_str(), &After);
        EXPECT_EQ(Before.st_ino, After.st_ino) << Case.pszWhat;
        std::filesystem::remove_all(Path);
    }
}

TEST_F(Local, ReplacedSocketFileIsNotRemoved) {
    ENDPOINT Old = serve();
    std::filesystem::remove(Path);
    const ENDPOINT New = serve();
    Old.reset();
    PLAIN_SOCKET Client(Path);
    EXPECT_TRUE(Client.connectTo());
}

// Hosts that start at once on a stale file must not both believe that they serve the path.
TEST_F(Local, OneOfManyStartersWins) {
    constexpr int STARTERS = 4;
    for (int iRound = 0; iRound < 300; iRound++) {
        PLAIN_SOCKET Stale(Path);
        ASSERT_TRUE(Stale.bindTo());
        Stale.end();
        std::atomic<int> iReady{0}, iWon{0};
        std::vector<ENDPOINT> Servers(STARTERS);
        std::vector<std::thread> Threads;
        for (ENDPOINT &Server : Servers)
            Threads.emplace_back([&] {
                Server = server(Path);
                for (iReady++; iReady < STARTERS;) // all set off in the same instant
                    std::this_thread::yield();
                iWon += ktn_xapi_ktnet_create(Server.get()) == 1;
            });
        for (std::thread &Thread : Threads)
            Thread.join();
        ASSERT_EQ(iWon, 1) << "round " << iRound;
        PLAIN_SOCKET Client(Path);
        ASSERT_TRUE(Client.connectTo());
        Servers.clear();
        ASSERT_EQ(filesLeft(), 0u);
    }
}

TEST_F(Local, PathsThatCanNotBeServedAreRefused) {
    const std::pair<std::string, int> Cases[] = {
        {"", -EINVAL},
        {Folder + "/missing/socket", -ENOENT},
        {"/" + std::string(120, 'x'), -ENAMETOOLONG},
        {"/" + std::string(127, 'x'), -ENAMETOOLONG}}; // no room for a zero
    for (const auto &[Wrong, iExpected] : Cases) {
        EXPECT_EQ(ktn_xapi_ktnet_create(server(Wrong).get()), iExpected) << Wrong;
        const ENDPOINT Client = client(Wrong);
        ktn_xapi_ktnet_create(Client.get());
        EXPECT_EQ(ktn_xapi_ktnet_connect(Client.get()), iExpected) << Wrong;
    }
}

TEST_F(Local, OnlyTheSameUserAndRootMayTalk) {
    const auto Peer = [](uid_t uiUser) { return ucred{1, uiUser, 0}; };
    EXPECT_TRUE(ktnLocalPeerAllowed(Peer(1000), 1000));
    EXPECT_TRUE(ktnLocalPeerAllowed(Peer(0), 1000));
    EXPECT_FALSE(ktnLocalPeerAllowed(Peer(1001), 1000));
    EXPECT_FALSE(ktnLocalPeerAllowed(Peer(1000), 0));
    EXPECT_FALSE(ktnLocalPeerAllowed(Peer(65534), 0)); // a user of another user namespace
}

TEST_F(Local, LastingFailureIsReportedOnce) {
    testing::internal::CaptureStderr();
    for (int i = 0; i < 200; i++) {
        const ENDPOINT Client = client(Path);
        ktn_xapi_ktnet_create(Client.get());
        EXPECT_EQ(ktn_xapi_ktnet_connect(Client.get()), -ENOENT);
        EXPECT_EQ(Client->uiError, static_cast<unsigned int>(ENOENT));
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "ktn_xapi_ktnet_connect: no connection to " + Path + ": No such file or directory\n");
}

TEST_F(Local, CallsOutOfTurnFailWithoutHarm) {
    KTNET_ENDPOINT *pDesc = reinterpret_cast<KTNET_ENDPOINT *>(this);
    EXPECT_EQ(ktn_xapi_ktnet_init_with_version(&pDesc, 0, 1), -1);
    EXPECT_EQ(pDesc, nullptr);
    EXPECT_EQ(ktn_xapi_ktnet_init_with_version(nullptr, 0, 2), -1);
    EXPECT_EQ(ktn_xapi_ktnet_delete(&pDesc), 0);
    EXPECT_EQ(ktn_xapi_ktnet_create(nullptr), -EINVAL);
    EXPECT_EQ(ktn_xapi_rx_poll_socket(-1, 10000), -EBADF);
    EXPECT_EQ(ktn_xapi_rx_poll_socket(1000000, 10000), -EBADF);
    const ENDPOINT NoKind = endpoint(0, "", "", 0, 0);
    EXPECT_EQ(ktn_xapi_ktnet_create(NoKind.get()), -EINVAL);

    const ENDPOINT Server = serve();
    EXPECT_EQ(ktn_xapi_ktnet_create(Server.get()), -EALREADY);
    EXPECT_EQ(ktn_xapi_ktnet_accept(Server.get(), &pDesc), 0) << "nobody is there";
    EXPECT_EQ(ktn_xapi_rx_poll_socket(Server->iSocket, 0), 0);
    EXPECT_EQ(ktn_xapi_ktnet_close(Server.get()), 1);
    EXPECT_EQ(ktn_xapi_ktnet_close(Server.get()), 0);
    EXPECT_EQ(ktn_xapi_ktnet_accept(Server.get(), &pDesc), -EBADF);
    EXPECT_EQ(ktn_xapi_ktnet_create(Server.get()), 1) << "and the path is free again";
}

} // namespace

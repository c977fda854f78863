// The view under load, on real sockets and in real time: its counts are those of the traffic, and its readers
// cost the traffic nothing.
#include <pccast/pccast.h>

#include <vexa_pgl.h>

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <thread>
#include <vector>

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr const char *kSource = "239.0.0.1";
constexpr const char *kTarget = "239.1.2.3";
constexpr unsigned short kPort = 4000;
constexpr size_t kSize = 1316;

sockaddr_in address(const char *pszGroup) {
    sockaddr_in result{};
    result.sin_family = AF_INET;
    result.sin_port = htons(kPort);
    inet_pton(AF_INET, pszGroup, &result.sin_addr);
    return result;
}

// Sends datagrams at the rate to the relay's source, each at its own time.
void feed(unsigned long ulDatagrams, unsigned long ulPerSecond) {
    const int iSocket = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const in_addr loopback{htonl(INADDR_LOOPBACK)};
    setsockopt(iSocket, IPPROTO_IP, IP_MULTICAST_IF, &loopback, sizeof loopback);
    const sockaddr_in to = address(kSource);
    const std::vector<char> datagram(kSize, 'x');
    const Clock::time_point begin = Clock::now();
    for (unsigned long ul = 0; ul < ulDatagrams; ++ul) {
        std::this_thread::sleep_until(begin + std::chrono::nanoseconds(ul * 1'000'000'000ul / ulPerSecond));
        sendto(iSocket, datagram.data(), datagram.size(), 0, reinterpret_cast<const sockaddr *>(&to),
               sizeof to);
    }
    close(iSocket);
}

// Calls use(view) with a snapshot.
template <typename Use>
void withView(Use use) {
    PCCASTView *pView = nullptr;
    ASSERT_EQ(MAKEPCCASTView(&pView), 1);
    use(*pView);
    ELIMINATEPCCASTView(&pView);
}

template <typename Condition>
bool within(std::chrono::seconds bound, Condition condition) {
    const Clock::time_point end = Clock::now() + bound;
    while (!condition() && Clock::now() < end) {
        std::this_thread::sleep_for(20ms);
    }
    return condition();
}

class ViewLoadTest : public testing::Test {
protected:
    ViewLoadTest() {
        setenv("KTNET_MULTICAST_IF", "lo", 1);
        QX_PlugIn_Open();
        EXPECT_TRUE(within(5s, [] { return access(PCCAST_CAST_SOCKET, F_OK) == 0; }));
        CASTInfo *pInfo = nullptr;
        MAKECASTInfo(&pInfo, kSource, kTarget, nullptr, CAST_TYPE_STREAM);
        pInfo->usSRCPort = pInfo->usDSTPort = kPort;
        pInfo->ulSTREAMFormat = CAST_FORMAT_TS;
        pInfo->ulCT = pInfo->ulST = vexa_time(nullptr);
        pInfo->ulET = pInfo->ulST + 600;
        EXPECT_GT(TxCASTInfoToPlugIn(CAST_CMD_START, pInfo), 0);
        ELIMINATECASTInfo(&pInfo);
        EXPECT_TRUE(within(5s, [] {
            bool bOnAir = false;
            withView([&](const PCCASTView &view) { bOnAir = view.ulRelay != 0; });
            return bOnAir;
        }));
    }
    ~ViewLoadTest() override { QX_PlugIn_Close(); }
};

// What the environment says instead of the default.
unsigned long setting(const char *pszName, unsigned long ulDefault) {
    const char *pszValue = std::getenv(pszName);
    return pszValue == nullptr ? ulDefault : std::strtoul(pszValue, nullptr, 10);
}

TEST_F(ViewLoadTest, CountsAreThoseOfTheTrafficWhileSixteenRead) {
    const unsigned long ulRate = setting("VIEW_RATE", kViewRate);
    const unsigned long ulDatagrams = ulRate * setting("VIEW_SECONDS", 2);
    std::atomic<bool> bOver{false};
    std::atomic<unsigned long> ulReads{0};
    std::vector<std::thread> readers;
    readers.reserve(16);
    for (int i = 0; i < 16; ++i) {
        readers.emplace_back([&] {
            PCCASTEvent events[8];
            while (!bOver) {
                withView([&](const PCCASTView &) { ++ulReads; });
                ELIMINATEPCCASTEvents(events, READPCCASTEvents(0, events, 8));
            }
        });
    }
    feed(ulDatagrams, ulRate);
    EXPECT_TRUE(within(5s, [=] {
        unsigned long ulCounted = 0;
        withView([&](const PCCASTView &view) { ulCounted = view.relay.ulDatagrams; });
        return ulCounted == ulDatagrams;
    }));
    bOver = true;
    for (std::thread &reader : readers) {
        reader.join();
    }
    withView([&](const PCCASTView &view) {
        EXPECT_EQ(view.relay.ulDatagrams, ulDatagrams);
        EXPECT_EQ(view.relay.ulBytes, ulDatagrams * kSize);
        EXPECT_EQ(view.relay.ulDropped, 0u);
        EXPECT_EQ(view.relay.ulFailed, 0u);
    });
    std::printf("%lu datagrams, %lu snapshots meanwhile\n", ulDatagrams, ulReads.load());
}

// The service stands still for a second while its source sends more than its socket holds.
TEST_F(ViewLoadTest, StalledRelayShowsWhatTheKernelDropped) {
    constexpr unsigned long kDatagrams = 60'000;
    const pid_t child = fork();
    if (child == 0) {
        kill(getppid(), SIGSTOP);
        feed(kDatagrams, 60'000);
        kill(getppid(), SIGCONT);
        _exit(0);
    }
    int iStatus = 0;
    waitpid(child, &iStatus, 0);
    unsigned long ulDropped = 0;
    EXPECT_TRUE(within(10s, [&] {
        unsigned long ulAll = 0;
        withView([&](const PCCASTView &view) {
            ulDropped = view.relay.ulDropped;
            ulAll = view.relay.ulDatagrams + ulDropped;
        });
        return ulAll == kDatagrams;
    }));
    EXPECT_GT(ulDropped, 0u);
}

} // namespace

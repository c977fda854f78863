// Opens and closes the plug-in many times in a row while clients send casts and messages. Sockets and time
// are real. In the end no thread, descriptor or socket file may be left. Run it under the sanitizers too:
// they see leaks and races.
//
//   soak_test [CYCLES]

#include <pccast/pccast.h>

#include <vexa_pgl.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace std::chrono_literals;

constexpr int kClients = 3;
constexpr unsigned short kSourcePort = 5000;

std::atomic<bool> bClientsRun{true};
std::atomic<long> lSubmitted{0};

long entriesOf(const char *pFolder) {
    return std::distance(std::filesystem::directory_iterator(pFolder), std::filesystem::directory_iterator());
}

// Sends a cast of any kind: relays that work or cannot start, files that are not there, stops that match or
// do not, times around now.
void submitCast(std::mt19937 &random) {
    static const char *const sources[] = {"239.1.1.1", "239.1.1.2", "10.255.255.1", "no address"};
    const unsigned long ulNow = vexa_time(nullptr);
    const bool bFile = random() % 3 == 0;
    CASTInfo *pInfo = nullptr;
    if (MAKECASTInfo(&pInfo, sources[random() % 4], "239.2.2.2", "/no/such/file.ts",
                     bFile ? CAST_TYPE_FILE : CAST_TYPE_STREAM) != 1) {
        std::abort();
    }
    pInfo->uliEPGID = random() % 4;
    pInfo->ulCT = ulNow - random() % 3;
    pInfo->ulST = ulNow + random() % 2;
    pInfo->ulET = pInfo->ulST + random() % 3;
    pInfo->usSRCPort = kSourcePort;
    pInfo->usDSTPort = 6000;
    pInfo->ulSTREAMFormat = CAST_FORMAT_TS;
    QX_PCCASTSTREAMCommander(random() % 4 == 0 ? CAST_CMD_STOP : CAST_CMD_START, pInfo);
    ELIMINATECASTInfo(&pInfo);
}

void submitMessage(std::mt19937 &random) {
    MSGInfo *pInfo = nullptr;
    if (MAKEMSGInfo(&pInfo, "a text for every receiver") != 1) {
        std::abort();
    }
    pInfo->ulPriority = random() % 3;
    pInfo->ulCT = pInfo->ulST = vexa_time(nullptr) - random() % 2;
    pInfo->ulET = pInfo->ulST + random() % 4;
    pInfo->ulRepeat = random() % 3;
    QX_PCCASTMBCCommander(random() % 5 == 0 ? PCMBC_CMD_CANCEL : PCMBC_CMD_MSG, pInfo);
    ELIMINATEMSGInfo(&pInfo);
}

void client(unsigned int uiSeed) {
    std::mt19937 random(uiSeed);
    while (bClientsRun) {
        submitCast(random);
        submitMessage(random);
        lSubmitted += 2;
        std::this_thread::sleep_for(10ms);
    }
}

// Sends what the relays relay.
void source() {
    const int iSocket = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(kSourcePort);
    inet_pton(AF_INET, "239.1.1.1", &address.sin_addr);
    const std::vector<char> datagram(1316, 'x');
    while (bClientsRun) {
        sendto(iSocket, datagram.data(), datagram.size(), 0, reinterpret_cast<sockaddr *>(&address),
               sizeof address);
        std::this_thread::sleep_for(2ms);
    }
    close(iSocket);
}

// Waits until the folder has that many entries again, since an ended thread leaves /proc a moment later.
// Returns the count.
long settle(const char *pFolder, long lExpected) {
    for (int i = 0; i < 200 && entriesOf(pFolder) != lExpected; ++i) {
        std::this_thread::sleep_for(10ms);
    }
    return entriesOf(pFolder);
}

int check(bool bHolds, const std::string &what) {
    if (!bHolds) {
        std::fprintf(stderr, "soak: %s\n", what.c_str());
    }
    return bHolds ? 0 : 1;
}

} // namespace

int main(int argc, char **argv) {
    const int iCycles = argc > 1 ? std::atoi(argv[1]) : 100;
    int iFailures = check(std::freopen("/tmp/soak.log", "w", stdout) != nullptr, "no /tmp/soak.log");
    std::thread([] {}).join(); // a sanitizer starts a thread of its own beside the first one
    std::this_thread::sleep_for(200ms);
    const long lThreads = entriesOf("/proc/self/task");
    const long lDescriptors = entriesOf("/proc/self/fd");

    std::vector<std::thread> helpers;
    for (unsigned int i = 0; i < kClients; ++i) {
        helpers.emplace_back(client, i + 1);
    }
    helpers.emplace_back(source);

    std::mt19937 random(7);
    double dLongest = 0;
    for (int i = 0; i < iCycles; ++i) {
        iFailures += check(p_qxapi_open_pccast() == 1, "open refused");
        std::this_thread::sleep_for(std::chrono::milliseconds(random() % 300));
        const auto begin = std::chrono::steady_clock::now();
        iFailures += check(p_qxapi_close_pccast(nullptr) == 1, "close refused");
        const std::chrono::duration<double> spent = std::chrono::steady_clock::now() - begin;
        dLongest = std::max(dLongest, spent.count());
        iFailures += check(access(PCCAST_CAST_SOCKET, F_OK) != 0, "a cast socket file is left");
        iFailures += check(access(PCCAST_MESSAGE_SOCKET, F_OK) != 0, "a message socket file is left");
    }
    bClientsRun = false;
    for (std::thread &helper : helpers) {
        helper.join();
    }
    iFailures += check(settle("/proc/self/task", lThreads) == lThreads, "a thread is left");
    iFailures += check(settle("/proc/self/fd", lDescriptors) == lDescriptors, "a descriptor is left");
    iFailures += check(dLongest < 3.0, "a close took " + std::to_string(dLongest) + " s");
    iFailures += check(lSubmitted > iCycles, "hardly a request was submitted");
    std::fprintf(stderr, "soak: %d opens and closes, %ld requests, longest close %.2f s, %d failures\n",
                 iCycles, lSubmitted.load(), dLongest, iFailures);
    return iFailures == 0 ? 0 : 1;
}

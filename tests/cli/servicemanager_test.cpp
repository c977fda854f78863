// What the service manager is told, at a socket of the test's own.
#include "servicemanager.h"

#include <gtest/gtest.h>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <string>

namespace {

std::atomic<bool> gSupervisorLives{true};

int makeView(PCCASTView **ppView) {
    static unsigned long ulPasses = 0;
    *ppView = new PCCASTView{};
    (*ppView)->ulPasses = gSupervisorLives ? ++ulPasses : ulPasses;
    return 1;
}

int eliminateView(PCCASTView **ppView) {
    delete *ppView;
    *ppView = nullptr;
    return 1;
}

class ServiceManagerTest : public testing::Test {
protected:
    ServiceManagerTest() {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        const std::string sName = "pccast-test-" + std::to_string(getpid());
        sName.copy(address.sun_path + 1, sName.size());
        iSocket = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        const auto uiSize = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + sName.size());
        EXPECT_EQ(bind(iSocket, reinterpret_cast<const sockaddr *>(&address), uiSize), 0);
        const timeval wait{0, 300'000};
        setsockopt(iSocket, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
        setenv("NOTIFY_SOCKET", ("@" + sName).c_str(), 1);
        setenv("WATCHDOG_USEC", "60000", 1);
        plugin.pMakeView = makeView;
        plugin.pEliminateView = eliminateView;
    }
    ~ServiceManagerTest() override {
        close(iSocket);
        unsetenv("NOTIFY_SOCKET");
        unsetenv("WATCHDOG_USEC");
    }
    // The next notice; empty when none comes.
    std::string heard() const {
        char szText[256] = "";
        const ssize_t lLength = recv(iSocket, szText, sizeof szText - 1, 0);
        return lLength < 0 ? "" : szText;
    }

    Plugin plugin{};
    int iSocket = -1;
};

TEST_F(ServiceManagerTest, WatchdogIsFedOnlyWhileTheSupervisorMakesPasses) {
    ServiceManager manager(plugin);
    manager.ready();
    EXPECT_EQ(heard(), "READY=1\nSTATUS=serving");
    EXPECT_EQ(heard(), "WATCHDOG=1");
    EXPECT_EQ(heard(), "WATCHDOG=1");
    gSupervisorLives = false;
    int iRest = 0;
    while (heard() == "WATCHDOG=1") {
        ++iRest;
    }
    EXPECT_LE(iRest, 3);
    gSupervisorLives = true;
    EXPECT_EQ(heard(), "WATCHDOG=1");
    manager.stopping();
    std::string sLast = heard();
    while (sLast == "WATCHDOG=1") {
        sLast = heard();
    }
    EXPECT_EQ(sLast, "STOPPING=1\nSTATUS=closing");
    EXPECT_EQ(heard(), "");
}

} // namespace

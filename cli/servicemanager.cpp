#include "servicemanager.h"

#include <systemd/sd-daemon.h>

#include <chrono>
#include <cstdint>

namespace {

constexpr int kFeeds = 3; // how often within the watchdog's time

} // namespace

ServiceManager::~ServiceManager() {
    endFeeding();
}

void ServiceManager::starting(const std::string &sStatus) {
    sd_notifyf(0, "EXTEND_TIMEOUT_USEC=60000000\nSTATUS=%s", sStatus.c_str());
}

void ServiceManager::ready() {
    sd_notify(0, "READY=1\nSTATUS=serving");
    std::uint64_t ulMicroseconds = 0;
    if (sd_watchdog_enabled(0, &ulMicroseconds) > 0) {
        thread = std::thread([this, ulMicroseconds] { feed(ulMicroseconds); });
    }
}

void ServiceManager::stopping() {
    endFeeding();
    sd_notify(0, "STOPPING=1\nSTATUS=closing");
}

void ServiceManager::feed(unsigned long ulMicroseconds) {
    unsigned long ulPasses = 0;
    std::unique_lock<std::mutex> hold(lock);
    while (
        !ended.wait_for(hold, std::chrono::microseconds(ulMicroseconds / kFeeds), [this] { return bEnd; })) {
        PCCASTView *pView = nullptr;
        if (plugin.pMakeView(&pView) != 1) {
            continue;
        }
        if (pView->ulPasses != ulPasses) {
            ulPasses = pView->ulPasses;
            sd_notify(0, "WATCHDOG=1");
        }
        plugin.pEliminateView(&pView);
    }
}

void ServiceManager::endFeeding() {
    {
        const std::lock_guard<std::mutex> hold(lock);
        bEnd = true;
    }
    ended.notify_all();
    if (thread.joinable()) {
        thread.join();
    }
}

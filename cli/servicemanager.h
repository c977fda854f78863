// servicemanager.h - tells the system's service manager how the service does, where one wants to know.
//
// Made by serve. Without $NOTIFY_SOCKET it does nothing. With $WATCHDOG_USEC a thread of its own says that
// the service lives, as long as the supervisor makes passes.
#ifndef PCCAST_CLI_SERVICEMANAGER_H
#define PCCAST_CLI_SERVICEMANAGER_H

#include "pluginloader.h"

#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

class ServiceManager {
public:
    explicit ServiceManager(const Plugin &loaded) : plugin(loaded) {}
    ~ServiceManager();
    ServiceManager(const ServiceManager &) = delete;
    ServiceManager &operator=(const ServiceManager &) = delete;

    // The start goes on, and takes a minute more at most.
    static void starting(const std::string &sStatus);
    // The service is ready. The watchdog is fed from now on.
    void ready();
    // The service closes. The watchdog is fed no more.
    void stopping();

private:
    void feed(unsigned long ulMicroseconds);
    void endFeeding();

    Plugin plugin;
    std::thread thread;
    std::mutex lock;
    std::condition_variable ended;
    bool bEnd = false;
};

#endif

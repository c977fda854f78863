// sap.h - tells standard players of the transport streams on air: SAP (RFC 2974) with SDP (RFC 8866).
//
// Made by serve. A thread of its own reads the events. When one tells of a cast, it looks at the view, and
// announces what has come on air and takes back what is gone. It announces again every 30 to 40 s. Nothing in
// an announcement but numbers and addresses comes from a request.
#ifndef PCCAST_CLI_SAP_H
#define PCCAST_CLI_SAP_H

#include "pluginloader.h"

#include <atomic>
#include <memory>
#include <string>
#include <thread>

constexpr const char *kSapGroup = "224.2.127.254";
constexpr unsigned short kSapPort = 9875;

// A cast as it is announced.
struct SapCast {
    unsigned long ulRequest = 0; // its number in the view
    unsigned long ulEPGID = 0;
    unsigned long ulStarted = 0;
    unsigned long ulET = 0;
    std::string sGroup;
    unsigned short usPort = 0;
    unsigned int uiHops = 0;
};

// The description of a session. sOrigin: the address that announces it.
std::string sapDescription(const SapCast &cast, const std::string &sOrigin);

// The datagram that announces a description, or takes it back.
std::string sapPacket(const std::string &sDescription, const std::string &sOrigin, bool bDelete);

class Sap {
public:
    // Sends by sInterface: a name, an address, or empty for the routing table's choice.
    Sap(const Plugin &loaded, std::string sInterface);
    ~Sap();
    Sap(const Sap &) = delete;
    Sap &operator=(const Sap &) = delete;

    // Takes back what is announced, and ends.
    void stop();

private:
    void run();

    Plugin plugin;
    std::string sInterface;
    std::atomic<bool> bStop{false};
    std::thread thread;
};

#endif

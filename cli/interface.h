// interface.h - the network interfaces of this machine: which one --interface names, and by which one
// multicast leaves. Used by serve and watch in the main thread.
#ifndef PCCAST_CLI_INTERFACE_H
#define PCCAST_CLI_INTERFACE_H

#include <optional>
#include <string>

struct Interface {
    std::string sName;
    std::string sAddress; // IPv4; empty: it has none
    bool bUp = false;
};

// The interface with this name or this IPv4 address, if there is one. It has the address that was asked for,
// else its first.
std::optional<Interface> findInterface(const std::string &sInterface);

// The interface by which the routing table sends to the group of announcements and messages. Returns 0, or
// the errno of the system's refusal. *pInterface: without a name when no interface has the address that the
// system would send from.
int findRoute(Interface *pInterface);

// pszGiven: what names the interface, such as --interface. sInterface: empty when nothing was given. Returns
// EXIT_DONE, or EXIT_UNAVAILABLE when this machine has no such interface, which may come later (said on
// standard error).
int checkInterface(const char *pszGiven, const std::string &sInterface);

// The names and addresses of all interfaces, for a message.
std::string listInterfaces();

// The IPv4 address of an interface that is named or is that address already. Empty when it has none now.
std::string interfaceAddress(const std::string &sInterface);

#endif

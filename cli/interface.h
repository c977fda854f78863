// interface.h - checks --interface: serve sends by this interface, and watch listens on it. Called in the
// main thread.
#ifndef PCCAST_CLI_INTERFACE_H
#define PCCAST_CLI_INTERFACE_H

#include <string>

// sInterface: a name, an IPv4 address, or empty when the option was not given. Returns EXIT_DONE, or
// EXIT_USAGE when this machine has no such interface (said on standard error).
int checkInterface(const std::string &sInterface);

// The IPv4 address of an interface that is named or is that address already. Empty when it has none now.
std::string interfaceAddress(const std::string &sInterface);

#endif

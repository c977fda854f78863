// interface.h - the check of --interface, which serve sends by and watch listens on. Called in the main
// thread.
#ifndef PCCAST_CLI_INTERFACE_H
#define PCCAST_CLI_INTERFACE_H

#include <string>

// sInterface: a name or an IPv4 address, empty for none given. Returns EXIT_DONE, or EXIT_USAGE when this
// machine has no such interface, said on standard error.
int checkInterface(const std::string &sInterface);

#endif

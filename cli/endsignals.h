// endsignals.h - blocks the signals that end a command, so that it takes them where it waits.
//
// Called in the main thread, before it starts others: they must not take the signals either.
#ifndef PCCAST_CLI_ENDSIGNALS_H
#define PCCAST_CLI_ENDSIGNALS_H

#include <csignal>
#include <initializer_list>

// Blocks SIGINT, SIGTERM, SIGHUP, and the others given. Returns them all, to be waited for.
sigset_t blockEndSignals(std::initializer_list<int> others = {});

// Blocks the same. Returns a descriptor that has them to read, for a poll; -1 when there is none (said).
int openEndSignals(std::initializer_list<int> others = {});

#endif

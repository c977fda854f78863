// serviceswitch.h - lets the machine's registry switch a service off.
//
// The two senders of commander.h call it. It may run on any thread, and it keeps nothing between calls.
#ifndef PCCAST_SERVICESWITCH_H
#define PCCAST_SERVICESWITCH_H

extern "C" {

// The registry keys of the two senders.
#define PCCAST_CAST_SERVICE "/ORVEN/SERVICE/PCSTREAM"
#define PCCAST_MESSAGE_SERVICE "/ORVEN/SERVICE/PCMBC"

// Returns 0 if the registry's value of keyPath is DISABLE or a leading part of that word (printed each time).
// Upper and lower case are the same. Returns 1 in every other case, also if the registry cannot be opened.
int verifyINBTService(const char *keyPath);
}

#endif

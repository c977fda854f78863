// serviceswitch.h - lets the machine's registry switch a service off. Any thread; nothing is held between
// calls.
#ifndef PCCAST_SERVICESWITCH_H
#define PCCAST_SERVICESWITCH_H

extern "C" {

// The registry keys of the two senders.
#define PCCAST_CAST_SERVICE "/ORVEN/SERVICE/PCSTREAM"
#define PCCAST_MESSAGE_SERVICE "/ORVEN/SERVICE/PCMBC"

// Returns 0 when the registry's value of keyPath is DISABLE or a leading part of it, in any case of letters
// (printed each time); 1 in every other case, the registry that cannot be opened included.
int verifyINBTService(const char *keyPath);
}

#endif

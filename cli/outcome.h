// outcome.h - says what becomes of a request that was submitted, by the service's events.
//
// Used by relay, file, message and cancel in the main thread. What is said goes to standard error.
#ifndef PCCAST_CLI_OUTCOME_H
#define PCCAST_CLI_OUTCOME_H

#include <string>

class Command;
// How to know a request among the events.
struct RequestMark {
    std::string sKind; // as in the view: relay, file, message, cancel
    std::string sIdentity;
    unsigned long ulCT;
};

// Where the events stood before the request was submitted.
struct EventPlace {
    bool bView; // the service has a view
    unsigned long ulAfter;
};

// Adds --follow to a command.
void addFollowOption(const Command &command, bool &bFollow);

// Called before the request is submitted. A host without a view is no obstacle, except to --follow; it is
// said. Returns EXIT_DONE or EXIT_UNAVAILABLE.
int rememberEvents(bool bFollow, EventPlace *pPlace);

// Waits up to 2 s for the first that becomes of the request, and says it: on air, waiting for what, refused.
// With bFollow it goes on until the request is over. Returns EXIT_DONE when the request is on air or waits,
// or, with bFollow, when it came to the end that it was meant to have; else EXIT_REFUSED and those behind it.
// Without a view it does nothing and returns EXIT_DONE.
int tellOutcome(const EventPlace &place, const RequestMark &mark, bool bFollow);

#endif

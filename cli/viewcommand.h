// viewcommand.h - what list, status and events share.
//
// Used in the main thread.
#ifndef PCCAST_CLI_VIEWCOMMAND_H
#define PCCAST_CLI_VIEWCOMMAND_H

#include "viewclient.h"
#include "viewwords.h"

// What standard output is.
Screen readScreen();

// Returns EXIT_DONE for VIEW_ANSWERED. Else says the problem and returns EXIT_UNAVAILABLE.
int checkAnswer(ViewResult eResult, const std::string &sProblem);

// Asks for every event above ulAfter that is kept. *pulLost: how many are no longer kept. Returns EXIT_DONE
// or EXIT_UNAVAILABLE (said).
int fetchEvents(unsigned long ulAfter, std::vector<Json> *pEvents, unsigned long *pulLost);

#endif

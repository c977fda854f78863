// stateschema.h - the tables in the file of the state, and how a file gets them.
//
// Only the store opens the file by this.
#ifndef PCCAST_CLI_STATESCHEMA_H
#define PCCAST_CLI_STATESCHEMA_H

#include "sqlite.h"
#include "statestore.h"

#include <string>

// Opens the file as Store's constructor says: WRITE makes it, checks it and brings it up to kStateVersion.
// Throws StoreError or NewerStore.
Connection openState(const std::string &sPath, Store::Access eAccess);

#endif

// fileaccess.h - finds out whether another user may read a file.
//
// file asks before it submits: the service plays the file with the rights of its own user. Called in the main
// thread.
#ifndef PCCAST_CLI_FILEACCESS_H
#define PCCAST_CLI_FILEACCESS_H

#include <string>

#include <sys/types.h>

// sPath: absolute, without links. Returns the first folder on the way that the user may not enter, or the
// file if the user may not read it; empty when nothing is in the way. Goes by owner, group and mode. Where an
// access control list decides, it is taken for granted.
std::string closedTo(const std::string &sPath, uid_t uiUser);

#endif

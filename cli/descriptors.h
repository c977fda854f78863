// descriptors.h - holds the places of standard input, output and error. The first call in main() of each
// program.
#ifndef PCCAST_CLI_DESCRIPTORS_H
#define PCCAST_CLI_DESCRIPTORS_H

#include <fcntl.h>
#include <unistd.h>

// Opens /dev/null on each descriptor from 0 to 2 that is closed. Else the program's first socket would take
// the place, and what is printed would go out on the network. Standard input is opened for writing and the
// other two for reading: a use still fails, so a lost output is still an error.
inline void holdStandardDescriptors() {
    int iFile = -1;
    do {
        iFile = open("/dev/null", fcntl(STDIN_FILENO, F_GETFD) < 0 ? O_WRONLY : O_RDONLY);
    } while (iFile >= 0 && iFile <= STDERR_FILENO);
    if (iFile > STDERR_FILENO) {
        close(iFile);
    }
}

#endif

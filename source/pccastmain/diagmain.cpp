// The program diagpccast: runs the diagnostic driver in a process of its own.
#include "diag.h"

#include <cstdio>

int main(int argc, char **) {
    // The driver sends to the network for minutes. Asking for help must not start it.
    if (argc > 1) {
        std::fprintf(stderr, "diagpccast: takes no arguments. It announces a cast and sends messages for 330 "
                             "seconds, on the network; see diagpccast(1)\n");
        return 64;
    }
    diagPCCASTMain();
    return 0;
}

// The program diagpccast: the diagnostic driver in a process of its own.
#include "diag.h"

int main() {
    diagPCCASTMain();
    return 0;
}

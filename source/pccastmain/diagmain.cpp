// The program diagpccast: runs the diagnostic driver in a process of its own. It ignores arguments.
#include "diag.h"

int main() {
    diagPCCASTMain();
    return 0;
}

// The program diagpccast: the diagnostic driver in a process of its own. It takes no notice of arguments.
#include "diag.h"

int main() {
    diagPCCASTMain();
    return 0;
}

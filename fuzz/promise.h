// promise.h - what the code under test is held to.
#ifndef FUZZ_PROMISE_H
#define FUZZ_PROMISE_H

#include <cstdlib>

// Ends the run where a promise is broken.
inline void promise(bool bHolds) {
    if (!bHolds) {
        std::abort();
    }
}

#endif

// promise.h - checks what the code under test promises.
#ifndef FUZZ_PROMISE_H
#define FUZZ_PROMISE_H

#include <cstdlib>

// Aborts the run if a promise is broken.
inline void promise(bool bHolds) {
    if (!bHolds) {
        std::abort();
    }
}

#endif

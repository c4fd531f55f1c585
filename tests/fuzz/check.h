// How a fuzz target tells that something does not hold.
#pragma once

#include <cstdio>
#include <cstdlib>

// Ends the process where it does not: libFuzzer takes that for a crash and keeps the input.
inline void Check(bool bHolds, const char* what)
{
    if (bHolds)
        return;
    std::fprintf(stderr, "This does not hold: %s\n", what);
    std::abort();
}

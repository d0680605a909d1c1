#pragma once

#include <cstdio>
#include <cstdlib>

// Ends the program, which is how a fuzz target tells what it has found.
inline void require(bool condition, const char* what = "a property does not hold") {
    if (condition) return;
    std::fprintf(stderr, "%s\n", what);
    std::abort();
}

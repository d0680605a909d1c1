#pragma once

#include <cstdio>
#include <cstdlib>

// Ends the program with the reason, which libFuzzer reports as a finding.
inline void require(bool condition, const char* what = "a property does not hold") {
    if (condition) return;
    std::fprintf(stderr, "%s\n", what);
    std::abort();
}

#pragma once

#include <cstdint>

namespace NS_CORE {

// Where a C++ exception that nobody catches was thrown, or a pure virtual function called: the state of that function
// as a debugger needs it to go on from there to its callers.
struct ThrowSite {
    uint32_t instruction = 0; // 0 when it was not found
    uint32_t stack = 0;
    uint32_t frame = 0;
};

// To be asked in a terminate handler, with the stack still as it was thrown. The runtime library's functions, which
// are of no interest and hard to walk for a debugger, are left behind.
ThrowSite findThrowSite();

} // namespace NS_CORE

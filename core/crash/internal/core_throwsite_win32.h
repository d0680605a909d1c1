#pragma once

#include <cstdint>

namespace NS_CORE {

// The place where an uncaught C++ exception was thrown, or a pure virtual function called: the registers of that
// function, from which a debugger finds its callers.
struct ThrowSite {
    uint32_t instruction = 0; // 0 if it was not found
    uint32_t stack = 0;
    uint32_t frame = 0;
};

// Call it in a terminate handler, while the stack is still as it was at the throw. Skips the runtime library's
// functions, which say nothing about the program and which debuggers walk badly.
ThrowSite findThrowSite();

} // namespace NS_CORE

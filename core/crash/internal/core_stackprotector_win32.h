#pragma once

#include <cstdint>

// What the compiler's code under -fstack-protector-strong needs. Both names are the compiler's. Its own library is not
// linked because it loads the system's cryptography at every start for one random number, which takes longer than the
// rest of the start.

// NOLINTBEGIN(bugprone-reserved-identifier)
extern "C" {

// The value that functions save on their frames and compare before they return. Another one in each process, set before
// any initialiser of the program runs. Its lowest byte is 0, so that no text that overruns its buffer can contain it.
extern uintptr_t __stack_chk_guard;

// Called for an overwritten frame. Neither the stack nor the exception handlers on it can be trusted any more: the
// process ends here with STATUS_STACK_BUFFER_OVERRUN, and Windows' error reporting writes the dump if it is set up to.
[[noreturn]] void __stack_chk_fail();
}
// NOLINTEND(bugprone-reserved-identifier)

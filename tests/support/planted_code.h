#pragma once

namespace test {

// Overwrites the first instruction of a function of this process, as a stray write or a broken update would: it faults,
// or never returns. For the tests' processor, and never undone: for children.
void makeFault(void* function);
void makeHang(void* function);

// On Linux alone: the part of the crash report that belongs to somebody else: a function of the library that reads
// symbols.
void* symbolReader();

// On Linux alone: returns when another thread hangs in the middle of a stack trace.
void holdSymbolLibrary();

} // namespace test

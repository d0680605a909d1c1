#pragma once

namespace test {

// Overwrites the first instruction of a function of this process, as a stray write or a broken update would: it faults,
// or never returns. For the tests' processor, and never undone: for children.
void makeFault(void* function);
void makeHang(void* function);

// Linux only: a function of the library that reads symbols, for faults in the part of the crash report that is not
// ours.
void* symbolReader();

// Linux only: makes another thread hang in the middle of a stack trace, where it holds the symbol library's lock.
void holdSymbolLibrary();

} // namespace test

#pragma once

namespace test {

// What a function of this process does from now on, whatever it was made for: its first instruction is overwritten,
// as stray writes and broken updates do it. For the tests' processor only. Never undone: for children.
void makeFault(void* function);
void makeHang(void* function);

// The part of the crash report that belongs to somebody else: the system's writer of dumps, or the reader of symbols.
void* dumpWriter();

// Lets another thread stay in the middle of a stack trace for good, or returns when one is there.
void holdSymbolLibrary();

} // namespace test

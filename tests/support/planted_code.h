#pragma once

#include <string>
#include <string_view>

namespace test {

// Overwrites the beginning of a function of this process, as a stray write or a broken update would. Never undone: for
// children.
void overwrite(void* function, std::string_view code);

// For the tests' processor: an undefined instruction, and a jump to itself.
inline constexpr std::string_view kFault = "\x0f\x0b";
inline constexpr std::string_view kHang = "\xeb\xfe";

// Linux only: a jump to a function, which has the same parameters and result as the overwritten one.
std::string jumpTo(void* function);

// Linux only: a function of the library that reads symbols, for faults in the part of the crash report that is not
// ours.
void* symbolReader();

// Linux only: makes another thread hang in the middle of a stack trace, where it holds the symbol library's lock.
void holdSymbolLibrary();

} // namespace test

#include <windows.h>

#include <cstdint>

// What the code that the compiler adds under -fstack-protector-strong asks for. Both names are the compiler's. Its own
// library for this is not linked: that one loads the system's cryptography at every start for its random number, which
// takes longer than all the rest of the start.

namespace {

// As random as the system's own headers' default for this: clocks, ids and where the stack lies. The lowest byte is 0,
// so that no text that runs over its end can carry the value.
[[gnu::no_stack_protector]] uintptr_t makeGuard() {
    LARGE_INTEGER ticks = {};
    ::QueryPerformanceCounter(&ticks);
    FILETIME now = {};
    ::GetSystemTimeAsFileTime(&now);
    constexpr uint64_t kMix = 0x9E3779B97F4A7C15;
    const uint64_t parts[] = {now.dwLowDateTime, ::GetCurrentProcessId(), ::GetCurrentThreadId(),
                              reinterpret_cast<uintptr_t>(&ticks)};
    auto value = static_cast<uint64_t>(ticks.QuadPart);
    for (const uint64_t more : parts) {
        value = (value ^ more) * kMix;
        value ^= value >> 32;
    }
    return static_cast<uintptr_t>(value) & ~uintptr_t{0xFF};
}

} // namespace

// NOLINTBEGIN(bugprone-reserved-identifier)
extern "C" {

uintptr_t __stack_chk_guard = 0xBB40E600;

// Before every initialiser of the program's own; no function that has saved the first value returns after it.
[[gnu::constructor(101), gnu::no_stack_protector]] void quorkeriSetStackGuard() {
    __stack_chk_guard = makeGuard();
}

// The stack is not to be trusted any more, nor are the exception handlers on it: the process ends here, and Windows'
// error reporting takes the dump where it is told to.
[[noreturn]] void __stack_chk_fail() {
    if (::IsProcessorFeaturePresent(PF_FASTFAIL_AVAILABLE) != FALSE) {
        asm volatile("int $0x29" : : "c"(FAST_FAIL_STACK_COOKIE_CHECK_FAILURE) : "memory");
    }
    ::TerminateProcess(::GetCurrentProcess(), static_cast<UINT>(STATUS_STACK_BUFFER_OVERRUN));
    __builtin_trap();
}
}
// NOLINTEND(bugprone-reserved-identifier)

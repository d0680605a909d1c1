#include "core/crash/internal/core_stackprotector_win32.h"

#include <windows.h>

namespace {

// As random as the default of Microsoft's own runtime: clocks, ids and the stack's address.
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

// Runs before every initialiser of the program. No function that has saved the first value returns after it.
[[gnu::constructor(101), gnu::no_stack_protector]] void quorkeriSetStackGuard() {
    __stack_chk_guard = makeGuard();
}

[[noreturn]] void __stack_chk_fail() {
    if (::IsProcessorFeaturePresent(PF_FASTFAIL_AVAILABLE) != FALSE) {
        asm volatile("int $0x29" : : "c"(FAST_FAIL_STACK_COOKIE_CHECK_FAILURE) : "memory");
    }
    ::TerminateProcess(::GetCurrentProcess(), static_cast<UINT>(STATUS_STACK_BUFFER_OVERRUN));
    __builtin_trap();
}
}
// NOLINTEND(bugprone-reserved-identifier)

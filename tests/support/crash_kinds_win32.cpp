#include <windows.h>

#include "tests/support/crash_kinds.h"

namespace test {
namespace {

[[gnu::noinline]] void raiseException() {
    ::RaiseException(0xE1234567, 0, 0, nullptr);
}

// A fault that is no overflow, with a few kilobytes left before one.
[[gnu::noinline]] int faultWithLittleStack(const char* end) {
    volatile char room[512];
    room[0] = 1;
    if (const_cast<const char*>(room) - end > 8 * 1024) return faultWithLittleStack(end) + room[0];
    return *static_cast<volatile int*>(nullptr);
}

void useUpStack() {
    // The system keeps a guard page below what the thread may use, and what SetThreadStackGuarantee asked for.
    const char* const begin = reinterpret_cast<const char*>(__readfsdword(0xe0c)); // where the stack's memory begins
    ULONG guarantee = 0;
    ::SetThreadStackGuarantee(&guarantee);
    faultWithLittleStack(begin + guarantee + 2 * 4096);
}

LONG WINAPI endQuietly(EXCEPTION_POINTERS* exception) {
    ::TerminateProcess(::GetCurrentProcess(), exception->ExceptionRecord->ExceptionCode);
    return EXCEPTION_EXECUTE_HANDLER;
}

} // namespace

void endQuietlyOnUnhandledFaults() {
    ::SetUnhandledExceptionFilter(&endQuietly);
}

const int64_t kUnhandledFaultExitCode = EXCEPTION_ACCESS_VIOLATION;

void leaveMemoryBehind() {}

const int64_t kCrashExitCode = 4294967169;

std::map<std::string, void (*)()> platformCrashKinds() {
    return {{"raise", &raiseException}, {"lowstack", &useUpStack}};
}

} // namespace test

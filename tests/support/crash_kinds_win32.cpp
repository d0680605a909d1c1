#include <windows.h>

#include "tests/support/crash_kinds.h"

namespace test {
namespace {

[[gnu::noinline]] void raiseException() {
    ::RaiseException(0xE1234567, 0, 0, nullptr);
}

constexpr UINT kUnhandledExitCode = 99;

LONG WINAPI endQuietly(EXCEPTION_POINTERS* /*exception*/) {
    ::TerminateProcess(::GetCurrentProcess(), kUnhandledExitCode);
    return EXCEPTION_EXECUTE_HANDLER;
}

} // namespace

void endQuietlyOnUnhandledFaults() {
    ::SetUnhandledExceptionFilter(&endQuietly);
}

bool isEndByUnhandledFault(int64_t exitCode) {
    return exitCode == kUnhandledExitCode;
}

void leaveMemoryBehind() {}

const int64_t kCrashExitCode = 4294967169;

std::vector<std::string> platformCrashKinds() {
    return {"raise"};
}

void platformCrash(const std::string& kind) {
    if (kind == "raise") raiseException();
}

} // namespace test

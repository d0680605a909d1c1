#include <windows.h>

#include <cstdint>
#include <set>
#include <string>
#include <utility>

#include <gtest/gtest.h>

#include "core/crash/internal/core_stackprotector_win32.h"
#include "tests/support/child.h"
#include "tests/support/import_hook_win32.h"

extern "C" void quorkeriSetStackGuard();

namespace {

// Writes `count` bytes to a buffer of 16, whatever the compiler thinks of it.
[[gnu::noinline]] int fill(size_t count) {
    char buffer[16] = {};
    char* volatile end = buffer;
    for (size_t i = 0; i < count; ++i) {
        *end = 'x';
        end = end + 1;
    }
    return buffer[0];
}

std::string g_system;

// In place of two calls, so that it shows which way the process ends.
const test::ChildProgram g_fills("fills", [](const auto& arguments) {
    g_system = arguments.at(1);
    const test::ImportHook<decltype(::IsProcessorFeaturePresent)> knows(
        "IsProcessorFeaturePresent", [](DWORD) WINAPI -> BOOL { return g_system == "new"; });
    const test::ImportHook<decltype(::TerminateProcess)> ends("TerminateProcess", [](HANDLE, UINT code) WINAPI -> BOOL {
        if (g_system == "old") ::ExitProcess(code + 1);
        return FALSE;
    });
    fill(std::stoul(arguments.at(0)));
    return 0;
});
const test::ChildProgram g_tellsGuard("guard",
                                      [](const auto& /*arguments*/) { return static_cast<int>(__stack_chk_guard); });

TEST(StackProtector, LeavesAFunctionAloneThatStaysInItsBuffer) {
    EXPECT_EQ(test::runAndWait(test::childCommandLine("fills", {"16", "new"})), 0);
}

TEST(StackProtector, EndsTheProcessBeforeAnOverwrittenFrameReturns) {
    for (const auto& [system, code] : {std::pair{"new", STATUS_STACK_BUFFER_OVERRUN},
                                       {"old", STATUS_STACK_BUFFER_OVERRUN + 1},
                                       {"endless", STATUS_ILLEGAL_INSTRUCTION}})
        EXPECT_EQ(static_cast<DWORD>(test::runAndWait(test::childCommandLine("fills", {"24", system}))),
                  static_cast<DWORD>(code));
}

TEST(StackProtector, HasAnotherValueInEachProcessThatNoTextContains) {
    std::set<uint32_t> values;
    for (int i = 0; i < 4; ++i) {
        values.insert(static_cast<uint32_t>(test::runAndWait(test::childCommandLine("guard"))));
    }
    EXPECT_EQ(values.size(), 4U);
    for (const uint32_t value : values) {
        EXPECT_EQ(value & 0xFFU, 0U);
        EXPECT_NE(value, 0U);
    }
}

LONGLONG g_ticks = 0;
DWORD g_time = 0;

[[gnu::no_stack_protector]] uintptr_t guardAt(LONGLONG ticks, DWORD time) {
    g_ticks = ticks;
    g_time = time;
    const uintptr_t before = __stack_chk_guard;
    quorkeriSetStackGuard();
    return std::exchange(__stack_chk_guard, before);
}

TEST(StackProtector, MixesBothClocksIntoTheValue) {
    const test::ImportHook<decltype(::QueryPerformanceCounter)> ticks(
        "QueryPerformanceCounter", [](LARGE_INTEGER* to) WINAPI -> BOOL { return to->QuadPart = g_ticks, TRUE; });
    const test::ImportHook<decltype(::GetSystemTimeAsFileTime)> time(
        "GetSystemTimeAsFileTime", [](FILETIME* to) WINAPI -> void { to->dwLowDateTime = g_time; });
    std::set<uintptr_t> values;
    for (const auto& [at, when] : {std::pair{1LL, DWORD{1}}, {2LL, DWORD{1}}, {1LL, DWORD{4}}})
        values.insert(guardAt(at, when));
    EXPECT_EQ(values.size(), 3U);
}

} // namespace

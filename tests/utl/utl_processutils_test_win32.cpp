#include <gtest/gtest.h>
#include <windows.h>

#include <fstream>

#include "tests/support/child.h"
#include "tests/support/log_recorder.h"
#include "tests/support/temp_dir.h"
#include "utl/utl_processutils.h"

namespace NS_UTL {
namespace {

using Result = ProcessUtils::Result;

constexpr unsigned long kUntouched = 4711;

HANDLE handleOf(const std::string& text) {
    return reinterpret_cast<HANDLE>(static_cast<uintptr_t>(std::stoul(text)));
}

const test::ChildProgram g_terminated("terminated", [](const auto& arguments) {
    ::TerminateProcess(::GetCurrentProcess(), static_cast<UINT>(std::stoul(arguments.at(0))));
    return 0;
});

// Sets the event that the caller's handle names, if that handle is one here too.
const test::ChildProgram g_setsEvent("sets-event", [](const auto& arguments) {
    return ::SetEvent(handleOf(arguments.at(0))) ? 1 : 0;
});

// 0 without a console, and its window and screen.
const test::ChildProgram g_console("console", [](const auto&) {
    const HANDLE screen = ::CreateFileW(L"CONOUT$", GENERIC_WRITE, FILE_SHARE_WRITE, /*lpSecurityAttributes=*/nullptr,
                                        OPEN_EXISTING, /*dwFlagsAndAttributes=*/0, /*hTemplateFile=*/nullptr);
    return (::GetConsoleWindow() ? 1 : 0) + (screen != INVALID_HANDLE_VALUE ? 2 : 0);
});

// The system hands out the lowest free handle, so that a handle that was leaked shows in the next one.
uintptr_t nextHandle() {
    const HANDLE event = ::CreateEventW(nullptr, /*bManualReset=*/TRUE, /*bInitialState=*/FALSE, nullptr);
    ::CloseHandle(event);
    return reinterpret_cast<uintptr_t>(event);
}

class ExitCodesWin32 : public testing::TestWithParam<unsigned long> {};

TEST_P(ExitCodesWin32, OfProgramsEndedByForceAreStored) {
    unsigned long exitCode = kUntouched;
    const std::string line = test::childCommandLine("terminated", {std::to_string(GetParam())});
    EXPECT_EQ(ProcessUtils::start(line.c_str(), &exitCode), Result::Finished);
    EXPECT_EQ(exitCode, GetParam());
}

// The second is the code by which the system marks a program that still runs.
INSTANTIATE_TEST_SUITE_P(Programs, ExitCodesWin32, testing::Values(77UL, 259UL, 0xC0000005UL, 0xFFFFFFFFUL));

TEST(ProcessUtilsWin32, TheChildInheritsNoHandle) {
    SECURITY_ATTRIBUTES inheritable = {sizeof inheritable, nullptr, /*bInheritHandle=*/TRUE};
    const HANDLE event = ::CreateEventW(&inheritable, /*bManualReset=*/TRUE, /*bInitialState=*/FALSE, nullptr);
    ASSERT_NE(event, nullptr);
    unsigned long exitCode = kUntouched;
    const std::string line = test::childCommandLine("sets-event", {std::to_string(reinterpret_cast<uintptr_t>(event))});
    EXPECT_EQ(ProcessUtils::start(line.c_str(), &exitCode), Result::Finished);
    EXPECT_EQ(::WaitForSingleObject(event, 0), DWORD{WAIT_TIMEOUT});
    ::CloseHandle(event);
}

TEST(ProcessUtilsWin32, TheChildHasNoConsole) {
    unsigned long exitCode = kUntouched;
    EXPECT_EQ(ProcessUtils::start(test::childCommandLine("console").c_str(), &exitCode), Result::Finished);
    EXPECT_EQ(exitCode, 0UL);
}

TEST(ProcessUtilsWin32, StartsLeakNoHandle) {
    const test::LogRecorder log;
    const std::string line = test::childCommandLine("exit", {"0"});
    unsigned long exitCode = kUntouched;
    ASSERT_EQ(ProcessUtils::start(line.c_str(), &exitCode), Result::Finished);
    const uintptr_t before = nextHandle();
    for (int i = 0; i < 100; ++i) ASSERT_EQ(ProcessUtils::start(line.c_str(), &exitCode), Result::Finished);
    for (int i = 0; i < 1000; ++i) ASSERT_EQ(ProcessUtils::start("Z:\\no\\such.exe", &exitCode), Result::StartFailed);
    EXPECT_EQ(nextHandle(), before);
}

} // namespace
} // namespace NS_UTL

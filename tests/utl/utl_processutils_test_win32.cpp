#include <gtest/gtest.h>
#include <windows.h>

#include "tests/support/child.h"
#include "tests/support/import_hook_win32.h"
#include "tests/support/temp_dir.h"
#include "tests/utl/processutils_test.h"

namespace NS_UTL {
namespace {

using Result = ProcessUtils::Result;

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

TEST(ProcessUtilsWin32, ExitCodesOfProgramsEndedByForceAreStored) {
    // The second is the code by which the system marks a program that still runs.
    for (const unsigned long code : {77UL, 259UL, 0xC0000005UL, 0xFFFFFFFFUL})
        EXPECT_EQ(started(test::childCommandLine("terminated", {std::to_string(code)})),
                  Started(Result::Finished, code));
}

TEST(ProcessUtilsWin32, TheChildInheritsNoHandle) {
    SECURITY_ATTRIBUTES inheritable = {sizeof inheritable, nullptr, /*bInheritHandle=*/TRUE};
    const HANDLE event = ::CreateEventW(&inheritable, /*bManualReset=*/TRUE, /*bInitialState=*/FALSE, nullptr);
    ASSERT_NE(event, nullptr);
    const std::string line = test::childCommandLine("sets-event", {std::to_string(reinterpret_cast<uintptr_t>(event))});
    EXPECT_EQ(started(line).first, Result::Finished);
    EXPECT_EQ(::WaitForSingleObject(event, 0), DWORD{WAIT_TIMEOUT});
    ::CloseHandle(event);
}

TEST(ProcessUtilsWin32, TheChildHasNoConsole) {
    EXPECT_EQ(started(test::childCommandLine("console")), kFinished);
}

DWORD WINAPI waitInVain(HANDLE /*handle*/, DWORD /*milliseconds*/) {
    return WAIT_TIMEOUT;
}

BOOL WINAPI refuseExitCode(HANDLE /*process*/, LPDWORD /*code*/) {
    return FALSE;
}

TEST(ProcessUtilsWin32, AWaitInVainAndARefusedExitCodeHaveTheirResults) {
    const std::string line = test::childCommandLine("exit", {"3"});
    {
        const test::ImportHook waiting("WaitForSingleObject", &waitInVain);
        EXPECT_EQ(started(line), Started(Result::StillRunning, kUntouched));
    }
    const test::ImportHook asking("GetExitCodeProcess", &refuseExitCode);
    EXPECT_EQ(started(line), Started(Result::NoExitCode, kUntouched));
}

std::vector<std::string> g_closedHandles;
PROCESS_INFORMATION g_started;
const test::ImportHook<decltype(::CloseHandle)>* g_closing;

BOOL WINAPI createAndNote(LPCSTR program, LPSTR line, LPSECURITY_ATTRIBUTES ofProcess, LPSECURITY_ATTRIBUTES ofThread,
                          BOOL inherit, DWORD flags, LPVOID environment, LPCSTR directory, LPSTARTUPINFOA startup,
                          LPPROCESS_INFORMATION information) {
    EXPECT_TRUE(!program && !ofProcess && !ofThread && !inherit && !environment && !directory);
    EXPECT_EQ(flags, DWORD{DETACHED_PROCESS});
    EXPECT_EQ(startup->cb, 0U);
    STARTUPINFOW wideStartup = {};
    wideStartup.cb = sizeof wideStartup;
    std::wstring wideLine = test::fromText(line).wstring();
    const BOOL isStarted = ::CreateProcessW(nullptr, wideLine.data(), nullptr, nullptr, inherit, flags, nullptr,
                                            nullptr, &wideStartup, information);
    g_started = *information;
    return isStarted;
}

BOOL WINAPI closeAndNote(HANDLE handle) {
    if (handle == g_started.hProcess) g_closedHandles.emplace_back("process");
    if (handle == g_started.hThread) g_closedHandles.emplace_back("thread");
    return g_closing->original()(handle);
}

TEST(ProcessUtilsWin32, StartsDetachedAndClosesTheProcessBeforeItsThread) {
    const test::ImportHook creating("CreateProcessA", &createAndNote);
    const test::ImportHook<decltype(::CloseHandle)> closing("CloseHandle", &closeAndNote);
    g_closing = &closing;
    EXPECT_EQ(started(test::childCommandLine("exit", {"3"})), Started(Result::Finished, 3));
    EXPECT_EQ(g_closedHandles, (std::vector<std::string>{"process", "thread"}));
}

} // namespace
} // namespace NS_UTL

#include <gtest/gtest.h>
#include <windows.h>

#include <cstdlib>
#include <filesystem>

#include "core/check/core_assert.h"
#include "core/crash/core_crashguard.h"
#include "core/memory/core_scopedhandle_win32.h"
#include "tests/support/child.h"
#include "tests/support/crash_kinds.h"
#include "tests/support/temp_dir.h"

namespace service {
namespace {

// Runs the program's entry, whose work ends in a fault at once, because this program's directory is not "bin".
bool runEntry() {
    NS_CORE::Assert::installFailureHandler([](const char*, std::string_view, int32_t, int32_t, const std::string&) {
        test::crash("null");
        return false;
    });
    return ::WinMain(nullptr, nullptr, nullptr, 0) == NS_CORE::kCrashResult;
}

// Loads a library of the system by its name alone from a program that has another file of that name beside it.
const test::ChildProgram g_loads("loads-by-name", [](const std::vector<std::string>& arguments) {
    std::filesystem::current_path(test::fromText(arguments.at(0)));
    constexpr const wchar_t* kLibrary = L"cabinet.dll";
    if (::GetModuleHandleW(kLibrary)) return 10;
    if (NS_CORE::ScopedModule(::LoadLibraryW(kLibrary))) return 11; // the file beside it has not been found
    if (!runEntry()) return 14;
    if (!NS_CORE::ScopedModule(::LoadLibraryW(kLibrary))) return 12;
    if (::_set_error_mode(_REPORT_ERRMODE) != _OUT_TO_STDERR) return 15;
    return ::GetErrorMode() == (SEM_FAILCRITICALERRORS | SEM_NOOPENFILEERRORBOX) ? 0 : 13;
});

TEST(Entry, TakesLibrariesFromTheSystemAndShowsNoBoxes) {
    const test::TempDir dir;
    test::linkThisProgram(dir.path() / "program.exe");
    test::writeFile(dir.path() / "cabinet.dll", "This is a text, and no library.\n");
    EXPECT_EQ(
        test::runAndWait(test::childCommandLineOf(dir.file("program.exe"), "loads-by-name", {test::utf8(dir.path())})),
        0);
}

} // namespace
} // namespace service

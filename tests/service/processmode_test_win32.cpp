#include <gtest/gtest.h>

#include <filesystem>

#include "core/memory/core_scopedhandle_win32.h"
#include "service/processmode_win32.h"
#include "tests/support/child.h"
#include "tests/support/temp_dir.h"

namespace service {
namespace {

// Loads a library of the system by its name alone from a program that has another file of that name beside it.
const test::ChildProgram g_loads("loads-by-name", [](const std::vector<std::string>& /*arguments*/) {
    constexpr const wchar_t* kLibrary = L"cabinet.dll";
    if (::GetModuleHandleW(kLibrary)) return 10;
    if (NS_CORE::ScopedModule(::LoadLibraryW(kLibrary))) return 11; // the file beside it has not been found
    setProcessMode();
    if (!NS_CORE::ScopedModule(::LoadLibraryW(kLibrary))) return 12;
    return ::GetErrorMode() == (SEM_FAILCRITICALERRORS | SEM_NOOPENFILEERRORBOX) ? 0 : 13;
});

TEST(ProcessMode, TakesLibrariesFromTheSystemAndShowsNoBoxes) {
    const test::TempDir dir;
    test::linkThisProgram(dir.path() / "program.exe");
    test::writeFile(dir.path() / "cabinet.dll", "This is a text, and no library.\n");
    EXPECT_EQ(test::runAndWait(test::childCommandLineOf(dir.file("program.exe"), "loads-by-name")), 0);
}

} // namespace
} // namespace service

#include <gtest/gtest.h>
#include <windows.h>

#include <shellapi.h>

#include <random>

#include "core/memory/core_scopedhandle_win32.h"
#include "tests/support/temp_dir.h"
#include "utl/utl_commandline.h"

namespace NS_UTL {
namespace {

std::vector<std::string> splitBySystem(const std::string& commandLine) {
    int count = 0;
    const NS_CORE::ScopedLocalMemory<LPWSTR> words(
        ::CommandLineToArgvW(test::fromText(commandLine).wstring().c_str(), &count));
    std::vector<std::string> result;
    for (int i = 0; i < count; ++i) result.push_back(test::utf8(std::filesystem::path(words.get()[i])));
    return result;
}

// Without quotes in a row, on which the system's function and its runtime library differ, and without blanks in front
// of the program, where the system's function sees an empty program.
TEST(CommandLineWin32, AgreesWithTheSystem) {
    constexpr std::string_view kLetters = "ab \t\"\\";
    std::mt19937 random(1);
    int compared = 0;
    while (compared < 20000) {
        std::string line = "p ";
        for (size_t length = random() % 20; length > 0; --length) line += kLetters[random() % kLetters.size()];
        if (line.find("\"\"") != std::string::npos) continue;
        ASSERT_EQ(splitCommandLine(line), splitBySystem(line)) << line;
        ++compared;
    }
}

} // namespace
} // namespace NS_UTL

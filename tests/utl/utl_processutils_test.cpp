#include "utl/utl_processutils.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <thread>

#include "core/files/core_wrapper.h"
#include "tests/support/child.h"
#include "tests/support/log_recorder.h"
#include "tests/support/temp_dir.h"
#include "tests/utl/processutils_test.h"

namespace NS_UTL {
namespace {

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;
using Result = ProcessUtils::Result;

constexpr const char* kFailedToStart = "WARN NS_UTL::ProcessUtils::start - failed to start '";

// The system's code for "file not found" is 2 on both platforms.
std::string missingText() {
    return NS_CORE::systemErrorText(2);
}

const test::ChildProgram g_exit("exit", [](const auto& arguments) { return std::stoi(arguments.at(0)); });

// Writes its further arguments, a line each, to the file named first.
const test::ChildProgram g_arguments("arguments", [](const auto& arguments) {
    std::ofstream report(test::fromText(arguments.at(0)), std::ios::binary);
    for (size_t i = 1; i < arguments.size(); ++i) report << arguments[i] << '\n';
    return 0;
});

// Writes to the file named first: its program, its working directory, a variable of its environment.
const test::ChildProgram g_surroundings("surroundings", [](const auto& arguments) {
    const char* const variable = std::getenv("QUORKERI_TEST_VARIABLE");
    std::ofstream report(test::fromText(arguments.at(0)), std::ios::binary);
    report << test::thisProgram() << '\n'
           << test::utf8(fs::current_path()) << '\n'
           << (variable ? variable : "") << '\n';
    return 0;
});

// Starts the command line named second from the directory named first.
const test::ChildProgram g_starter("starter", [](const auto& arguments) {
    fs::current_path(test::fromText(arguments.at(0)));
    const auto [result, exitCode] = started(arguments.at(1));
    return result == Result::Finished ? static_cast<int>(exitCode) : 100 + static_cast<int>(result);
});

static_assert(static_cast<int>(Result::Finished) == 1 && static_cast<int>(Result::StillRunning) == 3 &&
              static_cast<int>(Result::StartFailed) == 4 && static_cast<int>(Result::NoExitCode) == 5);

TEST(ProcessUtils, ExitCodesAreStored) {
    const test::LogRecorder log;
    for (const unsigned long code : {0UL, 1UL, 3UL, 126UL, 127UL, 255UL})
        EXPECT_EQ(started(test::childCommandLine("exit", {std::to_string(code)})), Started(Result::Finished, code));
    EXPECT_EQ(log.lines(), Lines());
}

TEST(ProcessUtils, WhatIsNoProgramIsLogged) {
    const test::TempDir dir;
    test::writeFile(dir.path() / "text.exe", "this is not a program\n");
    fs::permissions(dir.path() / "text.exe", fs::perms::owner_all);
    const auto quoted = [&dir](const char* name) { return '"' + dir.file(name) + '"'; };
    const std::string anyReason;
    for (const auto& [line, reason] :
         std::vector<std::pair<std::string, std::string>>{{"no-such-program.exe with arguments", missingText()},
                                                          {quoted("\xD0\x96 missing.exe"), missingText()},
                                                          {"", anyReason},
                                                          {quoted("text.exe"), anyReason},
                                                          {quoted("."), anyReason}}) {
        const test::LogRecorder log;
        EXPECT_EQ(started(line), kStartFailed);
        ASSERT_EQ(log.lines().size(), 1U) << line;
        const std::string begin = kFailedToStart + line + "': ";
        EXPECT_TRUE(log.lines()[0].starts_with(begin + reason)) << log.lines()[0];
    }
}

TEST(ProcessUtils, ArgumentsArriveAsWritten) {
    const test::TempDir dir;
    const std::string report = dir.file("\xD0\x96 report");
    const std::string line = test::childCommandLine("arguments", {report, "a b", "\xE6\xB8\xAC\xE8\xA9\xA6"}) +
                             R"( plain\ $HOME * %PATH% ;)";
    EXPECT_EQ(started(line), kFinished);
    EXPECT_EQ(linesOf(test::fromText(report)),
              (Lines{"a b", "\xE6\xB8\xAC\xE8\xA9\xA6", "plain\\", "$HOME", "*", "%PATH%", ";"}));
}

TEST(ProcessUtils, TheChildHasTheCallersDirectoryAndEnvironment) {
    const test::TempDir dir;
    fs::create_directory(test::fromText(dir.file("\xD0\x96 working directory")));
    fs::current_path(test::fromText(dir.file("\xD0\x96 working directory")));
    static char variable[] = "QUORKERI_TEST_VARIABLE=its value"; // stays part of the environment
    ASSERT_EQ(::putenv(variable), 0);
    EXPECT_EQ(started(test::childCommandLine("surroundings", {dir.file("report")})), kFinished);
    EXPECT_EQ(linesOf(dir.path() / "report"),
              (Lines{test::thisProgram(), test::utf8(fs::current_path()), "its value"}));
    fs::current_path(fs::temp_directory_path());
}

void addToPath(const std::string& directory) {
    const char separator = fs::path::preferred_separator == '/' ? ':' : ';';
    static const std::string s_before = std::getenv("PATH");
    static std::string& s_variable = *new std::string; // stays part of the environment
    s_variable = "PATH=nowhere" + (separator + directory) + separator + s_before;
    ASSERT_EQ(::putenv(s_variable.data()), 0);
}

// A starter in "module" works in "working", with "path" in PATH, and starts "helper.exe", which lies in some of them.
TEST(ProcessUtils, AProgramIsSearchedBesideTheCallerThenInItsDirectoryThenInPath) {
    constexpr int kFailed = 100 + static_cast<int>(Result::StartFailed);
    struct Row {
        std::vector<const char*> helpers;
        const char* found;
        int result;
        bool hasTextInModule = false;
    };
    for (const Row& row : {Row{{"module", "working", "path"}, "module", 0}, Row{{"working", "path"}, "working", 0},
                           Row{{"path"}, "path", 0}, Row{{}, "", kFailed}, Row{{"path"}, "", kFailed, true}}) {
        const test::TempDir dir;
        for (const char* directory : {"module", "working", "path"}) fs::create_directory(dir.path() / directory);
        test::linkThisProgram(dir.path() / "module" / "starter.exe");
        for (const char* directory : row.helpers) test::linkThisProgram(dir.path() / directory / "helper.exe");
        // The search ends at a file that is no program.
        if (row.hasTextInModule) test::writeFile(dir.path() / "module" / "helper.exe", "this is not a program\n");
        addToPath(dir.file("path"));
        const std::string helper = "helper.exe --run-child surroundings " + dir.file("report");
        EXPECT_EQ(test::runAndWait(test::childCommandLineOf(dir.file("module/starter.exe"), "starter",
                                                            {dir.file("working"), helper})),
                  row.result);
        const Lines lines = linesOf(dir.path() / "report");
        EXPECT_EQ(lines.empty() ? "" : test::utf8(test::fromText(lines[0]).parent_path().filename()), row.found);
    }
}

TEST(ProcessUtils, SeveralThreadsMayStartAtOnce) {
    std::vector<std::thread> threads;
    for (unsigned long code = 10; code < 14; ++code) {
        threads.emplace_back([code] {
            const std::string line = test::childCommandLine("exit", {std::to_string(code)});
            for (int i = 0; i < 5; ++i) EXPECT_EQ(started(line), Started(Result::Finished, code));
        });
    }
    for (std::thread& thread : threads) thread.join();
}

} // namespace
} // namespace NS_UTL

#include "utl/utl_processutils.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <list>
#include <thread>

#include "core/files/core_wrapper.h"
#include "tests/support/child.h"
#include "tests/support/log_recorder.h"
#include "tests/support/temp_dir.h"

namespace NS_UTL {
namespace {

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;
using Result = ProcessUtils::Result;

constexpr unsigned long kUntouched = 4711;
constexpr const char* kFailedToStart = "WARN NS_UTL::ProcessUtils::start - failed to start '";

// The system's code for "file not found" is 2 on both platforms.
std::string missingText() {
    return NS_CORE::systemErrorText(2);
}

Lines linesOf(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    Lines lines;
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
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
    unsigned long exitCode = kUntouched;
    const Result result = ProcessUtils::start(arguments.at(1).c_str(), &exitCode);
    return result == Result::Finished ? static_cast<int>(exitCode) : 100 + static_cast<int>(result);
});

class ExitCodes : public testing::TestWithParam<int> {};

TEST_P(ExitCodes, AreStored) {
    const test::LogRecorder log;
    unsigned long exitCode = kUntouched;
    const std::string line = test::childCommandLine("exit", {std::to_string(GetParam())});
    EXPECT_EQ(ProcessUtils::start(line.c_str(), &exitCode), Result::Finished);
    EXPECT_EQ(exitCode, static_cast<unsigned long>(GetParam()));
    EXPECT_TRUE(log.lines().empty());
}

INSTANTIATE_TEST_SUITE_P(Programs, ExitCodes, testing::Values(0, 1, 3, 126, 127, 255));

TEST(ProcessUtils, ResultsHaveTheirNumbers) {
    EXPECT_EQ(static_cast<int>(Result::Finished), 1);
    EXPECT_EQ(static_cast<int>(Result::StillRunning), 3);
    EXPECT_EQ(static_cast<int>(Result::StartFailed), 4);
    EXPECT_EQ(static_cast<int>(Result::NoExitCode), 5);
}

TEST(ProcessUtils, AMissingProgramIsLogged) {
    const test::LogRecorder log;
    unsigned long exitCode = kUntouched;
    EXPECT_EQ(ProcessUtils::start("no-such-program.exe with arguments", &exitCode), Result::StartFailed);
    EXPECT_EQ(log.lines(), (Lines{kFailedToStart + ("no-such-program.exe with arguments': " + missingText())}));
    EXPECT_EQ(exitCode, kUntouched);
}

TEST(ProcessUtils, AMissingProgramWithItsPathIsLogged) {
    const test::TempDir dir;
    const test::LogRecorder log;
    unsigned long exitCode = kUntouched;
    const std::string line = '"' + dir.file("\xD0\x96 missing.exe") + '"';
    EXPECT_EQ(ProcessUtils::start(line.c_str(), &exitCode), Result::StartFailed);
    EXPECT_EQ(log.lines(), (Lines{kFailedToStart + line + "': " + missingText()}));
    EXPECT_EQ(exitCode, kUntouched);
}

TEST(ProcessUtils, AnEmptyCommandLineStartsNothing) {
    const test::LogRecorder log;
    unsigned long exitCode = kUntouched;
    EXPECT_EQ(ProcessUtils::start("", &exitCode), Result::StartFailed);
    ASSERT_EQ(log.lines().size(), 1U);
    EXPECT_TRUE(log.lines()[0].starts_with(kFailedToStart + std::string("': "))) << log.lines()[0];
    EXPECT_EQ(exitCode, kUntouched);
}

TEST(ProcessUtils, AFileThatIsNoProgramIsLogged) {
    const test::TempDir dir;
    test::writeFile(dir.path() / "text.exe", "this is not a program\n");
    fs::permissions(dir.path() / "text.exe", fs::perms::owner_all);
    const test::LogRecorder log;
    unsigned long exitCode = kUntouched;
    const std::string line = '"' + dir.file("text.exe") + '"';
    EXPECT_EQ(ProcessUtils::start(line.c_str(), &exitCode), Result::StartFailed);
    ASSERT_EQ(log.lines().size(), 1U);
    EXPECT_TRUE(log.lines()[0].starts_with(kFailedToStart + line + "': ")) << log.lines()[0];
    EXPECT_EQ(exitCode, kUntouched);
}

TEST(ProcessUtils, ADirectoryIsNoProgram) {
    const test::TempDir dir;
    const test::LogRecorder log;
    unsigned long exitCode = kUntouched;
    const std::string line = '"' + dir.file(".") + '"';
    EXPECT_EQ(ProcessUtils::start(line.c_str(), &exitCode), Result::StartFailed);
    EXPECT_EQ(log.lines().size(), 1U);
}

TEST(ProcessUtils, ArgumentsArriveAsWritten) {
    const test::TempDir dir;
    unsigned long exitCode = kUntouched;
    const std::string report = dir.file("\xD0\x96 report");
    const std::string line = test::childCommandLine("arguments", {report, "a b", "\xE6\xB8\xAC\xE8\xA9\xA6"}) +
                             R"( plain\ $HOME * %PATH% ;)";
    EXPECT_EQ(ProcessUtils::start(line.c_str(), &exitCode), Result::Finished);
    EXPECT_EQ(linesOf(test::fromText(report)),
              (Lines{"a b", "\xE6\xB8\xAC\xE8\xA9\xA6", "plain\\", "$HOME", "*", "%PATH%", ";"}));
}

TEST(ProcessUtils, TheChildHasTheCallersDirectoryAndEnvironment) {
    const test::TempDir dir;
    fs::create_directory(test::fromText(dir.file("\xD0\x96 working directory")));
    fs::current_path(test::fromText(dir.file("\xD0\x96 working directory")));
    static char variable[] = "QUORKERI_TEST_VARIABLE=its value"; // stays part of the environment
    ASSERT_EQ(::putenv(variable), 0);
    unsigned long exitCode = kUntouched;
    const std::string line = test::childCommandLine("surroundings", {dir.file("report")});
    EXPECT_EQ(ProcessUtils::start(line.c_str(), &exitCode), Result::Finished);
    EXPECT_EQ(linesOf(dir.path() / "report"),
              (Lines{test::thisProgram(), test::utf8(fs::current_path()), "its value"}));
    fs::current_path(fs::temp_directory_path());
}

// Copies of the test program in three directories, one of which has the program that starts "helper.exe".
class SearchForAProgram : public testing::Test {
protected:
    void SetUp() override {
        for (const char* directory : {"module", "working", "path"}) fs::create_directory(m_dir.path() / directory);
        test::linkThisProgram(m_dir.path() / "module" / "starter.exe");
    }

    // Where helper.exe is found by a starter in "module" that works in "working", with "path" in PATH.
    std::string whereFound() {
        const std::string report = m_dir.file("report");
        const std::string starter =
            test::childCommandLineOf(m_dir.file("module/starter.exe"), "starter",
                                     {m_dir.file("working"), "helper.exe --run-child surroundings " + report});
        addToPath(m_dir.file("path"));
        m_result = test::runAndWait(starter);
        const Lines lines = linesOf(m_dir.path() / "report");
        return lines.empty() ? "nowhere" : test::utf8(test::fromText(lines[0]).parent_path().filename());
    }

    void placeHelper(const char* directory) { test::linkThisProgram(m_dir.path() / directory / "helper.exe"); }

    static void addToPath(const std::string& directory) {
        const char separator = fs::path::preferred_separator == '/' ? ':' : ';';
        // They stay part of the environment.
        static std::list<std::string>& variables = *new std::list<std::string>;
        ASSERT_EQ(::putenv(variables.emplace_back("PATH=" + directory + separator + std::getenv("PATH")).data()), 0);
    }

    test::TempDir m_dir;
    int m_result = -1;
};

TEST_F(SearchForAProgram, BeginsBesideTheRunningProgram) {
    for (const char* directory : {"module", "working", "path"}) placeHelper(directory);
    EXPECT_EQ(whereFound(), "module");
    EXPECT_EQ(m_result, 0);
}

TEST_F(SearchForAProgram, GoesOnInTheWorkingDirectory) {
    for (const char* directory : {"working", "path"}) placeHelper(directory);
    EXPECT_EQ(whereFound(), "working");
    EXPECT_EQ(m_result, 0);
}

TEST_F(SearchForAProgram, EndsInPath) {
    placeHelper("path");
    EXPECT_EQ(whereFound(), "path");
    EXPECT_EQ(m_result, 0);
}

TEST_F(SearchForAProgram, MayFindNothing) {
    EXPECT_EQ(whereFound(), "nowhere");
    EXPECT_EQ(m_result, 100 + static_cast<int>(Result::StartFailed));
}

TEST_F(SearchForAProgram, StopsAtAFileThatIsNoProgram) {
    test::writeFile(m_dir.path() / "module" / "helper.exe", "this is not a program\n");
    placeHelper("path");
    EXPECT_EQ(whereFound(), "nowhere");
    EXPECT_EQ(m_result, 100 + static_cast<int>(Result::StartFailed));
}

TEST(ProcessUtils, SeveralThreadsMayStartAtOnce) {
    std::vector<std::thread> threads;
    for (int code = 10; code < 14; ++code) {
        threads.emplace_back([code] {
            const std::string line = test::childCommandLine("exit", {std::to_string(code)});
            for (int i = 0; i < 5; ++i) {
                unsigned long exitCode = kUntouched;
                EXPECT_EQ(ProcessUtils::start(line.c_str(), &exitCode), Result::Finished);
                EXPECT_EQ(exitCode, static_cast<unsigned long>(code));
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
}

} // namespace
} // namespace NS_UTL

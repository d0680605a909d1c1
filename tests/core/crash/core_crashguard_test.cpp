#include "core/crash/core_crashguard.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <thread>

#include "core/crash/internal/core_crashreport.h"
#include "core/identity/core_paths.h"
#include "core/identity/core_rcsname.h"
#include "core/log/core_v2masterlogger.h"
#include "tests/support/child.h"
#include "tests/support/crash_kinds.h"
#include "tests/support/history_lines.h"
#include "tests/support/self_process.h"
#include "tests/support/temp_dir.h"

namespace {

namespace fs = std::filesystem;
using test::SelfProcess;

std::string g_kind; // what the child's application is to do

constexpr int kUnnoticed = 55; // the crash did nothing

int application(int argc, char** argv) {
    if (g_kind == "arguments") return argc * 10 + static_cast<int>(std::string_view(argv[argc - 1]).size());
    if (g_kind == "thread") {
        std::thread([] { test::crash("null"); }).join();
        return kUnnoticed;
    }
    test::crash(g_kind);
    return kUnnoticed;
}

int guardWith(const std::vector<std::string>& words) {
    std::vector<std::string> owned{"program"};
    owned.insert(owned.end(), words.begin(), words.end());
    std::vector<char*> argv;
    for (std::string& word : owned) argv.push_back(word.data());
    return NS_CORE::guard(static_cast<int>(argv.size()), argv.data(), &application);
}

// kind, working directory, words for the command line
const test::ChildProgram g_guarded("guarded", [](const std::vector<std::string>& arguments) {
    g_kind = arguments.at(0);
    fs::current_path(arguments.at(1));
    NS_CORE::setDefaultPaths();
    test::endQuietlyOnUnhandledFaults();
    return guardWith({arguments.begin() + 2, arguments.end()});
});

const test::ChildProgram g_guardedSilently("guarded-silently", [](const std::vector<std::string>& arguments) {
    NS_CORE::MasterLogger::setLevelFlags(NS_CORE::LogLevel::Crit, 0);
    NS_CORE::MasterLogger::setLevelImplementationBits(NS_CORE::LogLevel::Crit, 0);
    g_kind = arguments.at(0);
    fs::current_path(arguments.at(1));
    NS_CORE::setDefaultPaths();
    return guardWith({});
});

const test::ChildProgram g_guardedTwice("guarded-twice", [](const std::vector<std::string>& arguments) {
    g_kind = "arguments";
    if (guardWith({"one"}) != 23) return 1;
    g_kind = arguments.at(0);
    fs::current_path(arguments.at(1));
    NS_CORE::setDefaultPaths();
    return guardWith({});
});

// What the guard needs from the fault to its result, dump and both lines included.
const test::ChildProgram g_timed("guarded-timed", [](const std::vector<std::string>& arguments) {
    g_kind = arguments.at(0);
    fs::current_path(arguments.at(1));
    NS_CORE::setDefaultPaths();
    const auto start = std::chrono::steady_clock::now();
    guardWith({});
    const auto taken = std::chrono::steady_clock::now() - start;
    std::printf("%lld\n", static_cast<long long>(std::chrono::duration_cast<std::chrono::milliseconds>(taken).count()));
    return 0;
});

// An installation's directories, as the service has them before its first crash.
class CrashGuardTest : public testing::Test {
protected:
    CrashGuardTest() { fs::create_directories(m_directory.path() / "work/logs"); }

    fs::path dumpFile() const {
        return m_directory.path() / "work/dumps" /
               ("core_tests-" + std::string(NS_CORE::versionWithBuildId()) + ".dmp");
    }
    fs::path historyFile() const { return m_directory.path() / "work/logs/dumps.log"; }
    std::string directory() const { return m_directory.path().string(); }

    // What a child prints, with '\n' for what the platform ends lines with.
    static std::string outputOf(SelfProcess& child) {
        std::string output = child.readAll();
        std::erase(output, '\r');
        return output;
    }

    // The dump's name as the log tells it.
    static std::string toldDumpFile() {
        NS_CORE::setDefaultPaths();
        return NS_CORE::crashNames().dumpFile;
    }
    static std::string writtenLine() {
        return "[CRIT] Wrote minidump for 'core_tests' to '" + toldDumpFile() + "', version '" +
               NS_CORE::versionWithBuildId() + "'\n";
    }

    void expectHistory(int lines) const {
        std::string expected;
        for (int count = 0; count < lines; ++count)
            expected += "TIME: core_tests " + std::string(NS_CORE::versionWithBuildId()) + "\n";
        EXPECT_EQ(test::withoutTimes(test::readFile(historyFile())), expected);
    }

    test::TempDir m_directory;
};

class CrashKindTest : public CrashGuardTest, public testing::WithParamInterface<std::string> {};

TEST_P(CrashKindTest, LeavesADumpALogLineAHistoryLineAndTheResult) {
    SelfProcess child("guarded", {GetParam(), directory()});
    EXPECT_EQ(outputOf(child), writtenLine());
    EXPECT_EQ(child.wait(), test::kCrashExitCode);
    EXPECT_GT(fs::file_size(dumpFile()), 100U);
    expectHistory(1);
}

INSTANTIATE_TEST_SUITE_P(All, CrashKindTest, testing::ValuesIn(test::crashKinds()),
                         [](const auto& kind) { return kind.param; });

TEST_F(CrashGuardTest, SecondCrashOverwritesTheDumpAndAddsToTheHistory) {
    fs::create_directories(dumpFile().parent_path());
    test::writeFile(dumpFile(), std::string(50'000'000, 'x'));
    SelfProcess first("guarded", {"null", directory()});
    EXPECT_EQ(first.wait(), test::kCrashExitCode);
    SelfProcess second("guarded", {"null", directory()});
    EXPECT_EQ(second.wait(), test::kCrashExitCode);
    const auto dumps = std::distance(fs::directory_iterator(dumpFile().parent_path()), fs::directory_iterator());
    EXPECT_EQ(dumps, 1);
    EXPECT_LT(fs::file_size(dumpFile()), 50'000'000U);
    expectHistory(2);
}

TEST_F(CrashGuardTest, IsDoneBeforeTheReportIsGivenUp) {
    SelfProcess child("guarded-timed", {"null", directory()});
    const std::string output = outputOf(child);
    EXPECT_EQ(child.wait(), 0);
    ASSERT_TRUE(output.starts_with(writtenLine())) << output;
    const int milliseconds = std::stoi(output.substr(writtenLine().size()));
    std::printf("from fault to result: %d ms\n", milliseconds);
    RecordProperty("milliseconds", milliseconds);
    EXPECT_LT(milliseconds, 30'000);
    expectHistory(1);
}

TEST_F(CrashGuardTest, WithCritOffStillWritesDumpAndHistory) {
    SelfProcess child("guarded-silently", {"null", directory()});
    EXPECT_EQ(outputOf(child), "");
    EXPECT_EQ(child.wait(), test::kCrashExitCode);
    EXPECT_GT(fs::file_size(dumpFile()), 0U);
    expectHistory(1);
}

TEST_F(CrashGuardTest, SaysWhyTheDumpCouldNotBeWrittenAndKeepsTheHistory) {
    // The dumps directory's name is taken by a file.
    test::writeFile(m_directory.path() / "work/dumps", "in the way");
    SelfProcess child("guarded", {"null", directory()});
    const std::string output = outputOf(child);
    const std::string start = "[CRIT] Failed to write minidump for 'core_tests' to '" + toldDumpFile() +
                              "', version '" + NS_CORE::versionWithBuildId() + "' (";
    EXPECT_TRUE(output.starts_with(start)) << output;
    EXPECT_GT(output.size(), start.size() + 5) << "no error text in " << output;
    // On Windows the system's text ends with a line break of its own.
    EXPECT_TRUE(output.ends_with(")\n")) << output;
    EXPECT_EQ(child.wait(), test::kCrashExitCode);
    expectHistory(1);
}

TEST_F(CrashGuardTest, WithoutALogDirectorySkipsTheHistorySilently) {
    fs::remove(m_directory.path() / "work/logs");
    SelfProcess child("guarded", {"null", directory()});
    EXPECT_EQ(outputOf(child), writtenLine());
    EXPECT_EQ(child.wait(), test::kCrashExitCode);
    EXPECT_GT(fs::file_size(dumpFile()), 0U);
    EXPECT_FALSE(fs::exists(historyFile()));
}

TEST_F(CrashGuardTest, HandsArgumentsAndResultThrough) {
    SelfProcess child("guarded", {"arguments", directory(), "one", "seven77"});
    EXPECT_EQ(child.wait(), 37);
    EXPECT_FALSE(fs::exists(historyFile()));
}

TEST_F(CrashGuardTest, GuardsAgainAfterARunWithoutFault) {
    SelfProcess child("guarded-twice", {"null", directory()});
    EXPECT_EQ(outputOf(child), writtenLine());
    EXPECT_EQ(child.wait(), test::kCrashExitCode);
}

TEST_F(CrashGuardTest, WithTheSwitchWordRunsUnguarded) {
    for (const std::vector<std::string>& words : std::vector<std::vector<std::string>>{{"jitd"}, {"install", "jitd"}}) {
        std::vector<std::string> arguments{"null", directory()};
        arguments.insert(arguments.end(), words.begin(), words.end());
        SelfProcess child("guarded", arguments);
        EXPECT_EQ(outputOf(child), "");
        EXPECT_TRUE(test::isEndByUnhandledFault(child.wait()));
        EXPECT_FALSE(fs::exists(dumpFile()));
        EXPECT_FALSE(fs::exists(historyFile()));
    }
}

TEST_F(CrashGuardTest, WithTheSwitchWordStillHandsArgumentsAndResultThrough) {
    SelfProcess child("guarded", {"arguments", directory(), "jitd"});
    EXPECT_EQ(child.wait(), 24);
}

TEST_F(CrashGuardTest, OtherSpellingsOfTheSwitchWordDoNotSwitchOff) {
    SelfProcess child("guarded", {"null", directory(), "JITD", "-jitd"});
    EXPECT_EQ(child.wait(), test::kCrashExitCode);
    expectHistory(1);
}

TEST_F(CrashGuardTest, DoesNotCoverOtherThreads) {
    SelfProcess child("guarded", {"thread", directory()});
    EXPECT_EQ(outputOf(child), "");
    EXPECT_TRUE(test::isEndByUnhandledFault(child.wait()));
    EXPECT_FALSE(fs::exists(dumpFile()));
    EXPECT_FALSE(fs::exists(historyFile()));
}

} // namespace

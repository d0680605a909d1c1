#include "core/files/core_dir.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "core/files/core_wrapper.h"
#include "tests/core/files/core_dir_fixture.h"
#include "tests/support/hook_recorder.h"
#include "tests/support/log_recorder.h"

namespace NS_CORE {
namespace {

namespace fs = std::filesystem;

// Writes to the file named first what becomes of setCurrentDirRelativeToModuleDir for the suffix named second: its
// result, then the module file name, the working directory and what was logged, one on each line.
int changeDirectoryAndReport(const std::vector<std::string>& arguments) {
    const test::HookRecorder hook;
    const test::LogRecorder log;
    const bool result = Dir::setCurrentDirRelativeToModuleDir(arguments.at(1));
    const std::vector<std::string> lines = log.lines();
    std::string filename = "none";
    const bool hasFilename = Dir::getModuleFilename(filename);

    std::ofstream report(test::fromText(arguments.at(0)), std::ios::binary);
    report << result << '\n' << hasFilename << ' ' << filename << '\n' << test::utf8(fs::current_path()) << '\n';
    for (const std::string& line : lines) report << line << '\n';
    return hook.failures().empty() ? 0 : 1;
}
const test::ChildProgram g_changeDirectory("change-directory", &changeDirectoryAndReport);

TEST(Dir, TheModuleFilenameIsTheRunningProgram) {
    std::string filename = "something before";
    EXPECT_TRUE(Dir::getModuleFilename(filename));
    EXPECT_EQ(filename, test::thisProgram());
}

std::string moduleDir() {
    std::string directory;
    EXPECT_TRUE(Dir::getModuleDir(directory));
    return directory;
}

TEST(Dir, TheModuleDirIsWithoutItsSeparator) {
    EXPECT_EQ(moduleDir(), test::utf8(test::fromText(test::thisProgram()).parent_path()));
}

TEST(Dir, SetsTheWorkingDirectory) {
    const test::TempDir dir;
    const std::string path = dir.file("\xD0\x96 \xC3\xA9 \xE6\xB8\xAC\xE8\xA9\xA6 with blanks");
    fs::create_directory(test::fromText(path));
    const test::LogRecorder log;
    EXPECT_TRUE(Dir::setCurrentDir(path));
    EXPECT_TRUE(fs::equivalent(fs::current_path(), test::fromText(path)));
    EXPECT_TRUE(log.lines().empty());
    fs::current_path(fs::temp_directory_path());
}

TEST(Dir, AWorkingDirectoryThatIsMissingIsLogged) {
    const test::TempDir dir;
    const fs::path before = fs::current_path();
    const test::LogRecorder log;
    EXPECT_FALSE(Dir::setCurrentDir(dir.file("missing")));
    EXPECT_EQ(log.lines(),
              (std::vector<std::string>{"WARN CORE::logLastError - Dir::setCurrentDir: Failed to set working to '" +
                                        dir.file("missing") + "': " + systemErrorText(lastSystemError())}));
    EXPECT_NE(lastSystemError(), 0U);
    EXPECT_EQ(fs::current_path(), before);
}

TEST(Dir, ASuffixOfTheWholeModuleDirOrMoreLeavesNothingToSet) {
    const test::LogRecorder log;
    EXPECT_THROW(static_cast<void>(Dir::setCurrentDirRelativeToModuleDir('x' + moduleDir())), std::out_of_range);
    EXPECT_TRUE(log.lines().empty());
    EXPECT_FALSE(Dir::setCurrentDirRelativeToModuleDir(moduleDir()));
    ASSERT_EQ(log.lines().size(), 1U);
    EXPECT_TRUE(
        log.lines()[0].starts_with("WARN CORE::logLastError - Dir::setCurrentDir: Failed to set working to '': "));
}

TEST(Dir, AnEmptySuffixSetsTheModuleDir) {
    EXPECT_TRUE(Dir::setCurrentDirRelativeToModuleDir(""));
    EXPECT_TRUE(fs::equivalent(fs::current_path(), test::fromText(moduleDir())));
}

TEST_F(DirOfAnotherProgram, ASuffixIsTakenOffTheModuleDirWhateverItsLetters) {
    const fs::path root = test::fromText(m_dir.file("\xD0\x96 \xC3\xA9 \xE6\xB8\xAC\xE8\xA9\xA6"));
    const Report report = changeDirectory(root / "bin" / "app.exe", "bin");
    EXPECT_EQ(report.result, "1");
    EXPECT_EQ(report.filename, "1 " + test::utf8((root / "bin" / "app.exe").make_preferred()));
    EXPECT_TRUE(fs::equivalent(report.workingDirectory, root));
    EXPECT_TRUE(report.log.empty());
}

TEST_F(DirOfAnotherProgram, CaseMattersInTheSuffix) {
    const Report report = changeDirectory(m_dir.path() / "svc" / "bin" / "app.exe", "BIN");
    EXPECT_EQ(report.result, "0");
    EXPECT_TRUE(fs::equivalent(report.workingDirectory, fs::current_path()));
    EXPECT_EQ(report.log,
              (std::vector<std::string>{"WARN CORE::Dir::setCurrentDirRelativeToModuleDir - 'BIN' not in '" +
                                        test::utf8((m_dir.path() / "svc" / "bin").make_preferred()) + "'"}));
}

} // namespace
} // namespace NS_CORE

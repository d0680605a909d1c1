#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <regex>

#include "core/files/core_dir.h"
#include "core/files/core_scopedfd.h"
#include "tests/core/files/core_dir_fixture.h"
#include "tests/support/hook_recorder.h"
#include "tests/support/log_recorder.h"
#include "tests/support/temp_dir.h"

namespace NS_CORE {
namespace {

constexpr size_t kLongestModuleFilename = 1023;

// BELOW/.../bin/app.exe with so many characters, in directories with names of up to 200.
std::filesystem::path pathOfLength(const std::filesystem::path& below, size_t length) {
    const std::string end = "bin/app.exe";
    std::filesystem::path path = below;
    for (size_t left = length - test::utf8(path).size() - 1 - end.size(); left > 0;) {
        // A directory takes its separator too, so that one of no letters must not be left over.
        const size_t letters = left <= 201 ? left - 1 : std::min<size_t>(200, left - 3);
        path /= std::string(letters, 'd');
        left -= letters + 1;
    }
    path /= end;
    EXPECT_EQ(test::utf8(path).size(), length);
    return path;
}

TEST_F(DirOfAnotherProgram, ThePathMayHaveUpTo1023Characters) {
    const Report report = changeDirectory(pathOfLength(m_dir.path(), kLongestModuleFilename), "bin");
    EXPECT_EQ(report.result, "1");
    EXPECT_EQ(report.filename.size(), 2 + kLongestModuleFilename);
    EXPECT_TRUE(report.log.empty());
}

TEST_F(DirOfAnotherProgram, APathOf1024CharactersIsTooLong) {
    const Report report = changeDirectory(pathOfLength(m_dir.path(), kLongestModuleFilename + 1), "bin");
    EXPECT_EQ(report.result, "0");
    EXPECT_EQ(report.filename, "0 none");
    EXPECT_TRUE(std::filesystem::equivalent(report.workingDirectory, std::filesystem::current_path()));
    ASSERT_EQ(report.log.size(), 2U);
    EXPECT_EQ(report.log[0], "WARN CORE::Dir::getModuleFilename - buffer to small");
    EXPECT_TRUE(std::regex_match(report.log[1], std::regex("WARN Log at core_dir:[0-9]+"))) << report.log[1];
}

// Where there is no /proc, the system cannot tell the program's path.
class DirWithoutProc : public testing::Test {
protected:
    void SetUp() override {
        // Whoever is not root becomes that in a namespace of the process's own.
        if (::geteuid() != 0) {
            ASSERT_EQ(::unshare(CLONE_NEWUSER), 0);
        }
        m_root.reset(::open("/", O_PATH | O_CLOEXEC));
        ASSERT_EQ(::chroot("/dev"), 0);
        ASSERT_EQ(::chdir("/"), 0);
    }
    void TearDown() override {
        ASSERT_EQ(::fchdir(m_root.get()), 0);
        ASSERT_EQ(::chroot("."), 0);
    }

private:
    ScopedFd m_root;
};

TEST_F(DirWithoutProc, TheModuleFilenameIsEmptyAndNoFailure) {
    const test::LogRecorder log;
    std::string filename = "something before";
    EXPECT_TRUE(Dir::getModuleFilename(filename));
    EXPECT_EQ(filename, "");
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(DirWithoutProc, TheModuleDirFailsACheckWithTheFilename) {
    const test::HookRecorder hook;
    std::string directory = "something before";
    EXPECT_FALSE(Dir::getModuleDir(directory));
    EXPECT_EQ(directory, "something before");
    const test::FailedCheck check = hook.single();
    EXPECT_EQ(check.expression, "CHECKF");
    EXPECT_EQ(check.file, "core_dir");
    EXPECT_EQ(check.message, "");
}

TEST_F(DirWithoutProc, TheWorkingDirectoryStaysAndThePlaceIsLogged) {
    const test::HookRecorder hook;
    const test::LogRecorder log;
    EXPECT_FALSE(Dir::setCurrentDirRelativeToModuleDir("bin"));
    ASSERT_EQ(log.lines().size(), 1U);
    EXPECT_TRUE(std::regex_match(log.lines()[0], std::regex("WARN Log at core_dir:[0-9]+"))) << log.lines()[0];
    EXPECT_EQ(hook.failures().size(), 1U);
}

} // namespace
} // namespace NS_CORE

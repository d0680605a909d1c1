#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <regex>

#include "core/files/core_dir.h"
#include "core/files/core_dir_platform.h"
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
TEST(Dir, TheModuleFilenameIsEmptyWithoutProcAndNothingIsFoundByIt) {
    // Whoever is not root becomes that in a namespace of the process's own.
    ASSERT_TRUE(::geteuid() == 0 || ::unshare(CLONE_NEWUSER) == 0);
    const ScopedFd root(::open("/", O_PATH | O_CLOEXEC));
    ASSERT_EQ(::chroot("/dev"), 0);
    ASSERT_EQ(::chdir("/"), 0);
    const test::HookRecorder hook;
    const test::LogRecorder log;
    std::string filename = "something before";
    EXPECT_TRUE(Dir::getModuleFilename(filename));
    EXPECT_EQ(filename, "");
    char buffer[8];
    EXPECT_EQ(dir_platform::readModuleFilename(buffer, sizeof buffer), 0U);
    EXPECT_TRUE(log.lines().empty());
    std::string directory = "something before";
    EXPECT_FALSE(Dir::getModuleDir(directory));
    EXPECT_EQ(directory, "something before");
    EXPECT_EQ(hook.single(), (test::FailedCheck{"CHECKF", "core_dir", hook.single().line, 0, ""}));
    EXPECT_FALSE(Dir::setCurrentDirRelativeToModuleDir("bin"));
    EXPECT_EQ(hook.failures().size(), 2U);
    ASSERT_EQ(log.lines().size(), 1U);
    EXPECT_TRUE(std::regex_match(log.lines()[0], std::regex("WARN Log at core_dir:[0-9]+"))) << log.lines()[0];
    ASSERT_EQ(::fchdir(root.get()), 0);
    ASSERT_EQ(::chroot("."), 0);
}

} // namespace
} // namespace NS_CORE

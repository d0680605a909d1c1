#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <memory>

#include "core/files/core_scopedfd.h"
#include "core/files/core_wrapper.h"
#include "core/log/core_v2masterlogger.h"
#include "tests/support/hook_recorder.h"
#include "tests/support/log_recorder.h"
#include "tests/support/temp_dir.h"

namespace NS_CORE {
namespace {

// "nobody" on every system. The rights of directories do not bind root.
constexpr uid_t kOrdinaryUser = 65534;

// The test's process keeps the user to its end.
void becomeOrdinaryUser() {
    if (::geteuid() == 0) {
        ASSERT_EQ(::seteuid(kOrdinaryUser), 0);
    }
}

// A file of the ordinary user's in a directory in which nothing can be removed.
std::string fileThatCannotBeRemoved(const test::TempDir& dir) {
    namespace fs = std::filesystem;
    fs::permissions(dir.path(), fs::perms::group_exec | fs::perms::others_exec, fs::perm_options::add);
    const fs::path locked = dir.path() / "locked";
    fs::create_directory(locked);
    test::writeFile(locked / "file", "x");
    fs::permissions(locked / "file", fs::perms::owner_read);
    if (::geteuid() == 0) {
        EXPECT_EQ(::chown((locked / "file").c_str(), kOrdinaryUser, kOrdinaryUser), 0);
    }
    fs::permissions(locked,
                    fs::perms::owner_read | fs::perms::owner_exec | fs::perms::group_exec | fs::perms::others_exec);
    return locked / "file";
}

class WrapperAsOrdinaryUser : public testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(MasterLogger::setLevelImplementationBits(LogLevel::Norm, 1)); }
    void TearDown() override {
        if (::getuid() == 0) {
            ASSERT_EQ(::seteuid(0), 0);
        }
    }
    test::TempDir m_dir;
    test::LogRecorder m_log;
};

TEST_F(WrapperAsOrdinaryUser, ARefusedRemovalIsTriedAgainWithTheModeChanged) {
    const std::string path = fileThatCannotBeRemoved(m_dir);
    becomeOrdinaryUser();
    errno = 0;
    EXPECT_EQ(Wrapper::unlink(path), -1);
    EXPECT_EQ(errno, EACCES);
    EXPECT_EQ(std::filesystem::status(path).permissions(),
              std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
    EXPECT_TRUE(m_log.lines().empty());
}

TEST_F(WrapperAsOrdinaryUser, AModeThatCannotBeSetIsLoggedAndTheFirstErrorKept) {
    const std::string path = "/proc/version"; // somebody else's, in a directory that is somebody else's
    becomeOrdinaryUser();
    errno = 0;
    EXPECT_EQ(Wrapper::unlink(path), -1);
    EXPECT_EQ(errno, EACCES);
    EXPECT_EQ(m_log.lines(),
              (std::vector<std::string>{"NORM NS_CORE::Wrapper::unlink - failed to chmod " + path + " to unlink"}));
}

TEST(WrapperLinux, DescriptorsAndStreamsCloseOnExec) {
    const test::TempDir dir;
    const ScopedFd fd(Wrapper::open(dir.file("file"), O_RDWR | O_CREAT, S_IRUSR | S_IWUSR));
    ASSERT_TRUE(fd);
    EXPECT_EQ(::fcntl(fd.get(), F_GETFD), FD_CLOEXEC);
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> stream(Wrapper::fopen(dir.file("file"), "r"), &std::fclose);
    ASSERT_TRUE(stream);
    EXPECT_EQ(::fcntl(::fileno(stream.get()), F_GETFD), FD_CLOEXEC);
}

TEST(WrapperLinux, NarrowPathsAreCheckedLikeWideOnes) {
    const test::HookRecorder hook;
    Wrapper::setUseWidePaths(false);
    EXPECT_EQ(Wrapper::open("\xff", O_RDONLY, 0), -1);
    EXPECT_EQ(hook.single().message, "\xff");
}

TEST(WrapperLinux, ErrorTextsAreTheCLibrarys) {
    EXPECT_EQ(systemErrorText(ENOENT), "No such file or directory");
    EXPECT_EQ(systemErrorText(0), "Success");
    EXPECT_EQ(systemErrorText(123456), "Unknown error 123456");
    errno = EBADF;
    EXPECT_EQ(lastSystemError(), uint32_t{EBADF});
}

TEST(WrapperLinux, TheLastErrorIsLoggedBehindThePrefix) {
    const test::LogRecorder log;
    errno = EACCES;
    logLastError("opening 100% of \"it\"");
    EXPECT_EQ(log.lines(),
              (std::vector<std::string>{"WARN CORE::logLastError - opening 100% of \"it\": Permission denied"}));
}

} // namespace
} // namespace NS_CORE

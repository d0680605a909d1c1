#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <memory>

#include "core/files/core_scopedfd.h"
#include "core/files/core_wrapper.h"
#include "tests/support/hook_recorder.h"
#include "tests/support/log_recorder.h"
#include "tests/support/temp_dir.h"

namespace NS_CORE {
namespace {

// "nobody" on every system. Rights do not bind root.
constexpr uid_t kOrdinaryUser = 65534;

TEST(WrapperLinux, AModeThatCannotBeSetIsLoggedAndTheFirstErrorKept) {
    const std::string path = "/proc/version"; // somebody else's, in a directory that is somebody else's
    const test::LogRecorder log(/*hasNorm=*/true);
    const bool isRoot = ::geteuid() == 0;
    const test::TempDir dir;
    const std::string own = dir.file("own");
    test::writeFile(dir.path() / "own", "");
    ASSERT_TRUE(!isRoot || ::chown(own.c_str(), kOrdinaryUser, /*group=*/0) == 0);
    ASSERT_EQ(::chmod(dir.file("").c_str(), S_IXUSR | S_IXGRP), 0);
    ASSERT_TRUE(!isRoot || ::seteuid(kOrdinaryUser) == 0);
    EXPECT_EQ(Wrapper::unlink(own), -1);
    errno = 0;
    EXPECT_EQ(Wrapper::unlink(path), -1);
    EXPECT_EQ(errno, EACCES);
    ASSERT_TRUE(!isRoot || ::seteuid(0) == 0);
    EXPECT_EQ(::chmod(dir.file("").c_str(), S_IRWXU), 0);
    EXPECT_EQ(std::filesystem::status(own).permissions(), std::filesystem::perms{S_IRUSR | S_IWUSR});
    EXPECT_EQ(log.lines(),
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

TEST(WrapperLinux, TheSizeOfWhatIsNotOpenIsMinusOne) {
    EXPECT_EQ(Wrapper::size(-1), -1);
    EXPECT_EQ(errno, EBADF);
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

TEST(ScopedFd, KeepsErrnoWhenClosingFails) {
    errno = ENOSPC;
    ScopedFd(1'000'000).reset();
    EXPECT_EQ(errno, ENOSPC);
}

} // namespace
} // namespace NS_CORE

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <windows.h>

#include <cerrno>
#include <filesystem>

#include "core/files/core_scopedfd.h"
#include "core/files/core_wrapper.h"
#include "tests/support/hook_recorder.h"
#include "tests/support/import_hook_win32.h"
#include "tests/support/temp_dir.h"

namespace NS_CORE {
namespace {

int g_freed = 0;

HLOCAL WINAPI freeAndCount(HLOCAL memory) {
    if (memory) ++g_freed;
    return nullptr;
}

TEST(WrapperWin32, AnErrorsTextIsGivenBackToTheSystem) {
    const test::ImportHook hook("LocalFree", &freeAndCount);
    EXPECT_FALSE(systemErrorText(ERROR_FILE_NOT_FOUND).empty());
    EXPECT_EQ(g_freed, 1);
}

TEST(WrapperWin32, AReadOnlyFileIsRemovedWithTheFirstErrorKept) {
    const test::TempDir dir;
    test::writeFile(dir.path() / "readonly", "x");
    ASSERT_TRUE(::SetFileAttributesW((dir.path() / "readonly").c_str(), FILE_ATTRIBUTE_READONLY));
    errno = 0;
    EXPECT_EQ(Wrapper::unlink(dir.file("readonly")), 0);
    EXPECT_EQ(errno, EACCES);
    EXPECT_FALSE(std::filesystem::exists(dir.path() / "readonly"));
}

TEST(WrapperWin32, AFileThatIsOpenStaysWithTheFirstErrorKept) {
    const test::TempDir dir;
    const ScopedFd fd(Wrapper::open(dir.file("open"), O_RDWR | O_CREAT, S_IRUSR | S_IWUSR));
    ASSERT_TRUE(fd);
    errno = 0;
    EXPECT_EQ(Wrapper::unlink(dir.file("open")), -1);
    EXPECT_EQ(errno, EACCES);
    EXPECT_TRUE(std::filesystem::exists(dir.path() / "open"));
}

int __cdecl refuseStatus(int /*fd*/, struct _stat64* /*status*/) {
    return -1;
}

TEST(WrapperWin32, ASizeThatTheSystemDoesNotTellIsMinusOne) {
    const test::ImportHook hook("_fstat64", &refuseStatus);
    EXPECT_EQ(Wrapper::size(/*fd=*/0), -1);
}

TEST(WrapperWin32, NarrowPathsAreNotConvertedButOfStreams) {
    Wrapper::setUseWidePaths(false);
    EXPECT_EQ(Wrapper::open("missing\\\xff", O_RDONLY, S_IRUSR), -1);
    EXPECT_EQ(Wrapper::unlink("missing\\\xff"), -1);
    // Streams always take the wide form.
    const test::HookRecorder hook;
    EXPECT_EQ(Wrapper::fopen("missing\\\xff", "r"), nullptr);
    EXPECT_EQ(hook.single().message, "missing\\\xff");
    Wrapper::setUseWidePaths(true);
}

TEST(WrapperWin32, ErrorTextsAreTheSystemsWithTheirLineBreak) {
    char expected[512] = {};
    ASSERT_NE(::FormatMessageA(FORMAT_MESSAGE_FROM_SYSTEM, nullptr, ERROR_ACCESS_DENIED, 0x400, expected,
                               sizeof expected, nullptr),
              0U);
    EXPECT_EQ(systemErrorText(ERROR_ACCESS_DENIED), expected);
    EXPECT_TRUE(systemErrorText(ERROR_ACCESS_DENIED).ends_with("\r\n"));
    EXPECT_EQ(systemErrorText(0x2fffffff), "");
    ::SetLastError(ERROR_INVALID_HANDLE);
    EXPECT_EQ(lastSystemError(), DWORD{ERROR_INVALID_HANDLE});
}

} // namespace
} // namespace NS_CORE

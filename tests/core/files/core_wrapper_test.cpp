#include "core/files/core_wrapper.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <functional>
#include <memory>
#include <thread>

#include "core/files/core_scopedfd.h"
#include "tests/support/hook_recorder.h"
#include "tests/support/log_recorder.h"
#include "tests/support/temp_dir.h"

namespace NS_CORE {
namespace {

constexpr int kReadWrite = S_IRUSR | S_IWUSR;
constexpr const char* kNotUtf8 = "not\xffutf-8";

// Line ends and the end-of-file mark of a text file, zero bytes, and bytes beyond ASCII.
const std::string g_bytes("a\nb\r\nc\x1a d\0\xff", 12);

void writeBytes(const std::string& path, int openFlags) {
    const ScopedFd fd(Wrapper::open(path, openFlags, kReadWrite));
    ASSERT_TRUE(fd) << path;
    EXPECT_EQ(Wrapper::write(fd.get(), g_bytes.data(), static_cast<int32_t>(g_bytes.size())),
              static_cast<int32_t>(g_bytes.size()));
    EXPECT_EQ(Wrapper::size(fd.get()), static_cast<int64_t>(g_bytes.size()));
    EXPECT_EQ(Wrapper::commit(fd.get()), 0);
    EXPECT_EQ(Wrapper::close(Wrapper::open(path, O_RDONLY, kReadWrite)), 0);
}

std::string readBytes(const std::string& path) {
    const ScopedFd fd(Wrapper::open(path, O_RDONLY, kReadWrite));
    EXPECT_TRUE(fd) << path;
    std::string bytes(100, '\0');
    const int32_t length = Wrapper::read(fd.get(), bytes.data(), static_cast<int32_t>(bytes.size()));
    EXPECT_GE(length, 0);
    bytes.resize(static_cast<size_t>(std::max(length, 0)));
    return bytes;
}

void makeReadOnly(const std::string& path) {
    std::filesystem::permissions(test::fromText(path), std::filesystem::perms::owner_read);
}

bool exists(const std::string& path) {
    return std::filesystem::exists(test::fromText(path));
}

class WrapperNames : public testing::TestWithParam<const char*> {};

TEST_P(WrapperNames, BytesGoInAndOutUnchangedWithNarrowAndWithWidePaths) {
    const test::TempDir dir;
    const std::string path = dir.file(GetParam());
    for (const bool isWide : {false, true}) {
        Wrapper::setUseWidePaths(isWide);
        writeBytes(path, O_WRONLY | O_CREAT | O_TRUNC);
        EXPECT_EQ(test::readFile(test::fromText(path)), g_bytes);
        EXPECT_EQ(readBytes(path), g_bytes);
        makeReadOnly(path);
        EXPECT_EQ(Wrapper::unlink(path), 0);
        EXPECT_FALSE(exists(path));
    }
}

TEST_P(WrapperNames, StreamsAreOpenedByTheSameNames) {
    const test::TempDir dir;
    const std::string path = dir.file(GetParam());
    std::unique_ptr<std::FILE, int (*)(std::FILE*)> stream(Wrapper::fopen(path, "wb"), &std::fclose);
    ASSERT_TRUE(stream);
    EXPECT_EQ(std::fwrite(g_bytes.data(), 1, g_bytes.size(), stream.get()), g_bytes.size());
    stream.reset();
    EXPECT_EQ(readBytes(path), g_bytes);
}

INSTANTIATE_TEST_SUITE_P(Paths, WrapperNames,
                         testing::Values("plain", "with blanks in it.txt", "\xD0\x96 \xC3\xA9 \xE6\xB8\xAC\xE8\xA9\xA6",
                                         "outside the first plane \xF0\x9F\x94\x91"));

TEST(Wrapper, OpeningAMissingFileFailsWithItsReason) {
    const test::TempDir dir;
    const test::LogRecorder log;
    errno = 0;
    EXPECT_EQ(Wrapper::open(dir.file("missing"), O_RDONLY, kReadWrite), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(Wrapper::open(dir.file("missing/below"), O_RDWR | O_CREAT, kReadWrite), -1);
    EXPECT_EQ(errno, ENOENT);
    errno = 0;
    EXPECT_EQ(Wrapper::fopen(dir.file("missing"), "rb"), nullptr);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_TRUE(log.lines().empty());
}

TEST(Wrapper, TheLastErrorIsLoggedBehindThePrefix) {
    const test::LogRecorder log;
    EXPECT_EQ(Wrapper::open("missing", O_RDONLY, kReadWrite), -1);
    logLastError("opening 100% of \"it\"");
    // The error has the same number on both systems.
    EXPECT_EQ(log.lines(), (std::vector<std::string>{"WARN CORE::logLastError - opening 100% of \"it\": " +
                                                     systemErrorText(ENOENT)}));
}

TEST(Wrapper, AFileMayBeOpenSeveralTimesAtOnce) {
    const test::TempDir dir;
    const ScopedFd first(Wrapper::open(dir.file("shared"), O_RDWR | O_CREAT, kReadWrite));
    const ScopedFd second(Wrapper::open(dir.file("shared"), O_RDWR, kReadWrite));
    ASSERT_TRUE(first && second);
    EXPECT_EQ(Wrapper::write(first.get(), "x", 1), 1);
    EXPECT_EQ(Wrapper::size(second.get()), 1);
}

TEST(Wrapper, ACreatedFileHasTheGivenRights) {
    const test::TempDir dir;
    const ScopedFd fd(Wrapper::open(dir.file("readonly"), O_WRONLY | O_CREAT, S_IRUSR));
    ASSERT_TRUE(fd);
    const auto rights = std::filesystem::status(dir.path() / "readonly").permissions();
    EXPECT_EQ(rights & std::filesystem::perms::owner_write, std::filesystem::perms::none);
}

TEST(Wrapper, APathThatIsNotUtf8FailsACheckWithThePath) {
    const std::function<bool()> calls[] = {[] { return Wrapper::open(kNotUtf8, O_RDWR | O_CREAT, kReadWrite) == -1; },
                                           [] { return Wrapper::unlink(kNotUtf8) == -1; },
                                           [] { return Wrapper::fopen(kNotUtf8, "r") == nullptr; }};
    for (const auto& fails : calls) {
        const test::HookRecorder hook;
        errno = 0;
        EXPECT_TRUE(fails());
        EXPECT_EQ(errno, EILSEQ);
        EXPECT_EQ(hook.single(), (test::FailedCheck{"CHECKF", "core_wrapper", hook.single().line, 0, kNotUtf8}));
    }
}

TEST(Wrapper, AStreamsModeThatIsNotUtf8FailsACheckTooAlsoWithNarrowPaths) {
    const test::TempDir dir;
    const test::HookRecorder hook;
    Wrapper::setUseWidePaths(false);
    EXPECT_EQ(Wrapper::fopen(dir.file("stream"), "w\xff"), nullptr);
    Wrapper::setUseWidePaths(true);
    EXPECT_EQ(hook.single().expression, "CHECKF");
    EXPECT_FALSE(exists(dir.file("stream")));
}

TEST(Wrapper, RemovesAReadOnlyFileButNoDirectoryAndNothingThatIsMissing) {
    const test::TempDir dir;
    const test::LogRecorder log(/*hasNorm=*/true);
    test::writeFile(dir.path() / "readonly", "x");
    makeReadOnly(dir.file("readonly"));
    errno = EACCES; // of an earlier call
    EXPECT_EQ(Wrapper::unlink(dir.file("readonly")), 0);
    EXPECT_FALSE(exists(dir.file("readonly")));
    errno = 0;
    EXPECT_EQ(Wrapper::unlink(dir.file("readonly")), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_TRUE(log.lines().empty());
    std::filesystem::create_directory(dir.path() / "directory");
    EXPECT_EQ(Wrapper::unlink(dir.file("directory")), -1);
    EXPECT_TRUE(exists(dir.file("directory")));
}

TEST(Wrapper, ANegativeLengthIsRefused) {
    const test::TempDir dir;
    const ScopedFd fd(Wrapper::open(dir.file("file"), O_RDWR | O_CREAT, kReadWrite));
    char byte = 'x';
    errno = 0;
    EXPECT_EQ(Wrapper::write(fd.get(), &byte, -1), -1);
    EXPECT_EQ(errno, EINVAL);
    errno = 0;
    EXPECT_EQ(Wrapper::read(fd.get(), &byte, -1), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(Wrapper::read(fd.get(), &byte, 0), 0);
    EXPECT_EQ(Wrapper::size(fd.get()), 0);
}

TEST(Wrapper, EachThreadBeginsWithWidePathsAndChoosesForItself) {
    EXPECT_TRUE(Wrapper::useWidePaths());
    Wrapper::setUseWidePaths(false);
    bool seenByOther = false;
    std::thread([&] {
        seenByOther = Wrapper::useWidePaths();
        Wrapper::setUseWidePaths(true);
    }).join();
    EXPECT_TRUE(seenByOther);
    EXPECT_FALSE(Wrapper::useWidePaths());
    Wrapper::setUseWidePaths(true);
    EXPECT_TRUE(Wrapper::useWidePaths());
}

TEST(ScopedFd, ClosingKeepsErrno) {
    const test::TempDir dir;
    ScopedFd fd(Wrapper::open(dir.file("file"), O_RDWR | O_CREAT, kReadWrite));
    ASSERT_TRUE(fd);
    errno = ENOSPC;
    fd.reset();
    EXPECT_EQ(errno, ENOSPC);
}

} // namespace
} // namespace NS_CORE

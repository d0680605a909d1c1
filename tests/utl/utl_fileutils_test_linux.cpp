#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <filesystem>
#include <thread>

#include "core/files/core_scopedfd.h"
#include "tests/support/log_recorder.h"
#include "tests/support/temp_dir.h"
#include "utl/utl_fileutils.h"

namespace {

std::atomic<int> g_fullSizeReads{0};

} // namespace

// In the place of the C library's, for the whole test program. Only copies read with this buffer.
extern "C" ssize_t read(int fd, void* data, size_t length) {
    if (length == 32768) ++g_fullSizeReads;
    return ::syscall(SYS_read, fd, data, length);
}

namespace NS_UTL {
namespace {

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;

int readsOfACopy(size_t size) {
    const test::TempDir dir;
    test::writeFile(dir.path() / "source", std::string(size, 'x'));
    const int before = g_fullSizeReads;
    EXPECT_TRUE(FileUtils::copy(dir.file("source"), dir.file("destination")));
    return g_fullSizeReads - before;
}

TEST(CopyLinux, ReadsUntilAReadIsShort) {
    EXPECT_EQ(readsOfACopy(0), 1);
    EXPECT_EQ(readsOfACopy(32767), 1);
    EXPECT_EQ(readsOfACopy(32768), 2);
    EXPECT_EQ(readsOfACopy(32769), 2);
    EXPECT_EQ(readsOfACopy(65536), 3);
}

TEST(CopyLinux, AShortReadIsTakenForTheEnd) {
    const test::TempDir dir;
    ASSERT_EQ(::mkfifo(dir.file("source").c_str(), 0600), 0);
    // Open at both ends, so that the copy finds a writer that has not ended.
    const NS_CORE::ScopedFd pipe(NS_CORE::Wrapper::open(dir.file("source"), O_RDWR, 0));
    ASSERT_EQ(NS_CORE::Wrapper::write(pipe.get(), "first", 5), 5);
    EXPECT_TRUE(FileUtils::copy(dir.file("source"), dir.file("destination")));
    EXPECT_EQ(test::readFile(dir.path() / "destination"), "first");
}

TEST(CopyLinux, ACreatedDestinationIsTheOwnersOnly) {
    const test::TempDir dir;
    test::writeFile(dir.path() / "source", "content");
    ::umask(0);
    EXPECT_TRUE(FileUtils::copy(dir.file("source"), dir.file("destination")));
    EXPECT_EQ(fs::status(dir.path() / "destination").permissions(), fs::perms::owner_read | fs::perms::owner_write);
}

TEST(CopyLinux, AnUnreadableSourceIsLoggedAndNoDestinationLeft) {
    const test::TempDir dir;
    fs::create_directory(dir.path() / "source"); // opens, but does not read
    const test::LogRecorder log;
    EXPECT_FALSE(FileUtils::copy(dir.file("source"), dir.file("destination")));
    EXPECT_EQ(log.lines(),
              (Lines{"WARN UTL::FileUtils::copy - error reading from " + dir.file("source") + " (21:Is a directory)"}));
    EXPECT_FALSE(fs::exists(dir.path() / "destination"));
}

TEST(CopyLinux, AFullDiskIsLoggedAndTheDestinationRemoved) {
    const test::TempDir dir;
    test::writeFile(dir.path() / "source", "content");
    fs::create_symlink("/dev/full", dir.path() / "destination");
    const test::LogRecorder log;
    EXPECT_FALSE(FileUtils::copy(dir.file("source"), dir.file("destination")));
    EXPECT_EQ(log.lines(), (Lines{"WARN UTL::FileUtils::copy - error writing to " + dir.file("destination") +
                                  " (28:No space left on device)"}));
    EXPECT_FALSE(fs::is_symlink(dir.path() / "destination"));
    EXPECT_TRUE(fs::exists("/dev/full"));
}

// The test's process is held to files of that many bytes from here on, as by a disk that fills up.
void limitFileSize(rlim_t bytes) {
    std::signal(SIGXFSZ, SIG_IGN);
    const rlimit limit{bytes, bytes};
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &limit), 0);
}

TEST(CopyLinux, ADiskThatFillsUpWithinABlockIsLoggedAndTheDestinationRemoved) {
    const test::TempDir dir;
    test::writeFile(dir.path() / "source", std::string(5 * 32768, 'x'));
    limitFileSize(2 * 32768 + 1000);
    const test::LogRecorder log;
    EXPECT_FALSE(FileUtils::copy(dir.file("source"), dir.file("destination")));
    EXPECT_EQ(log.lines(),
              (Lines{"WARN UTL::FileUtils::copy - only wrote 1000 of 32768 to " + dir.file("destination")}));
    EXPECT_FALSE(fs::exists(dir.path() / "destination"));
}

TEST(CopyLinux, ADiskThatFillsUpBetweenBlocksIsLoggedAndTheDestinationRemoved) {
    const test::TempDir dir;
    test::writeFile(dir.path() / "source", std::string(5 * 32768, 'x'));
    limitFileSize(2 * 32768);
    const test::LogRecorder log;
    EXPECT_FALSE(FileUtils::copy(dir.file("source"), dir.file("destination")));
    EXPECT_EQ(log.lines(), (Lines{"WARN UTL::FileUtils::copy - error writing to " + dir.file("destination") +
                                  " (27:File too large)"}));
    EXPECT_FALSE(fs::exists(dir.path() / "destination"));
}

TEST(CopyLinux, ADestinationThatIsARunningProgramIsLoggedAndStays) {
    const test::TempDir dir;
    test::writeFile(dir.path() / "source", "content");
    fs::copy_file("/bin/cat", dir.path() / "destination");
    const std::string program = dir.file("destination");
    ASSERT_EQ(::mkfifo(dir.file("pipe").c_str(), 0600), 0);
    std::thread runner([&] { EXPECT_EQ(std::system((program + ' ' + dir.file("pipe")).c_str()), 0); });
    // Opens as soon as the program has opened the other end.
    NS_CORE::ScopedFd pipe(NS_CORE::Wrapper::open(dir.file("pipe"), O_WRONLY, 0));
    const test::LogRecorder log;
    EXPECT_FALSE(FileUtils::copy(dir.file("source"), program));
    EXPECT_EQ(log.lines(), (Lines{"WARN UTL::FileUtils::copy - failed opening '" + program + "' for writing"}));
    pipe.reset();
    runner.join();
    EXPECT_GT(fs::file_size(program), 1000U);
}

TEST(CopyLinux, LeaksNoDescriptor) {
    const test::TempDir dir;
    test::writeFile(dir.path() / "source", "content");
    fs::create_directory(dir.path() / "directory");
    const test::LogRecorder log;
    const auto openDescriptors = [] {
        return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
    };
    const auto before = openDescriptors();
    for (int i = 0; i < 100; ++i) {
        EXPECT_TRUE(FileUtils::copy(dir.file("source"), dir.file("destination")));
        EXPECT_FALSE(FileUtils::copy(dir.file("source"), dir.file("directory")));
        EXPECT_FALSE(FileUtils::copy(dir.file("directory"), dir.file("other")));
    }
    EXPECT_EQ(openDescriptors(), before);
}

TEST(RenameFileLinux, RefusesAnotherVolume) {
    const test::TempDir dir;
    test::writeFile(dir.path() / "from", "content");
    const test::LogRecorder log;
    EXPECT_FALSE(FileUtils::renameFile(dir.file("from"), "/dev/quorkeri-test"));
    if (fs::exists("/dev/quorkeri-test")) fs::remove("/dev/quorkeri-test");
    EXPECT_EQ(log.lines(), (Lines{"INFO NS_UTL::FileUtils::renameFile - '" + dir.file("from") +
                                  "'=>'/dev/quorkeri-test' failed : Invalid cross-device link"}));
}

} // namespace
} // namespace NS_UTL

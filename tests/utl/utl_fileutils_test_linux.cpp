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
#include "tests/support/refused_call_linux.h"
#include "tests/utl/fileutils_test.h"

namespace fs = std::filesystem;

using NS_UTL::FileUtils;

namespace {

std::atomic<int> g_fullSizeReads{0};

} // namespace

// In the place of the C library's, for the whole test program. Only copies read with this buffer.
extern "C" ssize_t read(int fd, void* data, size_t length) {
    if (length == 32768) ++g_fullSizeReads;
    return ::syscall(SYS_read, fd, data, length);
}

namespace {

TEST_F(Copy, ReadsUntilAReadIsShort) {
    for (const auto& [size, reads] :
         {std::pair(0U, 1), std::pair(32767U, 1), std::pair(32768U, 2), std::pair(32769U, 2), std::pair(65536U, 3)}) {
        put("source", std::string(size, 'x'));
        g_fullSizeReads = 0;
        EXPECT_EQ(copy(), Lines());
        EXPECT_EQ(g_fullSizeReads, reads) << size;
    }
}

TEST_F(Copy, AShortReadIsTakenForTheEnd) {
    ASSERT_EQ(::mkfifo(dir.file("source").c_str(), 0600), 0);
    // Open at both ends, so that the copy finds a writer that has not ended.
    const NS_CORE::ScopedFd pipe(NS_CORE::Wrapper::open(dir.file("source"), O_RDWR, 0));
    ASSERT_EQ(NS_CORE::Wrapper::write(pipe.get(), "first", 5), 5);
    EXPECT_EQ(copy(), Lines());
    EXPECT_EQ(bytes("destination"), "first");
}

TEST_F(Copy, ACreatedDestinationIsTheOwnersOnly) {
    put("source", "content");
    ::umask(0);
    EXPECT_EQ(copy(), Lines());
    EXPECT_EQ(fs::status(dir.path() / "destination").permissions(), fs::perms::owner_read | fs::perms::owner_write);
}

TEST_F(Copy, AnUnreadableSourceIsLoggedAndNoDestinationLeft) {
    fs::create_directory(dir.path() / "source"); // opens, but does not read
    EXPECT_EQ(copy(),
              Lines{"WARN UTL::FileUtils::copy - error reading from " + dir.file("source") + " (21:Is a directory)"});
    EXPECT_FALSE(exists("destination"));
}

TEST_F(Copy, AFullDiskTakesAnEmptyFileAndIsLoggedForOthersAndTheDestinationRemoved) {
    put("source", "");
    fs::create_symlink("/dev/full", dir.path() / "destination");
    EXPECT_EQ(copy(), Lines());
    put("source", "content");
    EXPECT_EQ(copy(), Lines{"WARN UTL::FileUtils::copy - error writing to " + dir.file("destination") +
                            " (28:No space left on device)"});
    EXPECT_FALSE(fs::is_symlink(dir.path() / "destination"));
    EXPECT_TRUE(fs::exists("/dev/full"));
}

TEST_F(Copy, ADiskThatFillsUpIsLoggedAndTheDestinationRemoved) {
    put("source", std::string(5 * 32768, 'x'));
    std::signal(SIGXFSZ, SIG_IGN);
    rlimit before{};
    ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &before), 0);
    // The test's process is held to files of that many bytes, as by a disk that fills up: within a block, and between.
    for (const auto& [limit, reason] :
         {std::pair<rlim_t, std::string>(2 * 32768 + 1000, "only wrote 1000 of 32768 to " + dir.file("destination")),
          std::pair<rlim_t, std::string>(2 * 32768,
                                         "error writing to " + dir.file("destination") + " (27:File too large)")}) {
        const rlimit limits{limit, before.rlim_max};
        ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &limits), 0);
        EXPECT_EQ(copy(), Lines{"WARN UTL::FileUtils::copy - " + reason});
        ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &before), 0);
        EXPECT_FALSE(exists("destination"));
    }
}

TEST_F(Copy, ADiskThatTakesNothingWithoutSayingWhyIsLoggedAndTheDestinationRemoved) {
    put("source", "content");
    Lines logged;
    std::thread([&] {
        test::refuseCall(SYS_write, /*error=*/0);
        logged = copy();
    }).join();
    EXPECT_EQ(logged, Lines{"WARN UTL::FileUtils::copy - only wrote 0 of 7 to " + dir.file("destination")});
    EXPECT_FALSE(exists("destination"));
}

TEST_F(Copy, ADestinationThatIsARunningProgramIsLoggedAndStays) {
    put("source", "content");
    fs::copy_file("/bin/cat", dir.path() / "destination");
    ASSERT_EQ(::mkfifo(dir.file("pipe").c_str(), 0600), 0);
    std::thread runner([&] { EXPECT_EQ(std::system((dir.file("destination") + ' ' + dir.file("pipe")).c_str()), 0); });
    // Opens as soon as the program has opened the other end.
    NS_CORE::ScopedFd pipe(NS_CORE::Wrapper::open(dir.file("pipe"), O_WRONLY, 0));
    EXPECT_EQ(copy(), failedOpening("destination", "writing"));
    pipe.reset();
    runner.join();
    EXPECT_GT(fs::file_size(dir.path() / "destination"), 1000U);
}

TEST_F(Copy, LeaksNoDescriptor) {
    put("source", "content");
    fs::create_directory(dir.path() / "directory");
    const auto openDescriptors = [] {
        return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
    };
    const auto before = openDescriptors();
    for (int i = 0; i < 100; ++i) {
        EXPECT_EQ(copy(), Lines());
        EXPECT_EQ(copy("source", "directory").size(), 1U);
        EXPECT_EQ(copy("directory", "other").size(), 1U);
    }
    EXPECT_EQ(openDescriptors(), before);
}

TEST_F(RenameFile, RefusesAnotherVolume) {
    put("from", "content");
    const test::LogRecorder log;
    EXPECT_FALSE(FileUtils::renameFile(dir.file("from"), "/dev/quorkeri-test"));
    if (fs::exists("/dev/quorkeri-test")) fs::remove("/dev/quorkeri-test");
    EXPECT_EQ(log.lines(), (Lines{"INFO NS_UTL::FileUtils::renameFile - '" + dir.file("from") +
                                  "'=>'/dev/quorkeri-test' failed : Invalid cross-device link"}));
}

} // namespace

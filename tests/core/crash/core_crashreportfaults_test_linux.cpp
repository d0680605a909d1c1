#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>
#include <unwind.h>

#include <cerrno>
#include <cstring>

#include "tests/core/crash/crashreportfaults_fixture.h"
#include "tests/support/planted_code.h"

// Faults as this system makes them.
namespace test {

const bool kLeavesWhatHangs = true;
const uint32_t kImpatienceMs = 1500;
const bool kDumpNeedsNoMemory = true;

// The addresses were written before names were asked for.
std::string lineOfFaultingWriter(const std::string& written,
                                 const std::function<std::string(const std::string& error)>& /*failed*/) {
    return written;
}

std::string errorOfDirectoryInPlace() {
    return std::strerror(EISDIR);
}

const Preparations& platformPreparations() {
    // The handler walks the stack with it.
    static void* const walker = reinterpret_cast<void*>(&_Unwind_Backtrace);
    static const Preparations all{
        {"walker-faults", [] { makeFault(walker); }},
        {"walker-hangs", [] { makeHang(walker); }},
    };
    return all;
}

} // namespace test

namespace {

namespace fs = std::filesystem;

// Puts a small file system in the place of the directory, for this process and its children. False where that is not
// allowed.
[[nodiscard]] bool mountSmallDisk(const fs::path& directory, unsigned long flags) {
    fs::create_directories(directory);
    return ::unshare(CLONE_NEWNS) == 0 && ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           ::mount("small", directory.c_str(), "tmpfs", flags, "size=4096") == 0;
}

TEST_F(CrashReportFaultsTest, AFullDiskUnderTheDumpIsTold) {
    fs::create_directories(dumps());
    fs::create_symlink("/dev/full", dumpFile());
    EXPECT_EQ(run("nothing"), test::kCrashExitCode);
    EXPECT_EQ(m_output, failed(std::strerror(ENOSPC)));
    EXPECT_EQ(history(), historyLine());
}

// A disk that takes a part of it and no more.
TEST_F(CrashReportFaultsTest, ADiskThatFillsUpUnderTheDumpIsTold) {
    if (!mountSmallDisk(dumps(), 0)) GTEST_SKIP() << "no right to mount: " << std::strerror(errno);
    EXPECT_EQ(run("nothing"), test::kCrashExitCode);
    EXPECT_EQ(m_output, failed(std::strerror(ENOSPC)));
    EXPECT_EQ(fs::file_size(dumpFile()), 4096U);
    EXPECT_EQ(history(), historyLine());
    EXPECT_EQ(::umount(dumps().c_str()), 0);
}

TEST_F(CrashReportFaultsTest, AReadOnlyDumpsDirectoryIsTold) {
    if (!mountSmallDisk(dumps(), MS_RDONLY)) GTEST_SKIP() << "no right to mount: " << std::strerror(errno);
    EXPECT_EQ(run("nothing"), test::kCrashExitCode);
    EXPECT_EQ(m_output, failed(std::strerror(EROFS)));
    EXPECT_EQ(history(), historyLine());
    EXPECT_EQ(::umount(dumps().c_str()), 0);
}

TEST_F(CrashReportFaultsTest, AFullDiskUnderTheHistoryKeepsNothingElse) {
    fs::create_symlink("/dev/full", historyFile());
    EXPECT_EQ(run("nothing"), test::kCrashExitCode);
    EXPECT_EQ(m_output, written());
    EXPECT_GT(fs::file_size(dumpFile()), 100U);
}

TEST_F(CrashReportFaultsTest, AHistoryThatNobodyTakesDoesNotKeepTheProcess) {
    // Opening it waits for a reader.
    ASSERT_EQ(::mkfifo(historyFile().c_str(), 0600), 0);
    EXPECT_EQ(runImpatiently("nothing"), test::kCrashExitCode);
    EXPECT_EQ(m_output, written());
}

TEST_F(CrashReportFaultsTest, ADumpThatNobodyTakesDoesNotKeepTheProcess) {
    // So does this, in the fault's own handler.
    fs::create_directories(dumps());
    ASSERT_EQ(::mkfifo(dumpFile().c_str(), 0600), 0);
    EXPECT_EQ(runImpatiently("nothing"), test::kCrashExitCode);
    EXPECT_EQ(m_output, failed(std::strerror(EFAULT)));
    EXPECT_EQ(history(), historyLine());
}

// The thread sanitizer keeps signals back from code that makes no calls, and walks stacks itself.
#if !defined(__SANITIZE_THREAD__)
TEST_F(CrashReportFaultsTest, AHandlerThatFaultsOrHangsIsLeftForTheLines) {
    for (const std::string kind : {"walker-faults", "walker-hangs"}) {
        fs::remove(historyFile());
        EXPECT_EQ(runImpatiently(kind), test::kCrashExitCode) << kind;
        EXPECT_EQ(m_output, failed(std::strerror(EFAULT))) << kind;
        EXPECT_EQ(history(), historyLine()) << kind;
    }
}
#endif

} // namespace

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <csignal>
#include <filesystem>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "core/check/core_assert.h"
#include "tests/support/stream_capture.h"
#include "tests/utl/filelogger_test.h"

namespace fs = std::filesystem;

using test::printedBy;
using test::readFile;

namespace {

using Lines = std::vector<std::string>;

// Bounds the size of the files that this process writes.
class FileSizeLimit {
public:
    explicit FileSizeLimit(rlim_t bytes) {
        std::signal(SIGXFSZ, SIG_IGN);
        EXPECT_EQ(getrlimit(RLIMIT_FSIZE, &m_before), 0);
        const rlimit limit{bytes, m_before.rlim_max};
        EXPECT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
    }
    ~FileSizeLimit() { EXPECT_EQ(setrlimit(RLIMIT_FSIZE, &m_before), 0); }
    FileSizeLimit(const FileSizeLimit&) = delete;
    FileSizeLimit& operator=(const FileSizeLimit&) = delete;

private:
    rlimit m_before{};
};

TEST_F(FileLoggerTest, ReportsAFullDiskAndGoesOn) {
    fs::create_symlink("/dev/full", log());
    install(100, 1);
    EXPECT_EQ(printedBy([] { say("lost"); }).error, writeFailure(28, ENOSPC));
    fs::remove(log());
    say("kept");
    EXPECT_EQ(texts(log()), Lines{"kept"});
}

// The limit holds for standard error too while it is captured, and so begins beyond what is written there.
constexpr size_t kFirstLine = 1000;

TEST_F(FileLoggerTest, DoesNotTryTheRestOfACutLineAgain) {
    install(5000000, 1);
    say(std::string(kFirstLine - 24, 'x'));
    {
        const FileSizeLimit limit(kFirstLine + 24);
        EXPECT_EQ(printedBy([] { say("5678"); }).error, "") << "a short write is no failure";
        EXPECT_EQ(printedBy([] { say("9012"); }).error, writeFailure(28, EFBIG));
    }
    say("later");
    const std::string bytes = readFile(log());
    EXPECT_EQ(bytes.substr(kFirstLine + 22, 2), " 5") << "where the limit cut it";
    EXPECT_EQ(bytes.size(), kFirstLine + 24 + 29);
    EXPECT_TRUE(bytes.ends_with(" later\n"));
}

std::string g_log;
bool g_isLogOpen = false;
bool g_hasOldest = false;

TEST_F(FileLoggerTest, ClosesTheFileBeforeItIsRenamedAndDeletesTheOldestAfterwards) {
    install(20, 0);
    fs::create_directories(log() + ".0/stuck");
    test::writeFile(log() + ".1", "oldest");
    g_log = log();
    NS_CORE::Assert::installFailureHandler([](const char*, std::string_view, int32_t, int32_t, const std::string&) {
        std::error_code gone;
        for (const auto& entry : fs::directory_iterator("/proc/self/fd"))
            g_isLogOpen |= fs::read_symlink(entry.path(), gone) == g_log;
        g_hasOldest = fs::exists(g_log + ".1");
        return false;
    });
    printedBy([] { say("too large for its file"); });
    EXPECT_FALSE(g_isLogOpen);
    EXPECT_TRUE(g_hasOldest) << "while the file itself is renamed";
    EXPECT_FALSE(fs::exists(log() + ".1"));
}

TEST_F(FileLoggerTest, RotatesAFileThatAFailedWriteFindsTooLarge) {
    install(5000000, 1);
    const std::string first(kFirstLine - 24, 'x');
    say(first);
    install(20, 1);
    {
        const FileSizeLimit limit(kFirstLine);
        EXPECT_EQ(printedBy([] { say("lost"); }).error, writeFailure(28, EFBIG));
    }
    EXPECT_EQ(texts(log() + ".old"), Lines{first});
}

} // namespace

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <csignal>
#include <filesystem>
#include <string>
#include <vector>

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

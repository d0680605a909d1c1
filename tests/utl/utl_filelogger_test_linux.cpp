#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

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

// Acts as a user whom file rights bind, where the tests run as root.
class OrdinaryUser {
public:
    explicit OrdinaryUser(const fs::path& directory) : m_before(geteuid()) {
        constexpr uid_t kNobody = 65534;
        EXPECT_EQ(chmod(directory.c_str(), 0777), 0);
        EXPECT_TRUE(m_before != 0 || seteuid(kNobody) == 0);
    }
    ~OrdinaryUser() { EXPECT_EQ(seteuid(m_before), 0); }
    OrdinaryUser(const OrdinaryUser&) = delete;
    OrdinaryUser& operator=(const OrdinaryUser&) = delete;

private:
    uid_t m_before;
};

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
    EXPECT_TRUE(hook.failures().empty());
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
    EXPECT_TRUE(hook.failures().empty());
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

TEST_F(FileLoggerTest, DropsRecordsWhileTheFileIsReadOnly) {
    install(5000000, 1);
    const OrdinaryUser user(dir.path());
    say("1");
    ASSERT_EQ(chmod(log().c_str(), 0444), 0);
    const std::string printed = printedBy([] { say("lost"); }).error;
    EXPECT_EQ(printed, openFailure());
    EXPECT_EQ(hook.single().message, "");
    ASSERT_EQ(chmod(log().c_str(), 0600), 0);
    say("2");
    EXPECT_EQ(texts(log()), (Lines{"1", "2"}));
}

TEST_F(FileLoggerTest, ReplacesAnOldFileThatIsReadOnlyOrOpen) {
    install(30, 1);
    const OrdinaryUser user(dir.path());
    say("the first line, long enough");
    ASSERT_EQ(chmod((log() + ".old").c_str(), 0444), 0);
    std::FILE* reader = std::fopen((log() + ".old").c_str(), "r");
    ASSERT_NE(reader, nullptr);
    ASSERT_EQ(flock(fileno(reader), LOCK_EX), 0);
    say("the second line, long enough");
    std::fclose(reader);
    EXPECT_EQ(texts(log() + ".old"), Lines{"the second line, long enough"});
    EXPECT_TRUE(hook.failures().empty());
}

TEST_F(FileLoggerTest, GrowsWhileTheDirectoryRefusesTheRename) {
    install(30, 1);
    std::string printed;
    {
        const OrdinaryUser user(dir.path());
        ASSERT_EQ(seteuid(getuid()), 0);
        test::writeFile(log(), "");
        ASSERT_EQ(chmod(log().c_str(), 0666), 0);
        ASSERT_EQ(chmod(dir.path().c_str(), 0555), 0);
        ASSERT_EQ(seteuid(65534), 0);
        printed = printedBy([] { say("the first line, long enough"); }).error;
    }
    EXPECT_EQ(printed, renameFailure(log(), log() + ".old") + "Permission denied>\n");
    expectRenameCheck();
    EXPECT_EQ(texts(log()), Lines{"the first line, long enough"});
    say("second");
    EXPECT_EQ(texts(log() + ".old"), (Lines{"the first line, long enough", "second"}));
}

} // namespace

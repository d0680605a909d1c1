#include "utl/utl_file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "core/files/core_wrapper.h"
#include "core/log/core_v2masterlogger.h"
#include "tests/support/hook_recorder.h"
#include "tests/support/log_recorder.h"
#include "tests/support/temp_dir.h"

namespace NS_UTL {
namespace {

using Lines = std::vector<std::string>;

void expectClosed(const File& file) {
    EXPECT_EQ(file.descriptor(), -1);
    EXPECT_EQ(file.path(), "");
    EXPECT_EQ(file.flags(), 0U);
    EXPECT_EQ(file.mode(), 0U);
    EXPECT_EQ(file.bytesWritten(), 0U);
}

struct FileTest : testing::Test {
    test::TempDir dir;
    File file;
};

TEST_F(FileTest, IsClosedAtFirst) {
    expectClosed(file);
    file.close();
    expectClosed(file);
}

TEST_F(FileTest, OpensAsALogFileOfTheOwnersUnlessToldOtherwise) {
    ::umask(0);
    ASSERT_TRUE(file.openFile(dir.file("log")));
    EXPECT_EQ(file.path(), dir.file("log"));
    EXPECT_GE(file.descriptor(), 0);
    EXPECT_EQ(file.flags(), 0xa7U);
    EXPECT_EQ(file.mode(), 0x180U);
    EXPECT_EQ(file.bytesWritten(), 0U);
    EXPECT_EQ(file.size(), 0);
    using std::filesystem::perms;
    const perms owners = perms::owner_read | perms::owner_write;
    // Windows has no rights of others here.
    const perms known = std::filesystem::path::preferred_separator == '/' ? perms::mask : owners;
    EXPECT_EQ(std::filesystem::status(dir.path() / "log").permissions() & known, owners);
}

TEST_F(FileTest, AppendsBytesAsTheyAre) {
    test::writeFile(dir.path() / "log", "before\r\n");
    ASSERT_TRUE(file.openFile(dir.file("log")));
    EXPECT_EQ(file.size(), 8);
    EXPECT_EQ(file.writeFrom("one\n", 4), 4);
    // Whoever else appends meanwhile is not written over.
    File other;
    ASSERT_TRUE(other.openFile(dir.file("log")));
    EXPECT_EQ(other.writeFrom("other\n", 6), 6);
    EXPECT_EQ(file.writeFrom("\x1a\0\xff\n", 4), 4);
    EXPECT_EQ(file.writeFrom("", 0), 0);
    EXPECT_EQ(file.bytesWritten(), 8U);
    EXPECT_EQ(file.size(), 22);
    file.close();
    expectClosed(file);
    EXPECT_EQ(test::readFile(dir.path() / "log"), std::string("before\r\none\nother\n\x1a\0\xff\n", 22));
    ASSERT_TRUE(file.openFile(dir.file("another")));
    EXPECT_EQ(file.bytesWritten(), 0U);
    EXPECT_EQ(file.path(), dir.file("another"));
}

TEST_F(FileTest, ItsEndClosesTheFile) {
    const auto descriptor = [this] {
        File own;
        EXPECT_TRUE(own.openFile(dir.file("log")));
        return own.descriptor();
    };
    EXPECT_EQ(descriptor(), descriptor()) << "the lowest free one is handed out next";
}

TEST_F(FileTest, OpeningTwiceFailsACheckWithBothPaths) {
    const test::HookRecorder hook;
    ASSERT_TRUE(file.openFile(dir.file("first")));
    EXPECT_EQ(file.writeFrom("x", 1), 1);
    EXPECT_FALSE(file.openFile(dir.file("second")));
    EXPECT_EQ(hook.single(),
              (test::FailedCheck{"CHECKF", "utl_file", hook.single().line, 0,
                                 "can't open '" + dir.file("second") + "', '" + dir.file("first") + "' already open"}));
    EXPECT_FALSE(std::filesystem::exists(dir.path() / "second"));
    EXPECT_EQ(file.path(), dir.file("first"));
    EXPECT_EQ(file.bytesWritten(), 1U);
    EXPECT_EQ(file.writeFrom("y", 1), 1);
}

TEST_F(FileTest, AnOpenThatFailsIsLoggedUnlessReportsOrTheLevelAreOff) {
    const test::LogRecorder log;
    Lines expected;
    for (const std::string& path : {dir.file("no such directory/service.log"), dir.file("")}) {
        EXPECT_FALSE(file.openFile(path));
        expectClosed(file);
        EXPECT_FALSE(File(File::Reports::Silent).openFile(path));
        expected.push_back("WARN UTL::File::openFile - File:openFile(" + path + ",167,384) - failed opening");
    }
    ASSERT_TRUE(NS_CORE::MasterLogger::setLevelFlags(NS_CORE::LogLevel::Warn, 0));
    ASSERT_TRUE(NS_CORE::MasterLogger::setLevelImplementationBits(NS_CORE::LogLevel::Warn, 0));
    EXPECT_FALSE(File().openFile(dir.file("")));
    EXPECT_EQ(log.lines(), expected);
    NS_CORE::MasterLogger::setLevelImplementationBits(NS_CORE::LogLevel::Warn, 2);
}

TEST_F(FileTest, MisuseFailsACheck) {
    test::writeFile(dir.path() / "file", "content");
    const test::HookRecorder hook;
    const test::LogRecorder log;
    EXPECT_EQ(file.writeFrom("x", 1), -1);
    EXPECT_EQ(file.size(), -1);
    ASSERT_TRUE(file.openFile(dir.file("file"), File::Read));
    EXPECT_EQ(file.writeFrom("x", 1), -1);
    ASSERT_EQ(hook.failures().size(), 3U);
    for (const test::FailedCheck& check : hook.failures())
        EXPECT_EQ(check, (test::FailedCheck{"CHECKF", "utl_file", check.line, 0, ""}));
    EXPECT_EQ(NS_CORE::Wrapper::write(file.descriptor(), "x", 1), -1);
    EXPECT_EQ(file.size(), 7);
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(FileTest, AWriteThatFailsIsLoggedUnlessReportsAreOff) {
    const test::LogRecorder log;
    for (const File::Reports reports : {File::Reports::Warn, File::Reports::Silent}) {
        File refusing(reports);
        ASSERT_TRUE(refusing.openFile(dir.file("log")));
        const NS_CORE::ScopedFd readOnly(NS_CORE::Wrapper::open(dir.file("log"), O_RDONLY, 0));
        ASSERT_GE(::dup2(readOnly.get(), refusing.descriptor()), 0);
        EXPECT_EQ(refusing.writeFrom("12345", 5), -1);
        EXPECT_EQ(refusing.bytesWritten(), 0U);
    }
    EXPECT_EQ(log.lines(), (Lines{"WARN UTL::File::writeFrom - File(" + dir.file("log") +
                                  "):writeFrom - failed writing 5 bytes with error " + std::to_string(EBADF) + ":" +
                                  std::strerror(EBADF)}));
}

TEST_F(FileTest, ABorrowedDescriptorStaysOpen) {
    ASSERT_TRUE(file.openFile(dir.file("log")));
    const NS_CORE::ScopedFd taken(file.descriptor());
    file.setDescriptor(File::Descriptor::Borrowed);
    file.close();
    expectClosed(file);
    EXPECT_EQ(NS_CORE::Wrapper::write(taken.get(), "x", 1), 1);
}

TEST_F(FileTest, OwnsItsDescriptorAgainAfterTheNextOpen) {
    file.setDescriptor(File::Descriptor::Borrowed);
    ASSERT_TRUE(file.openFile(dir.file("log")));
    const int descriptor = file.descriptor();
    file.close();
    ASSERT_TRUE(file.openFile(dir.file("log")));
    EXPECT_EQ(file.descriptor(), descriptor);
}

TEST_F(FileTest, WithoutCreateAMissingFileStaysMissing) {
    EXPECT_FALSE(File(File::Reports::Silent).openFile(dir.file("missing"), File::Read | File::Write));
    EXPECT_FALSE(std::filesystem::exists(dir.path() / "missing"));
}

TEST_F(FileTest, WithoutAppendWritingBeginsAtTheStart) {
    test::writeFile(dir.path() / "file", "content");
    ASSERT_TRUE(file.openFile(dir.file("file"), File::Write | File::Create));
    EXPECT_EQ(file.writeFrom("C", 1), 1);
    char next = 0;
    EXPECT_EQ(NS_CORE::Wrapper::read(file.descriptor(), &next, 1), -1);
    file.close();
    EXPECT_EQ(test::readFile(dir.path() / "file"), "Content");
}

} // namespace
} // namespace NS_UTL

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

// Makes the open file's descriptor one that refuses to write.
void turnReadOnly(const File& file, const std::string& path) {
    const NS_CORE::ScopedFd readOnly(NS_CORE::Wrapper::open(path, O_RDONLY, 0));
    ASSERT_GE(::dup2(readOnly.get(), file.descriptor()), 0);
}

TEST(File, IsClosedAtFirst) {
    const test::HookRecorder hook;
    File file;
    expectClosed(file);
    file.close();
    expectClosed(file);
    EXPECT_TRUE(hook.failures().empty());
}

TEST(File, OpensAsALogFileUnlessToldOtherwise) {
    const test::TempDir dir;
    File file;
    ASSERT_TRUE(file.openFile(dir.file("log")));
    EXPECT_EQ(file.path(), dir.file("log"));
    EXPECT_GE(file.descriptor(), 0);
    EXPECT_EQ(file.flags(), 0xa7U);
    EXPECT_EQ(file.mode(), 0x180U);
    EXPECT_EQ(file.bytesWritten(), 0U);
    EXPECT_EQ(file.size(), 0);
}

TEST(File, CreatesWithTheOwnersRightsOnly) {
    const test::TempDir dir;
    ::umask(0);
    File file;
    ASSERT_TRUE(file.openFile(dir.file("log")));
    using std::filesystem::perms;
    const perms rights = std::filesystem::status(dir.path() / "log").permissions();
    EXPECT_EQ(rights & (perms::owner_read | perms::owner_write), perms::owner_read | perms::owner_write);
}

TEST(File, AppendsBytesAsTheyAre) {
    const test::TempDir dir;
    test::writeFile(dir.path() / "log", "before\r\n");
    File file;
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
}

TEST(File, NamesOutsideAsciiAndBlanksAreNoHindrance) {
    const test::TempDir dir;
    const std::string path = dir.file("\xD0\x96 \xC3\xA9 \xE6\xB8\xAC\xE8\xA9\xA6 .log");
    File file;
    ASSERT_TRUE(file.openFile(path));
    EXPECT_EQ(file.writeFrom("x", 1), 1);
    file.close();
    EXPECT_EQ(test::readFile(test::fromText(path)), "x");
}

TEST(File, ItsEndClosesTheFile) {
    const test::TempDir dir;
    int descriptor = -1;
    {
        File file;
        ASSERT_TRUE(file.openFile(dir.file("log")));
        descriptor = file.descriptor();
    }
    // The lowest free one is handed out next.
    File next;
    ASSERT_TRUE(next.openFile(dir.file("log")));
    EXPECT_EQ(next.descriptor(), descriptor);
}

TEST(File, OpeningTwiceFailsACheckWithBothPaths) {
    const test::TempDir dir;
    const test::HookRecorder hook;
    File file;
    ASSERT_TRUE(file.openFile(dir.file("first")));
    EXPECT_EQ(file.writeFrom("x", 1), 1);
    EXPECT_FALSE(file.openFile(dir.file("second")));
    const test::FailedCheck check = hook.single();
    EXPECT_EQ(check.expression, "CHECKF");
    EXPECT_EQ(check.file, "utl_file");
    EXPECT_EQ(check.message, "can't open '" + dir.file("second") + "', '" + dir.file("first") + "' already open");
    EXPECT_FALSE(std::filesystem::exists(dir.path() / "second"));
    EXPECT_EQ(file.path(), dir.file("first"));
    EXPECT_EQ(file.bytesWritten(), 1U);
    EXPECT_EQ(file.writeFrom("y", 1), 1);
}

TEST(File, OpensAgainAfterAClose) {
    const test::TempDir dir;
    File file;
    ASSERT_TRUE(file.openFile(dir.file("first")));
    EXPECT_EQ(file.writeFrom("12345", 5), 5);
    file.close();
    ASSERT_TRUE(file.openFile(dir.file("second")));
    EXPECT_EQ(file.bytesWritten(), 0U);
    EXPECT_EQ(file.path(), dir.file("second"));
}

TEST(File, AnOpenThatFailsIsLoggedUnlessReportsOrTheLevelAreOff) {
    const test::TempDir dir;
    const test::LogRecorder log;
    Lines expected;
    for (const std::string& path : {dir.file("no such directory/service.log"), dir.file("")}) {
        File file;
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

TEST(File, MisuseFailsACheck) {
    const test::TempDir dir;
    test::writeFile(dir.path() / "file", "content");
    test::HookRecorder hook;
    const test::LogRecorder log;
    File file;
    EXPECT_EQ(file.writeFrom("x", 1), -1);
    EXPECT_EQ(hook.single().file, "utl_file");
    EXPECT_EQ(hook.single().message, "");
    hook.clear();
    EXPECT_EQ(file.size(), -1);
    EXPECT_EQ(hook.single().message, "");
    hook.clear();
    ASSERT_TRUE(file.openFile(dir.file("file"), File::Read));
    EXPECT_EQ(file.writeFrom("x", 1), -1);
    EXPECT_EQ(hook.single().message, "");
    EXPECT_EQ(file.size(), 7);
    EXPECT_TRUE(log.lines().empty());
}

TEST(File, AWriteThatFailsIsLoggedUnlessReportsAreOff) {
    const test::TempDir dir;
    const test::LogRecorder log;
    for (const File::Reports reports : {File::Reports::Warn, File::Reports::Silent}) {
        File file(reports);
        ASSERT_TRUE(file.openFile(dir.file("log")));
        turnReadOnly(file, dir.file("log"));
        EXPECT_EQ(file.writeFrom("12345", 5), -1);
        EXPECT_EQ(file.bytesWritten(), 0U);
    }
    EXPECT_EQ(log.lines(), (Lines{"WARN UTL::File::writeFrom - File(" + dir.file("log") +
                                  "):writeFrom - failed writing 5 bytes with error " + std::to_string(EBADF) + ":" +
                                  std::strerror(EBADF)}));
}

TEST(File, ABorrowedDescriptorStaysOpen) {
    const test::TempDir dir;
    File file;
    ASSERT_TRUE(file.openFile(dir.file("log")));
    const NS_CORE::ScopedFd taken(file.descriptor());
    file.setDescriptor(File::Descriptor::Borrowed);
    file.close();
    expectClosed(file);
    EXPECT_EQ(NS_CORE::Wrapper::write(taken.get(), "x", 1), 1);
}

TEST(File, OwnsItsDescriptorAgainAfterTheNextOpen) {
    const test::TempDir dir;
    File file;
    file.setDescriptor(File::Descriptor::Borrowed);
    ASSERT_TRUE(file.openFile(dir.file("log")));
    const int descriptor = file.descriptor();
    file.close();
    ASSERT_TRUE(file.openFile(dir.file("log")));
    EXPECT_EQ(file.descriptor(), descriptor);
}

TEST(File, WithoutCreateAMissingFileStaysMissing) {
    const test::TempDir dir;
    File file(File::Reports::Silent);
    EXPECT_FALSE(file.openFile(dir.file("missing"), File::Read | File::Write));
    EXPECT_FALSE(std::filesystem::exists(dir.path() / "missing"));
}

TEST(File, WithoutAppendWritingBeginsAtTheStart) {
    const test::TempDir dir;
    test::writeFile(dir.path() / "file", "content");
    File file;
    ASSERT_TRUE(file.openFile(dir.file("file"), File::Write));
    EXPECT_EQ(file.writeFrom("C", 1), 1);
    file.close();
    EXPECT_EQ(test::readFile(dir.path() / "file"), "Content");
}

} // namespace
} // namespace NS_UTL

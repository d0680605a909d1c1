#include "utl/utl_fileutils.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <random>

#include "core/files/core_wrapper.h"
#include "tests/support/hook_recorder.h"
#include "tests/support/log_recorder.h"
#include "tests/support/temp_dir.h"

namespace NS_UTL {
namespace {

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;

std::string randomBytes(size_t size) {
    std::mt19937 random(static_cast<uint32_t>(size));
    std::string bytes(size, '\0');
    for (char& byte : bytes) byte = static_cast<char>(random());
    return bytes;
}

class CopyOfSize : public testing::TestWithParam<size_t> {};

TEST_P(CopyOfSize, IsIdentical) {
    const test::TempDir dir;
    const test::LogRecorder log;
    const std::string bytes = randomBytes(GetParam());
    test::writeFile(dir.path() / "source", bytes);
    EXPECT_TRUE(FileUtils::copy(dir.file("source"), dir.file("destination")));
    EXPECT_TRUE(test::readFile(dir.path() / "destination") == bytes);
    EXPECT_TRUE(log.lines().empty());
}

INSTANTIATE_TEST_SUITE_P(Bytes, CopyOfSize,
                         testing::Values(0, 1, 32767, 32768, 32769, 65535, 65536, 65537, 20 * 1024 * 1024));

TEST(Copy, TextIsNotTranslated) {
    const test::TempDir dir;
    const std::string bytes("a\nb\r\nc\x1a d\0e", 12);
    test::writeFile(dir.path() / "source", bytes);
    EXPECT_TRUE(FileUtils::copy(dir.file("source"), dir.file("destination")));
    EXPECT_EQ(test::readFile(dir.path() / "destination"), bytes);
}

TEST(Copy, ALargerDestinationIsTruncated) {
    const test::TempDir dir;
    test::writeFile(dir.path() / "source", "short");
    test::writeFile(dir.path() / "destination", randomBytes(100000));
    EXPECT_TRUE(FileUtils::copy(dir.file("source"), dir.file("destination")));
    EXPECT_EQ(test::readFile(dir.path() / "destination"), "short");
}

TEST(Copy, AnEmptySourceEmptiesTheDestination) {
    const test::TempDir dir;
    test::writeFile(dir.path() / "source", "");
    test::writeFile(dir.path() / "destination", "before");
    EXPECT_TRUE(FileUtils::copy(dir.file("source"), dir.file("destination")));
    EXPECT_EQ(test::readFile(dir.path() / "destination"), "");
}

TEST(Copy, NamesOutsideAsciiAndBlanksAreNoHindrance) {
    const test::TempDir dir;
    const std::string folder = dir.file("\xD0\x96 \xC3\xA9 \xE6\xB8\xAC\xE8\xA9\xA6");
    fs::create_directory(test::fromText(folder));
    test::writeFile(test::fromText(folder + "/\xE6\xB8\xAC source .dll"), "content");
    EXPECT_TRUE(FileUtils::copy(folder + "/\xE6\xB8\xAC source .dll", folder + "/\xD0\x96 destination .dll"));
    EXPECT_EQ(test::readFile(test::fromText(folder + "/\xD0\x96 destination .dll")), "content");
}

TEST(Copy, AFileOntoItselfIsEmptied) {
    const test::TempDir dir;
    test::writeFile(dir.path() / "file", "content");
    EXPECT_TRUE(FileUtils::copy(dir.file("file"), dir.file("file")));
    EXPECT_EQ(test::readFile(dir.path() / "file"), "");
}

TEST(Copy, AMissingSourceIsLoggedAndTheDestinationLeftAlone) {
    const test::TempDir dir;
    test::writeFile(dir.path() / "destination", "before");
    const test::LogRecorder log;
    EXPECT_FALSE(FileUtils::copy(dir.file("missing"), dir.file("destination")));
    EXPECT_EQ(log.lines(),
              (Lines{"WARN UTL::FileUtils::copy - failed opening '" + dir.file("missing") + "' for reading"}));
    EXPECT_EQ(test::readFile(dir.path() / "destination"), "before");
}

TEST(Copy, ADirectoryAsDestinationIsLoggedAndStays) {
    const test::TempDir dir;
    test::writeFile(dir.path() / "source", "content");
    fs::create_directory(dir.path() / "destination");
    const test::LogRecorder log;
    EXPECT_FALSE(FileUtils::copy(dir.file("source"), dir.file("destination")));
    EXPECT_EQ(log.lines(),
              (Lines{"WARN UTL::FileUtils::copy - failed opening '" + dir.file("destination") + "' for writing"}));
    EXPECT_TRUE(fs::is_directory(dir.path() / "destination"));
}

TEST(Copy, ADestinationInAMissingDirectoryIsLogged) {
    const test::TempDir dir;
    test::writeFile(dir.path() / "source", "content");
    const test::LogRecorder log;
    EXPECT_FALSE(FileUtils::copy(dir.file("source"), dir.file("missing/destination")));
    EXPECT_EQ(log.lines(), (Lines{"WARN UTL::FileUtils::copy - failed opening '" + dir.file("missing/destination") +
                                  "' for writing"}));
}

TEST(Copy, APathThatIsNotUtf8FailsACheckAndIsLogged) {
    const test::TempDir dir;
    test::writeFile(dir.path() / "source", "content");
    const test::HookRecorder hook;
    const test::LogRecorder log;
    EXPECT_FALSE(FileUtils::copy("\xff", dir.file("destination")));
    EXPECT_FALSE(FileUtils::copy(dir.file("source"), "\xfe"));
    ASSERT_EQ(hook.failures().size(), 2U);
    EXPECT_EQ(hook.failures()[0].message, "\xff");
    EXPECT_EQ(hook.failures()[1].message, "\xfe");
    EXPECT_EQ(log.lines(), (Lines{"WARN UTL::FileUtils::copy - failed opening '\xff' for reading",
                                  "WARN UTL::FileUtils::copy - failed opening '\xfe' for writing"}));
}

TEST(RenameFile, MovesAFileToANewName) {
    const test::TempDir dir;
    test::writeFile(dir.path() / "from", "content");
    const test::LogRecorder log;
    EXPECT_TRUE(FileUtils::renameFile(dir.file("from"), dir.file("to")));
    EXPECT_FALSE(fs::exists(dir.path() / "from"));
    EXPECT_EQ(test::readFile(dir.path() / "to"), "content");
    EXPECT_TRUE(log.lines().empty());
}

TEST(RenameFile, ReplacesAnExistingFile) {
    const test::TempDir dir;
    test::writeFile(dir.path() / "from", "new");
    test::writeFile(dir.path() / "to", "old and longer");
    EXPECT_TRUE(FileUtils::renameFile(dir.file("from"), dir.file("to")));
    EXPECT_FALSE(fs::exists(dir.path() / "from"));
    EXPECT_EQ(test::readFile(dir.path() / "to"), "new");
}

TEST(RenameFile, NamesOutsideAsciiAndBlanksAreNoHindrance) {
    const test::TempDir dir;
    const std::string from = dir.file("\xD0\x96 \xC3\xA9.log");
    const std::string to = dir.file("\xE6\xB8\xAC\xE8\xA9\xA6 .log.old");
    test::writeFile(test::fromText(from), "content");
    EXPECT_TRUE(FileUtils::renameFile(from, to));
    EXPECT_EQ(test::readFile(test::fromText(to)), "content");
}

TEST(RenameFile, AMissingFileIsLoggedAtInfoOnly) {
    const test::TempDir dir;
    test::writeFile(dir.path() / "to", "content");
    const test::LogRecorder log;
    EXPECT_FALSE(FileUtils::renameFile(dir.file("missing"), dir.file("to")));
    // The system's code for "file not found" is 2 on both platforms.
    EXPECT_EQ(log.lines(), (Lines{"INFO NS_UTL::FileUtils::renameFile - '" + dir.file("missing") + "'=>'" +
                                  dir.file("to") + "' failed : " + NS_CORE::systemErrorText(2)}));
    EXPECT_EQ(test::readFile(dir.path() / "to"), "content");
}

TEST(RenameFile, ADirectoryInTheWayIsLogged) {
    const test::TempDir dir;
    test::writeFile(dir.path() / "from", "content");
    fs::create_directory(dir.path() / "to");
    const test::LogRecorder log;
    EXPECT_FALSE(FileUtils::renameFile(dir.file("from"), dir.file("to")));
    ASSERT_EQ(log.lines().size(), 1U);
    EXPECT_TRUE(log.lines()[0].starts_with("INFO NS_UTL::FileUtils::renameFile - '" + dir.file("from") + "'=>'" +
                                           dir.file("to") + "' failed : "));
    EXPECT_EQ(test::readFile(dir.path() / "from"), "content");
}

TEST(RenameFile, APathThatIsNotUtf8FailsACheckWithThatPath) {
    const test::TempDir dir;
    test::writeFile(dir.path() / "from", "content");
    const test::LogRecorder log;
    {
        const test::HookRecorder hook;
        EXPECT_FALSE(FileUtils::renameFile("from\xff", dir.file("to")));
        EXPECT_EQ(hook.single().expression, "CHECKF");
        EXPECT_EQ(hook.single().message, "from\xff");
    }
    {
        const test::HookRecorder hook;
        EXPECT_FALSE(FileUtils::renameFile(dir.file("from"), "to\xff"));
        EXPECT_EQ(hook.single().message, "to\xff");
    }
    EXPECT_TRUE(log.lines().empty());
    EXPECT_TRUE(fs::exists(dir.path() / "from"));
}

} // namespace
} // namespace NS_UTL

#include "utl/utl_fileutils.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <random>

#include "core/files/core_wrapper.h"
#include "tests/support/hook_recorder.h"
#include "tests/utl/fileutils_test.h"

namespace fs = std::filesystem;

using NS_UTL::FileUtils;

namespace {

constexpr const char* kOddNames = "\xD0\x96 \xC3\xA9 \xE6\xB8\xAC\xE8\xA9\xA6 .dll";

std::string randomBytes(size_t size) {
    std::mt19937 random(static_cast<uint32_t>(size));
    std::string bytes(size, '\0');
    for (char& byte : bytes) byte = static_cast<char>(random());
    return bytes;
}

TEST_F(Copy, OfAnySizeIsIdenticalWhateverWasThere) {
    // Larger ones before smaller ones: the destination is truncated.
    for (const size_t size : {20U * 1024 * 1024, 65537U, 65536U, 65535U, 32769U, 32768U, 32767U, 1U, 0U}) {
        put("source", randomBytes(size));
        EXPECT_EQ(copy(), Lines());
        EXPECT_TRUE(bytes("destination") == randomBytes(size)) << size;
    }
}

TEST_F(Copy, TextIsNotTranslated) {
    const std::string text("a\nb\r\nc\x1a d\0e", 12);
    put("source", text);
    EXPECT_EQ(copy(), Lines());
    EXPECT_EQ(bytes("destination"), text);
}

TEST_F(Copy, NamesOutsideAsciiAndBlanksAreNoHindrance) {
    put(kOddNames, "content");
    EXPECT_EQ(copy(kOddNames, std::string("x ") + kOddNames), Lines());
    EXPECT_EQ(bytes(std::string("x ") + kOddNames), "content");
}

TEST_F(Copy, AFileOntoItselfIsEmptied) {
    put("file", "content");
    EXPECT_EQ(copy("file", "file"), Lines());
    EXPECT_EQ(bytes("file"), "");
}

TEST_F(Copy, AMissingSourceIsLoggedAndTheDestinationLeftAlone) {
    put("destination", "before");
    EXPECT_EQ(copy("missing"), failedOpening("missing", "reading"));
    EXPECT_EQ(bytes("destination"), "before");
}

TEST_F(Copy, ADestinationThatCannotBeMadeIsLogged) {
    put("source", "content");
    fs::create_directory(dir.path() / "directory");
    for (const char* const name : {"directory", "missing/destination"})
        EXPECT_EQ(copy("source", name), failedOpening(name, "writing"));
    EXPECT_TRUE(fs::is_directory(dir.path() / "directory"));
}

TEST_F(Copy, APathThatIsNotUtf8FailsACheckAndIsLogged) {
    put("source", "content");
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

TEST_F(RenameFile, MovesAFileToANewNameOrAnExistingOne) {
    put("from", "content");
    EXPECT_EQ(rename(), "");
    put("from", "new");
    EXPECT_EQ(rename(), "");
}

TEST_F(RenameFile, NamesOutsideAsciiAndBlanksAreNoHindrance) {
    put(kOddNames, "content");
    const std::string to = dir.file(std::string("x ") + kOddNames);
    EXPECT_TRUE(FileUtils::renameFile(dir.file(kOddNames), to));
    EXPECT_EQ(test::readFile(test::fromText(to)), "content");
}

TEST_F(RenameFile, AMissingFileIsLoggedAtInfoOnly) {
    put("to", "content");
    const test::LogRecorder log;
    EXPECT_FALSE(FileUtils::renameFile(dir.file("missing"), dir.file("to")));
    // The system's code for "file not found" is 2 on both platforms.
    EXPECT_EQ(log.lines(), (Lines{"INFO NS_UTL::FileUtils::renameFile - '" + dir.file("missing") + "'=>'" +
                                  dir.file("to") + "' failed : " + NS_CORE::systemErrorText(2)}));
    EXPECT_EQ(bytes("to"), "content");
}

TEST_F(RenameFile, ADirectoryInTheWayIsLogged) {
    put("from", "content");
    fs::create_directory(dir.path() / "to");
    EXPECT_NE(rename(), "");
}

TEST_F(RenameFile, APathThatIsNotUtf8FailsACheckWithThatPath) {
    put("from", "content");
    const test::LogRecorder log;
    test::HookRecorder hook;
    EXPECT_FALSE(FileUtils::renameFile("from\xff", dir.file("to")));
    EXPECT_EQ(hook.single().expression, "CHECKF");
    EXPECT_EQ(hook.single().message, "from\xff");
    hook.clear();
    EXPECT_FALSE(FileUtils::renameFile(dir.file("from"), "to\xff"));
    EXPECT_EQ(hook.single().message, "to\xff");
    EXPECT_EQ(log.lines(), Lines());
    EXPECT_TRUE(exists("from"));
}

} // namespace

#include "core/files/core_settingsfile.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <limits>

#include "core/files/core_scopedfd.h"
#include "tests/support/log_recorder.h"
#include "tests/support/temp_dir.h"

using Strings = std::vector<std::string>;

namespace {

struct SettingsFile : testing::Test {
    test::TempDir dir;
    std::string path = dir.file("file");
    Strings lines;

    bool read() {
        lines.clear();
        return NS_CORE::readSettingsFile(path, [this](std::string_view line) { lines.emplace_back(line); });
    }
    Strings linesOf(const std::string& bytes) {
        test::writeFile(path, bytes);
        EXPECT_TRUE(read());
        return lines;
    }
};

TEST_F(SettingsFile, HandsOverItsLines) {
    test::writeFile(path, "");
    const auto nextDescriptor = [this] { return NS_CORE::ScopedFd(NS_CORE::Wrapper::open(path, O_RDONLY, 0)).get(); };
    const int before = nextDescriptor();
    EXPECT_EQ(linesOf("a b\n\n c\r\nlast"), (Strings{"a b", "", " c\r", "last"}));
    EXPECT_EQ(linesOf(""), Strings());
    EXPECT_EQ(linesOf("\n"), Strings{""});
    EXPECT_EQ(nextDescriptor(), before) << "left open";
}

TEST_F(SettingsFile, CutsLongLinesInto999Bytes) {
    EXPECT_EQ(linesOf(std::string(998, 'x') + "\ny\n"), (Strings{std::string(998, 'x'), "y"}));
    EXPECT_EQ(linesOf(std::string(999, 'x') + "y\nz"), (Strings{std::string(999, 'x'), "y", "z"}));
    EXPECT_EQ(linesOf(std::string(1998, 'x') + "y"), (Strings{std::string(999, 'x'), std::string(999, 'x'), "y"}));
}

TEST_F(SettingsFile, EndsALineAtANul) {
    EXPECT_EQ(linesOf(std::string("ab\0cd\nef\0", 9)), (Strings{"ab", "ef"}));
}

TEST_F(SettingsFile, AnswersFalseWhereThereIsNone) {
    const test::LogRecorder log;
    EXPECT_FALSE(read());
    EXPECT_EQ(lines, Strings());
    EXPECT_EQ(log.lines(), Strings());
}

TEST_F(SettingsFile, ReadsAFileOfAnySize) {
    const test::LogRecorder log;
    std::string bytes;
    for (int i = 0; i < 100'000; ++i) bytes += "0123456789abcdef\n";
    EXPECT_EQ(linesOf(bytes + "last").size(), 100'001U);
    EXPECT_EQ(lines.back(), "last");
    EXPECT_EQ(log.lines(), Strings());
}

Strings tokens(std::string_view line) {
    const auto views = NS_CORE::settingsTokens(line);
    return Strings(views.begin(), views.end());
}

TEST(SettingsTokens, AreWhatLiesBetweenBlanksTabsAndLineBreaks) {
    EXPECT_EQ(tokens("a b"), (Strings{"a", "b"}));
    EXPECT_EQ(tokens(" \t a\t\tb\r\n"), (Strings{"a", "b"}));
    EXPECT_EQ(tokens("a\rb\nc"), (Strings{"a", "b", "c"}));
    EXPECT_EQ(tokens(""), Strings());
    EXPECT_EQ(tokens(" \t\r\n"), Strings());
    EXPECT_EQ(tokens("a\vb\fc"), Strings{"a\vb\fc"});
}

TEST(SettingsNumber, IsAWholeDecimalNumber) {
    EXPECT_EQ(NS_CORE::settingsNumber("41"), 41);
    EXPECT_EQ(NS_CORE::settingsNumber("-1"), -1);
    EXPECT_EQ(NS_CORE::settingsNumber("2147483647"), std::numeric_limits<int32_t>::max());
    for (const char* none : {"", "x", "41x", "0x41", "2147483648", "1.5", "-"})
        EXPECT_FALSE(NS_CORE::settingsNumber(none)) << none;
}

} // namespace

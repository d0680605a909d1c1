#include "service/commandline.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace service {
namespace {

using Words = std::vector<std::string>;

struct Case {
    const char* text;
    Words words;
};

class SplitCommandLineTest : public testing::TestWithParam<Case> {};

TEST_P(SplitCommandLineTest, GivesTheWords) {
    EXPECT_EQ(splitCommandLine(GetParam().text), GetParam().words);
}

INSTANTIATE_TEST_SUITE_P(Plain, SplitCommandLineTest,
                         testing::Values(Case{"", {}}, Case{" ", {}}, Case{"     ", {}},
                                         Case{"service-install", {"service-install"}}, Case{"  a   b  ", {"a", "b"}},
                                         Case{"a\tb\nc", {"a\tb\nc"}}, Case{"a\\ b\\\"c", {"a\\", "b\\\"c"}},
                                         Case{"\xC3\xA9 \xE6\xB8\xAC", {"\xC3\xA9", "\xE6\xB8\xAC"}}));

INSTANTIATE_TEST_SUITE_P(Quoted, SplitCommandLineTest,
                         testing::Values(Case{"\"a b\" c", {"a b", "c"}}, Case{"\" a  b \"", {" a  b "}},
                                         Case{"\"a b\"c", {"a b", "c"}}, Case{"\"a\"\"b c\"", {"a", "b c"}},
                                         Case{"x \"a b\"", {"x", "a b"}}));

INSTANTIATE_TEST_SUITE_P(QuoteInsideAWord, SplitCommandLineTest,
                         testing::Values(Case{"a\"b c\" d", {"a\"b", "c\"", "d"}}, Case{"a\"", {"a\""}},
                                         Case{"--x=\"a b\"", {"--x=\"a", "b\""}}));

INSTANTIATE_TEST_SUITE_P(EmptyWords, SplitCommandLineTest,
                         testing::Values(Case{"\"\"", {}}, Case{"\"\" a", {"a"}}, Case{"a \"\" \"\" b", {"a", "b"}},
                                         Case{"\"\"\"\"", {}}, Case{"\" \"", {" "}}));

INSTANTIATE_TEST_SUITE_P(QuoteWithoutEnd, SplitCommandLineTest,
                         testing::Values(Case{"\"", {}}, Case{"\"a b  c", {"a b  c"}}, Case{"a \"b", {"a", "b"}},
                                         Case{"\"a\" \"", {"a"}}));

TEST(ArgumentVectorTest, CountsTheProgramAndTheWords) {
    ArgumentVector arguments("C:\\svc\\bin\\quorkeri_service.exe", splitCommandLine("service-install"));
    ASSERT_EQ(arguments.count(), 2);
    EXPECT_STREQ(arguments.values()[0], "C:\\svc\\bin\\quorkeri_service.exe");
    EXPECT_STREQ(arguments.values()[1], "service-install");
    EXPECT_EQ(arguments.values()[2], nullptr);
}

TEST(ArgumentVectorTest, HoldsTheProgramAloneForAnEmptyCommandLine) {
    ArgumentVector arguments("", splitCommandLine(""));
    ASSERT_EQ(arguments.count(), 1);
    EXPECT_STREQ(arguments.values()[0], "");
    EXPECT_EQ(arguments.values()[1], nullptr);
}

TEST(ArgumentVectorTest, KeepsManyWordsInPlace) {
    std::string text;
    for (int i = 0; i < 1000; ++i) text += "w" + std::to_string(i) + " ";
    ArgumentVector arguments("p", splitCommandLine(text));
    ASSERT_EQ(arguments.count(), 1001);
    for (int i = 0; i < 1000; ++i) EXPECT_EQ(arguments.values()[i + 1], "w" + std::to_string(i));
}

} // namespace
} // namespace service

#include "utl/utl_commandline.h"

#include <gtest/gtest.h>

namespace NS_UTL {
namespace {

using Words = std::vector<std::string>;

TEST(CommandLine, WithoutWordsIsEmpty) {
    EXPECT_EQ(splitCommandLine(""), Words{});
    EXPECT_EQ(splitCommandLine(" \t "), Words{});
}

TEST(CommandLine, BlanksAndTabsSeparate) {
    EXPECT_EQ(splitCommandLine("program"), Words{"program"});
    EXPECT_EQ(splitCommandLine("  program  a\tb "), (Words{"program", "a", "b"}));
}

TEST(CommandLine, QuotesHoldTheProgramTogether) {
    EXPECT_EQ(splitCommandLine("\"a program\" b"), (Words{"a program", "b"}));
    EXPECT_EQ(splitCommandLine("\"a program\"b"), (Words{"a program", "b"}));
    EXPECT_EQ(splitCommandLine("a\"program b\""), (Words{"a\"program", "b"}));
    EXPECT_EQ(splitCommandLine("\"never closed b"), Words{"never closed b"});
    EXPECT_EQ(splitCommandLine("\"\" a"), (Words{"", "a"}));
}

TEST(CommandLine, ABackslashHasNoMeaningInTheProgram) {
    EXPECT_EQ(splitCommandLine("\"C:\\a dir\\\" b"), (Words{"C:\\a dir\\", "b"}));
    EXPECT_EQ(splitCommandLine("C:\\dir\\program b"), (Words{"C:\\dir\\program", "b"}));
}

TEST(CommandLine, QuotesHoldArgumentsTogether) {
    EXPECT_EQ(splitCommandLine("p \"a b\" c"), (Words{"p", "a b", "c"}));
    EXPECT_EQ(splitCommandLine("p a\" b \"c d"), (Words{"p", "a b c", "d"}));
    EXPECT_EQ(splitCommandLine("p \"\" c"), (Words{"p", "", "c"}));
    EXPECT_EQ(splitCommandLine("p \"never closed "), (Words{"p", "never closed "}));
    EXPECT_EQ(splitCommandLine("p \"two \"\" quotes\" c"), (Words{"p", "two \" quotes", "c"}));
}

TEST(CommandLine, BackslashesCountInFrontOfAQuoteOnly) {
    EXPECT_EQ(splitCommandLine(R"(p a\b\\c d\)"), (Words{"p", R"(a\b\\c)", R"(d\)"}));
    EXPECT_EQ(splitCommandLine(R"(p a\"b)"), (Words{"p", R"(a"b)"}));
    EXPECT_EQ(splitCommandLine(R"(p "a \" b" c)"), (Words{"p", R"(a " b)", "c"}));
    EXPECT_EQ(splitCommandLine(R"(p "a\\" b)"), (Words{"p", R"(a\)", "b"}));
    EXPECT_EQ(splitCommandLine(R"(p a\\\"b c)"), (Words{"p", R"(a\"b)", "c"}));
}

} // namespace
} // namespace NS_UTL

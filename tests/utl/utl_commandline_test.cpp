#include "utl/utl_commandline.h"

#include <gtest/gtest.h>

namespace NS_UTL {
namespace {

using Words = std::vector<std::string>;

TEST(CommandLine, SplitsIntoWords) {
    const std::pair<const char*, Words> cases[] = {
        {"", {}},
        {"     ", {}},
        {"service-install", {"service-install"}},
        {"  a   b  ", {"a", "b"}},
        {"a\tb\nc", {"a\tb\nc"}},
        {"a\\ b\\\"c", {"a\\", "b\\\"c"}},
        {"\xC3\xA9 \xE6\xB8\xAC", {"\xC3\xA9", "\xE6\xB8\xAC"}},
        // quoted
        {"\"a b\" c", {"a b", "c"}},
        {"\" a  b \"", {" a  b "}},
        {"\"a b\"c", {"a b", "c"}},
        {"\"a\"\"b c\"", {"a", "b c"}},
        {"x \"a b\"", {"x", "a b"}},
        // a quote inside a word
        {"a\"b c\" d", {"a\"b", "c\"", "d"}},
        {"--x=\"a b\"", {"--x=\"a", "b\""}},
        // empty words
        {"\"\"", {}},
        {"a \"\" \"\" b", {"a", "b"}},
        {"\"\"\"\"", {}},
        // a quote that is never closed
        {"\"", {}},
        {"\"a b  c", {"a b  c"}},
        {"\"a\" \"", {"a"}},
    };
    for (const auto& [text, words] : cases) EXPECT_EQ(splitCommandLine(text), words) << text;
}

TEST(CommandLine, LosesTheProgramOnly) {
    const std::pair<const char*, const char*> cases[] = {
        {"", ""},
        {"p", ""},
        {"p ", ""},
        {"p a  b ", "a  b "},
        {"p\t \ta", "a"},
        {"C:\\a\\p.exe \"a b\"", "\"a b\""},
        {"\"C:\\a b\\p.exe\"  a", "a"},
        {"\"C:\\a b\\p.exe\"x y", "y"},
        {"C:\\\"a b\"\\p.exe a", "a"},
        {"\"never closed a", ""},
        // Without a name in front, all is arguments.
        {"  a b", "a b"},
        {"Z:\\\xD0\x96\xC3\xA9\xE6\xB8\xAC\\p.exe service-install \xC3\xA9", "service-install \xC3\xA9"},
        {"\"Z:\\\xD0\x96 \xC3\xA9\\p.exe\" \xC3\xA9\xD0\x96 b", "\xC3\xA9\xD0\x96 b"},
    };
    for (const auto& [line, rest] : cases) EXPECT_EQ(withoutProgram(line), rest) << line;
}

} // namespace
} // namespace NS_UTL

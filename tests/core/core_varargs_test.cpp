#include "core/core_varargs.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

#include "core/core_assert.h"
#include "tests/support/hook_recorder.h"

using NS_CORE::formatInto;
using NS_CORE::formatString;
using test::FailedCheck;
using test::HookRecorder;

namespace {

// What the hook sees when the formatter reports `message` at `line`.
FailedCheck reported(int32_t line, const std::string& message) {
    return {"CHECKF", "core_varargs", line, 0, message};
}

TEST(Varargs, CopiesTextAndPercentSigns) {
    HookRecorder hook;
    EXPECT_EQ(formatString(""), "");
    EXPECT_EQ(formatString("plain"), "plain");
    EXPECT_EQ(formatString("%d%%", 5), "5%");
    EXPECT_EQ(formatString("100%"), "100%");
    EXPECT_EQ(formatString("%%"), "%");
    EXPECT_EQ(formatString("%%%%d"), "%%d");
    EXPECT_EQ(formatString("%%%"), "%%");
    EXPECT_EQ(formatString("%d%", 5), "5%");
    EXPECT_TRUE(hook.failures().empty());
}

TEST(Varargs, PadsAndLimitsText) {
    HookRecorder hook;
    EXPECT_EQ(formatString("%5s", "ab"), "   ab");
    EXPECT_EQ(formatString("%-5s|", "ab"), "ab   |");
    EXPECT_EQ(formatString("%.0s", "abc"), "abc");
    EXPECT_EQ(formatString("%.2s", "abc"), "ab");
    EXPECT_EQ(formatString("%s", static_cast<const char*>(nullptr)), "(null)");
    EXPECT_TRUE(hook.failures().empty());
}

TEST(Varargs, WritesSignedIntegers) {
    HookRecorder hook;
    EXPECT_EQ(formatString("%+ d", 5), " 5");
    EXPECT_EQ(formatString("%+d", -5), "-5");
    EXPECT_EQ(formatString("%05d", -42), "-0042");
    EXPECT_EQ(formatString("%.3d", 7), "007");
    EXPECT_EQ(formatString("%8.3d", 5), "005");
    EXPECT_EQ(formatString("%#x", 255), "ff");
    EXPECT_EQ(formatString("%X", 255), "FF");
    EXPECT_TRUE(hook.failures().empty());
}

TEST(Varargs, WritesMissingArgumentAsZeroAndReportsTheCount) {
    HookRecorder hook;
    EXPECT_EQ(formatString("%d %d", 5), "5 0");
    EXPECT_EQ(hook.failures(),
              (std::vector{reported(15, "core_varargs:540: ch=d format='%d %d'"),
                           reported(522, "format='%d %d' args_in_format_string=2 args_in_parameter_pack=1")}));
}

} // namespace

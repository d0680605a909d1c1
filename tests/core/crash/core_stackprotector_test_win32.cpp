#include <windows.h>

#include <cstdint>
#include <set>
#include <string>

#include <gtest/gtest.h>

#include "core/crash/internal/core_stackprotector_win32.h"
#include "tests/support/child.h"

namespace {

// Writes `count` bytes to a buffer of 16, whatever the compiler thinks of it.
[[gnu::noinline]] int fill(size_t count) {
    char buffer[16] = {};
    char* volatile end = buffer;
    for (size_t i = 0; i < count; ++i) {
        *end = 'x';
        end = end + 1;
    }
    return buffer[0];
}

const test::ChildProgram g_fills("fills", [](const auto& arguments) {
    fill(std::stoul(arguments.at(0)));
    return 0;
});
const test::ChildProgram g_tellsGuard("guard",
                                      [](const auto& /*arguments*/) { return static_cast<int>(__stack_chk_guard); });

TEST(StackProtector, LeavesAFunctionAloneThatStaysInItsBuffer) {
    EXPECT_EQ(test::runAndWait(test::childCommandLine("fills", {"16"})), 0);
}

TEST(StackProtector, EndsTheProcessBeforeAnOverwrittenFrameReturns) {
    EXPECT_EQ(static_cast<DWORD>(test::runAndWait(test::childCommandLine("fills", {"24"}))),
              static_cast<DWORD>(STATUS_STACK_BUFFER_OVERRUN));
}

TEST(StackProtector, HasAnotherValueInEachProcessThatNoTextContains) {
    std::set<uint32_t> values;
    for (int i = 0; i < 4; ++i) {
        values.insert(static_cast<uint32_t>(test::runAndWait(test::childCommandLine("guard"))));
    }
    EXPECT_EQ(values.size(), 4U);
    for (const uint32_t value : values) {
        EXPECT_EQ(value & 0xFFU, 0U);
        EXPECT_NE(value, 0U);
    }
}

} // namespace

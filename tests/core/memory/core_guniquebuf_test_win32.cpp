#include <gtest/gtest.h>

#include <limits>
#include <new>

#include "core/memory/core_guniquebuf.h"
#include "tests/support/hook_recorder.h"

namespace {

using NS_CORE::GUniqueBuf;

// A 32-bit process has no 2 GiB in one piece, so here the runtime's own malloc and realloc fail.
constexpr int32_t kTooMuch = std::numeric_limits<int32_t>::max();

TEST(GUniqueBuf, AFailedMallocIsALackOfMemory) {
    const test::HookRecorder hook;
    EXPECT_THROW(GUniqueBuf(kTooMuch, 0, 0), std::bad_alloc);
    EXPECT_EQ(hook.single().file, "core_guniquebuf_inline");
    EXPECT_EQ(hook.single().message, "failed mallocing2147483647 bytes");
}

TEST(GUniqueBuf, AFailedReallocIsALackOfMemoryAndChangesNothing) {
    const test::HookRecorder hook;
    GUniqueBuf buffer(10, 0, 0);
    *buffer.dataAt(9) = 'z';
    EXPECT_THROW(buffer.reserve(0, kTooMuch), std::bad_alloc);
    EXPECT_EQ(hook.single(), (test::FailedCheck{"CHECKF", "core_guniquebuf", 402, 0, "2147483657"}));
    EXPECT_EQ(buffer.size(), 10);
    EXPECT_EQ(*buffer.dataAt(9), 'z');
}

} // namespace

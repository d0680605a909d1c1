#include <gtest/gtest.h>
#include <sys/resource.h>

#include <limits>
#include <new>

#include "core/memory/core_guniquebuf.h"
#include "tests/support/hook_recorder.h"

// The sanitizers' own memory does not fit any limit, and their malloc ends the process instead of failing.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)

namespace {

using NS_CORE::GUniqueBuf;

constexpr int32_t kTooMuch = std::numeric_limits<int32_t>::max();

// Leaves the process, which is this test's own, no address space for `kTooMuch` bytes.
void limitMemory() {
    const rlimit limit{1U << 30, 1U << 30};
    ASSERT_EQ(::setrlimit(RLIMIT_AS, &limit), 0);
}

TEST(GUniqueBuf, AFailedMallocIsALackOfMemory) {
    const test::HookRecorder hook;
    limitMemory();
    EXPECT_THROW(GUniqueBuf(kTooMuch, 0, 0), std::bad_alloc);
    EXPECT_EQ(hook.single().file, "core_guniquebuf_inline");
    EXPECT_EQ(hook.single().message, "failed mallocing2147483647 bytes");
}

TEST(GUniqueBuf, AFailedReallocIsALackOfMemoryAndChangesNothing) {
    const test::HookRecorder hook;
    limitMemory();
    GUniqueBuf buffer(10, 0, 0);
    *buffer.dataAt(9) = 'z';
    EXPECT_THROW(buffer.reserve(0, kTooMuch), std::bad_alloc);
    EXPECT_EQ(hook.single(), (test::FailedCheck{"CHECKF", "core_guniquebuf", 402, 0, "2147483657"}));
    EXPECT_EQ(buffer.size(), 10);
    EXPECT_EQ(*buffer.dataAt(9), 'z');
}

} // namespace

#endif

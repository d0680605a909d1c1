#include "core/stack/core_symbollock.h"

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>

#include "core/stack/core_stacktrace.h"
#include "tests/support/semaphore.h"

namespace {

using NS_CORE::StackTrace;
using NS_CORE::SymbolLock;

bool canOtherThreadLock() {
    bool isHeld = false;
    std::thread([&isHeld] { isHeld = SymbolLock(/*timeoutMs=*/10).isHeld(); }).join();
    return isHeld;
}

TEST(SymbolLock, IsHeldByOneThreadAtATime) {
    {
        const SymbolLock lock(0);
        EXPECT_TRUE(lock.isHeld());
        EXPECT_FALSE(canOtherThreadLock());
    }
    EXPECT_TRUE(canOtherThreadLock());
    // Who may wait long gets it as soon as it is released. (The fraction makes the end of the wait carry a second.)
    SymbolLock released(0);
    test::Semaphore done;
    const std::jthread other([&done] {
        EXPECT_TRUE(SymbolLock(/*timeoutMs=*/60'999).isHeld());
        done.release();
    });
    EXPECT_FALSE(done.acquireWithin(std::chrono::milliseconds(100)));
    released.release();
    EXPECT_FALSE(released.isHeld());
}

TEST(SymbolLock, IsRecursive) {
    const SymbolLock lock(0);
    {
        const SymbolLock again(0);
        EXPECT_TRUE(again.isHeld());
    }
    EXPECT_FALSE(canOtherThreadLock());
}

TEST(SymbolLock, IsHeldByAStackTraceAsLongAsItLives) {
    {
        const StackTrace trace;
        EXPECT_FALSE(canOtherThreadLock());
    }
    EXPECT_TRUE(canOtherThreadLock());
    // One without symbols does not hold it.
    const StackTrace none(reinterpret_cast<StackTrace::ProcessHandle>(uintptr_t{0xdead0}));
    EXPECT_TRUE(canOtherThreadLock());
}

TEST(SymbolLock, IsNotWaitedForWithoutLimitByAStackTrace) {
    test::Semaphore held;
    test::Semaphore release;
    std::thread other([&] {
        const SymbolLock lock(0);
        held.release();
        release.acquire();
    });
    held.acquire();
    EXPECT_EQ(SymbolLock::kTraceTimeoutMs, 5000U);
    EXPECT_EQ(StackTrace().toText(), "Failed to get stack");
    release.release();
    other.join();
    EXPECT_TRUE(StackTrace().toText().starts_with("#01 in "));
}

} // namespace

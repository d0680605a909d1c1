#include "core/stack/core_symbollock.h"

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>

#include "core/stack/core_stacktrace.h"
#include "tests/support/semaphore.h"

namespace {

using NS_CORE::StackTrace;
using NS_CORE::SymbolTurn;

bool canOtherThreadTake() {
    bool isTaken = false;
    std::thread([&isTaken] {
        isTaken = SymbolTurn::take(/*patienceMs=*/10);
        if (isTaken) SymbolTurn::giveBack();
    }).join();
    return isTaken;
}

TEST(SymbolTurn, IsOneThreadsAtATime) {
    {
        const SymbolTurn turn(0);
        EXPECT_FALSE(canOtherThreadTake());
    }
    EXPECT_TRUE(canOtherThreadTake());
}

TEST(SymbolTurn, CanBeTakenAgainByTheThreadThatHasIt) {
    const SymbolTurn turn(0);
    {
        const SymbolTurn again(0);
        EXPECT_FALSE(canOtherThreadTake());
    }
    EXPECT_FALSE(canOtherThreadTake());
}

TEST(SymbolTurn, IsHadByAStackTraceAsLongAsItLives) {
    {
        const StackTrace trace;
        EXPECT_FALSE(canOtherThreadTake());
    }
    EXPECT_TRUE(canOtherThreadTake());
    // One that could not be prepared has none.
    const StackTrace none(reinterpret_cast<StackTrace::ProcessHandle>(uintptr_t{0xdead0}));
    EXPECT_TRUE(canOtherThreadTake());
}

TEST(SymbolTurn, IsNotWaitedForWithoutLimitByAStackTrace) {
    test::Semaphore held;
    test::Semaphore release;
    std::thread other([&] {
        const SymbolTurn turn(0);
        held.release();
        release.acquire();
    });
    held.acquire();
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(StackTrace().toText(), "Failed to get stack");
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
    release.release();
    other.join();
    EXPECT_TRUE(StackTrace().toText().starts_with("#01 in "));
}

} // namespace

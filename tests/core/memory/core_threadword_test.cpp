#include "core/memory/core_threadword.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <thread>
#include <vector>

#include "core/memory/core_threadword_platform.h"

namespace {

using NS_CORE::ThreadWord;

// The process's free slots, taken while this lives.
struct FreeSlots {
    FreeSlots() {
        for (uint32_t slot = 0; slots.size() < 5000 && NS_CORE::threadword_platform::allocate(&slot);)
            slots.push_back(slot);
    }
    ~FreeSlots() {
        for (const uint32_t slot : slots) NS_CORE::threadword_platform::release(slot);
    }
    FreeSlots(const FreeSlots&) = delete;
    FreeSlots& operator=(const FreeSlots&) = delete;
    std::vector<uint32_t> slots;
};

constinit ThreadWord g_one;
constinit ThreadWord g_other;
constinit ThreadWord g_late;
constinit std::array<ThreadWord, 200> g_words;

TEST(ThreadWord, IsAnotherOneInEachThread) {
    EXPECT_EQ(g_one.get(), 0U);
    g_one.set(UINTPTR_MAX);
    std::thread([] {
        EXPECT_EQ(g_one.get(), 0U);
        g_one.set(7);
        EXPECT_EQ(g_one.get(), 7U);
    }).join();
    EXPECT_EQ(g_one.get(), UINTPTR_MAX);
    EXPECT_EQ(g_other.get(), 0U);
}

TEST(ThreadWord, TakesOneSlotWhenThreadsUseItFirstAtTheSameTime) {
    const size_t before = FreeSlots().slots.size();
    for (ThreadWord& word : g_words) {
        std::atomic<int> ready{0};
        const auto use = [&](uintptr_t value) {
            ++ready;
            while (ready < 2) continue;
            word.set(value);
            EXPECT_EQ(word.get(), value);
        };
        std::thread other(use, 1);
        use(2);
        other.join();
        EXPECT_EQ(word.get(), 2U);
    }
    EXPECT_EQ(FreeSlots().slots.size(), before - g_words.size());
}

TEST(ThreadWord, IsZeroWhileNoSlotIsFree) {
    {
        const FreeSlots taken;
        g_late.set(1);
        EXPECT_EQ(g_late.get(), 0U);
    }
    g_late.set(1);
    EXPECT_EQ(g_late.get(), 1U);
}

} // namespace

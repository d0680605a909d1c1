#include <gtest/gtest.h>
#include <pthread.h>

#include <array>
#include <atomic>
#include <thread>
#include <vector>

#include "core/memory/core_threadword.h"

namespace {

// The process's free slots, taken while this lives.
struct FreeSlots {
    FreeSlots() {
        for (pthread_key_t key; ::pthread_key_create(&key, nullptr) == 0;) keys.push_back(key);
    }
    ~FreeSlots() {
        for (const pthread_key_t key : keys) ::pthread_key_delete(key);
    }
    FreeSlots(const FreeSlots&) = delete;
    FreeSlots& operator=(const FreeSlots&) = delete;
    std::vector<pthread_key_t> keys;
};

constinit std::array<NS_CORE::ThreadWord, 200> g_words;

TEST(ThreadWord, TakesOneSlotWhenThreadsUseItFirstAtTheSameTime) {
    const size_t before = FreeSlots().keys.size();
    for (NS_CORE::ThreadWord& word : g_words) {
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
    EXPECT_EQ(FreeSlots().keys.size(), before - g_words.size());
}

constinit NS_CORE::ThreadWord g_late;

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

#include "core/memory/core_threadword.h"

#include <gtest/gtest.h>

#include <thread>

namespace {

constinit NS_CORE::ThreadWord g_one;
constinit NS_CORE::ThreadWord g_other;

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

} // namespace

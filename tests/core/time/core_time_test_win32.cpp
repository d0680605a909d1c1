#include <gtest/gtest.h>
#include <windows.h>

#include <chrono>

#include "core/time/core_time.h"
#include "tests/support/import_hook_win32.h"

namespace {

int g_sleeps = 0;

// Too early, as by a tick of the system's timer.
void WINAPI returnEarly(DWORD /*milliseconds*/) {
    ++g_sleeps;
}

TEST(SleepFor, SleepsAgainWhenTheSystemReturnsEarly) {
    const test::ImportHook hook("Sleep", &returnEarly);
    g_sleeps = 0;
    NS_CORE::sleepFor(0);
    EXPECT_EQ(g_sleeps, 0);
    for (const uint32_t milliseconds : {1U, 50U}) {
        const auto start = std::chrono::steady_clock::now();
        NS_CORE::sleepFor(milliseconds);
        EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(milliseconds));
    }
    EXPECT_GT(g_sleeps, 0);
}

} // namespace

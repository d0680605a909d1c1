#include <gtest/gtest.h>

#include <csignal>

#include "utl/utl_signal.h"

namespace NS_UTL {
namespace {

int g_calls = 0;

void count(int /*signum*/) {
    ++g_calls;
}

TEST(Win32SignalTest, AnswersOnceBecauseTheRuntimeResetsTheHandler) {
    const Signal signal(SIGTERM, &count);
    std::raise(SIGTERM);
    EXPECT_EQ(g_calls, 1);
    EXPECT_EQ(std::signal(SIGTERM, SIG_IGN), SIG_DFL);
}

} // namespace
} // namespace NS_UTL

#include "utl/utl_signal.h"

#include <gtest/gtest.h>

#include <csignal>
#include <string>
#include <vector>

#include "tests/support/log_recorder.h"

namespace NS_UTL {
namespace {

using Lines = std::vector<std::string>;

void ignore(int /*signum*/) {}

TEST(SignalTest, LogsANumberThatIsNoSignalAndNothingElse) {
    const test::LogRecorder log;
    for (const int signum : {9999, SIGINT, -1}) const Signal signal(signum, &ignore);
    EXPECT_EQ(log.lines(), (Lines{"WARN UTL::Signal::Signal - failed to install signal handler for 9999",
                                  "WARN UTL::Signal::Signal - failed to install signal handler for -1"}));
}

TEST(SignalTest, PutsThePreviousHandlerBackInReverseOrder) {
    ASSERT_EQ(std::signal(SIGTERM, &ignore), SIG_DFL);
    {
        const Signal outer(SIGTERM, &ignore);
        {
            const Signal inner(SIGTERM, &ignore);
        }
    }
    EXPECT_EQ(std::signal(SIGTERM, SIG_DFL), &ignore);
}

static_assert(!std::is_copy_constructible_v<Signal> && !std::is_copy_assignable_v<Signal>);

} // namespace
} // namespace NS_UTL

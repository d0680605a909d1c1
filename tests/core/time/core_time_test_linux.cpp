#include <gtest/gtest.h>

#include <chrono>
#include <fstream>
#include <vector>

#include "core/time/core_time.h"
#include "tests/support/child.h"
#include "tests/support/hook_recorder.h"
#include "tests/support/time_zone.h"

namespace {

double uptime() {
    double seconds = 0;
    std::ifstream("/proc/uptime") >> seconds;
    return seconds;
}

const test::ChildProgram g_tellsUptime("tell_uptime", [](const auto&) {
    const double before = uptime();
    const double now = static_cast<double>(NS_CORE::monotonicMilliseconds()) / 1000;
    // The file is cut to hundredths of a second.
    return before > 0 && now >= before && now <= uptime() + 0.011 ? 0 : 1;
});

TEST(MonotonicMilliseconds, IsTheTimeSinceTheMachineCameUp) {
    EXPECT_EQ(test::runAndWait(test::childCommandLine("tell_uptime")), 0);
    // As if the machine had slept for so many seconds.
    const std::string asleep = "unshare --time --boottime 1000 ";
    if (test::runAndWait(asleep + "true") != 0) GTEST_SKIP() << "no right to set a clock apart";
    EXPECT_EQ(test::runAndWait(asleep + test::childCommandLine("tell_uptime")), 0);
}

TEST(SleepFor, TakesTheTimeThatItIsGiven) {
    using std::chrono::steady_clock;
    const auto start = steady_clock::now();
    NS_CORE::sleepFor(20);
    EXPECT_GE(steady_clock::now() - start, std::chrono::milliseconds(20));
}

TEST(UtcTime, GoesBackTwelveHoursBefore1970) {
    const test::HookRecorder hook;
    std::tm fields{};
    EXPECT_TRUE(NS_CORE::utcTime(-43'200, &fields));
    EXPECT_EQ(fields.tm_year, 69);
    EXPECT_EQ(fields.tm_hour, 12);
    EXPECT_FALSE(NS_CORE::utcTime(-43'201, &fields));
    EXPECT_EQ(hook.single(), (test::FailedCheck{"CHECKF", "core_time", 457, 0, "-43201"}));
}

TEST(DateTimeFromSeconds, HasTheOffsetUpToBothEndsOfTheLocalSeconds) {
    test::setTimeZone("XXX5");
    for (const int32_t seconds : {-18'000, 2'147'465'647})
        EXPECT_EQ(NS_CORE::DateTime::fromSeconds(seconds).dto(), -10);
}

// West of Greenwich the last hours of the 32-bit seconds, in January 2038, have a local time, but its seconds do not
// fit.
TEST(DateTimeFromSeconds, TheLastHoursInTheWestAre1900WithoutAnOffset) {
    test::setTimeZone("XXX5:30");
    for (const auto& [seconds, shifted] : {std::pair(2'147'482'798, "4294963798"), {2'147'483'647, "4294966447"}}) {
        const test::HookRecorder hook;
        EXPECT_EQ(NS_CORE::DateTime::fromSeconds(seconds).dto(), NS_CORE::DateTime::UnknownDto);
        EXPECT_EQ(hook.failures(), (std::vector<test::FailedCheck>{{"CHECKF", "core_time", 1241, 0, shifted},
                                                                   {"i_dto == UnknownDto", "core_time", 1265, 1, ""}}));
    }
}

} // namespace

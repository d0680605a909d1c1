#include <gtest/gtest.h>

#include <fstream>
#include <vector>

#include "core/time/core_time.h"
#include "tests/support/hook_recorder.h"
#include "tests/support/time_zone.h"

namespace {

double uptime() {
    double seconds = 0;
    std::ifstream("/proc/uptime") >> seconds;
    return seconds;
}

TEST(MonotonicMilliseconds, IsTheTimeSinceTheMachineCameUp) {
    const double before = uptime();
    const double now = static_cast<double>(NS_CORE::monotonicMilliseconds()) / 1000;
    const double after = uptime();
    ASSERT_GT(before, 0);
    // The file is cut to hundredths of a second.
    EXPECT_GE(now, before);
    EXPECT_LE(now, after + 0.011);
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

// West of Greenwich the last hours before 2038 ends the seconds have a local time, but none that counts in 32 bits.
TEST(DateTimeFromSeconds, TheLastHoursInTheWestAre1900WithoutAnOffset) {
    const test::HookRecorder hook;
    test::setTimeZone("XXX5:30");
    EXPECT_EQ(NS_CORE::DateTime::fromSeconds(2'147'482'798).dto(), NS_CORE::DateTime::UnknownDto);
    EXPECT_EQ(hook.failures(), (std::vector<test::FailedCheck>{{"CHECKF", "core_time", 1241, 0, "4294963798"},
                                                               {"i_dto == UnknownDto", "core_time", 1265, 1, ""}}));
}

} // namespace

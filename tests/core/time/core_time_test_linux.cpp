#include <gtest/gtest.h>

#include <fstream>
#include <string>

#include "core/time/core_time.h"
#include "tests/support/hook_recorder.h"
#include "tests/support/time_zone.h"

namespace {

std::string localText(int32_t seconds) {
    const std::tm fields = NS_CORE::localTimeOf(seconds);
    char buffer[64];
    std::strftime(buffer, sizeof buffer, "%Y-%m-%d %H:%M:%S %Z", &fields);
    return buffer;
}

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

// The other platform's runtime has no rules for a zone's changes but its own, so these are tried here alone.
TEST(LocalTime, FollowsTheChangesOfSummerTime) {
    test::setTimeZone("CET-1CEST,M3.5.0,M10.5.0/3");
    EXPECT_EQ(localText(1'553'993'999), "2019-03-31 01:59:59 CET");
    EXPECT_EQ(localText(1'553'994'000), "2019-03-31 03:00:00 CEST");
    EXPECT_EQ(localText(1'572'137'999), "2019-10-27 02:59:59 CEST");
    EXPECT_EQ(localText(1'572'138'000), "2019-10-27 02:00:00 CET");
}

TEST(LocalTime, FollowsNamedZones) {
    test::setTimeZone("Asia/Kolkata");
    EXPECT_EQ(localText(1'709'622'489), "2024-03-05 12:38:09 IST");
    EXPECT_EQ(NS_CORE::DateTime::fromSeconds(1'709'622'489).dto(), 11);
    test::setTimeZone("America/St_Johns");
    EXPECT_EQ(localText(1'563'192'000), "2019-07-15 09:30:00 NDT");
    EXPECT_EQ(NS_CORE::DateTime::fromSeconds(1'563'192'000).dto(), -7);
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

// West of Greenwich the last hours before 2038 ends the seconds have a local time, but none that counts in 32 bits.
TEST(DateTimeFromSeconds, TheLastSecondInTheWestIs1900WithoutAnOffset) {
    const test::HookRecorder hook;
    test::setTimeZone("XXX5:30");
    EXPECT_EQ(NS_CORE::DateTime::fromSeconds(2'147'483'647).dto(), NS_CORE::DateTime::UnknownDto);
    EXPECT_EQ(hook.failures(), (std::vector<test::FailedCheck>{{"CHECKF", "core_time", 1241, 0, "4294966447"},
                                                               {"i_dto == UnknownDto", "core_time", 1265, 1, ""}}));
}

} // namespace

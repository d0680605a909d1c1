#include "core/time/core_time.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <limits>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "core/check/core_assert.h"
#include "core/time/core_time_platform.h"
#include "tests/support/hook_recorder.h"
#include "tests/support/time_zone.h"

namespace NS_CORE {

void PrintTo(const Timespec& time, std::ostream* out) {
    *out << time.seconds << " s " << time.nanoseconds << " ns";
}

} // namespace NS_CORE

namespace {

using NS_CORE::DateTime;
using NS_CORE::Timespec;
using test::FailedCheck;

constexpr int32_t kLastSecond = std::numeric_limits<int32_t>::max();
constexpr int32_t kMarch2024 = 1'709'622'489;   // 2024-03-05 07:08:09 UTC
constexpr int32_t kJanuary2019 = 1'547'553'600; // 2019-01-15 12:00:00 UTC
constexpr int32_t kJuly2019 = 1'563'192'000;    // 2019-07-15 12:00:00 UTC
constexpr int32_t kDayBefore1970 = -86'400;     // refused by the runtime library of either platform

std::tm calendar(int year, int month, int day, int hour = 0, int minute = 0, int second = 0) {
    std::tm fields{};
    fields.tm_year = year - 1900;
    fields.tm_mon = month - 1;
    fields.tm_mday = day;
    fields.tm_hour = hour;
    fields.tm_min = minute;
    fields.tm_sec = second;
    return fields;
}

std::string text(const std::tm& fields) {
    char buffer[32];
    std::strftime(buffer, sizeof buffer, "%Y-%m-%d %H:%M:%S", &fields);
    return buffer;
}

std::string text(const DateTime& time) {
    return text(calendar(static_cast<int>(time.year()), static_cast<int>(time.month()), static_cast<int>(time.day()),
                         static_cast<int>(time.hour()), static_cast<int>(time.minute()),
                         static_cast<int>(time.second())));
}

std::vector<uint8_t> bytes(const DateTime& time) {
    std::vector<uint8_t> result(sizeof time);
    std::memcpy(result.data(), &time, sizeof time);
    return result;
}

// 1900-01-01 00:00:00, in every field of the C standard.
void expectNoTime(const std::tm& fields) {
    EXPECT_EQ(text(fields), "1900-01-01 00:00:00");
    EXPECT_EQ(std::tuple(fields.tm_wday, fields.tm_yday, fields.tm_isdst), std::tuple(0, 0, 0));
}

// Fields that no conversion leaves as they are.
std::tm garbage() {
    std::tm fields;
    std::memset(&fields, 0x55, sizeof fields);
    return fields;
}

// Most tests expect no failed check; the others say which they expect.
class Time : public testing::Test {
protected:
    void TearDown() override { EXPECT_EQ(m_hook.failures(), m_expected); }

    test::HookRecorder m_hook;
    std::vector<FailedCheck> m_expected;
};

FailedCheck refused(int32_t line, const std::string& seconds) {
    return {"CHECKF", "core_time", line, 0, seconds};
}

// Clocks.

TEST(MonotonicMilliseconds, CountsMillisecondsAndNeverBack) {
    using std::chrono::steady_clock;
    const auto begin = steady_clock::now();
    const uint64_t first = NS_CORE::monotonicMilliseconds();
    uint64_t last = first;
    while (last < first + 100) {
        const uint64_t now = NS_CORE::monotonicMilliseconds();
        ASSERT_GE(now, last);
        last = now;
    }
    // One tick of 16 ms may have been due when it began.
    EXPECT_GE(steady_clock::now() - begin, std::chrono::milliseconds(80));
}

TEST(SystemNow, IsTheSystemsClockAndMovesInNanoseconds) {
    using std::chrono::system_clock;
    const auto seconds = [] {
        return std::chrono::duration_cast<std::chrono::seconds>(system_clock::now().time_since_epoch());
    };
    const int64_t before = seconds().count();
    const Timespec now = NS_CORE::systemNow();
    const int64_t after = seconds().count();
    // Windows' coarse and fine clocks may be a tick apart.
    ASSERT_GE(now.seconds, before - 1);
    EXPECT_LE(now.seconds, after);
    EXPECT_GE(now.nanoseconds, 0);
    EXPECT_LT(now.nanoseconds, 1'000'000'000);
    Timespec next = now;
    while (next == now) next = NS_CORE::systemNow();
    EXPECT_NE(next.nanoseconds, now.nanoseconds);
}

TEST(FileTime, CountsFrom1601In100Nanoseconds) {
    EXPECT_EQ(NS_CORE::timespecOfFileTime(116'444'736'000'000'000), (Timespec{0, 0}));
    EXPECT_EQ(NS_CORE::timespecOfFileTime(116'444'736'000'000'001), (Timespec{0, 100}));
    EXPECT_EQ(NS_CORE::timespecOfFileTime(132'187'313'971'234'567), (Timespec{1'574'257'797, 123'456'700}));
    EXPECT_EQ(NS_CORE::timespecOfFileTime(116'444'735'999'999'999), (Timespec{-1, 999'999'900}));
}

// Broken-down times.

TEST_F(Time, UtcTimeIsTheSameInEveryZone) {
    test::setTimeZone("XXX5:30");
    for (const auto& [seconds, expected] :
         {std::pair(0, "1970-01-01 00:00:00"), std::pair(951'782'400, "2000-02-29 00:00:00"),
          std::pair(kMarch2024, "2024-03-05 07:08:09"), std::pair(kLastSecond, "2038-01-19 03:14:07")}) {
        std::tm fields = garbage();
        EXPECT_TRUE(NS_CORE::utcTime(seconds, &fields));
        EXPECT_EQ(text(fields), expected);
        EXPECT_EQ(fields.tm_isdst, 0);
    }
}

TEST_F(Time, LocalTimeFollowsTheZoneAndItsSummerTime) {
    for (const auto& [zone, seconds, expected] :
         {std::tuple("UTC0", 0, "1970-01-01 00:00:00"), std::tuple("UTC0", kMarch2024, "2024-03-05 07:08:09"),
          std::tuple("CET-1", kMarch2024, "2024-03-05 08:08:09"),
          std::tuple("XXX5:30", kMarch2024, "2024-03-05 01:38:09"),
          std::tuple("IST-5:30", kMarch2024, "2024-03-05 12:38:09"),
          std::tuple("CET-1CEST", kJanuary2019, "2019-01-15 13:00:00"),
          std::tuple("CET-1CEST", kJuly2019, "2019-07-15 14:00:00")}) {
        test::setTimeZone(zone);
        std::tm fields = garbage();
        EXPECT_TRUE(NS_CORE::localTime(seconds, &fields));
        EXPECT_EQ(text(fields), expected) << zone;
        EXPECT_EQ(text(NS_CORE::localTimeOf(seconds)), expected) << zone;
    }
    test::setTimeZone("UTC0");
    EXPECT_EQ(NS_CORE::localTimeOf(kMarch2024).tm_wday, 2);
}

TEST_F(Time, AConversionThatIsRefusedFailsACheckAndGives1900) {
    std::tm fields = garbage();
    EXPECT_FALSE(NS_CORE::utcTime(kDayBefore1970, &fields));
    expectNoTime(fields);
    for (const int32_t seconds : {-1, std::numeric_limits<int32_t>::min()}) {
        fields = garbage();
        EXPECT_FALSE(NS_CORE::localTime(seconds, &fields));
        expectNoTime(fields);
    }
    expectNoTime(NS_CORE::localTimeOf(-1));
    m_expected = {refused(457, "-86400"), refused(482, "-1"), refused(482, "-2147483648"), refused(571, "-1")};
}

// DateTime.

TEST(DateTimeLayout, TheBytesAreThoseThatOthersRead) {
    test::setTimeZone("CET-1");
    // 2019-11-20 14:49:57.123 at UTC+1
    EXPECT_EQ(bytes(DateTime(Timespec{1'574'257'797, 123'456'789})),
              (std::vector<uint8_t>{0xE3, 0x07, 0x4B, 0x5D, 0x9C, 0x0B, 0x7B, 0x00}));
    EXPECT_EQ(bytes(DateTime(calendar(2016, 2, 29, 23, 59, 60), -11)),
              (std::vector<uint8_t>{0xE0, 0x07, 0xD2, 0xEF, 0xCE, 0xD7, 0x00, 0x00}));
    EXPECT_EQ(bytes(DateTime(calendar(65535, 12, 31), DateTime::UnknownDto)),
              (std::vector<uint8_t>{0xFF, 0xFF, 0xFC, 0x01, 0x00, 0x64, 0x00, 0x00}));
    // What does not fit in its field is cut, and leaves the next one alone.
    EXPECT_EQ(bytes(DateTime(calendar(2016, 16, 32, 32, 64, 64), 0)),
              (std::vector<uint8_t>{0xE0, 0x07, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00}));
}

TEST(DateTimeLayout, TheFieldsComeBackAsTheyWentIn) {
    const DateTime time(calendar(2016, 12, 31, 23, 59, 60), -24);
    EXPECT_EQ(text(time), "2016-12-31 23:59:60");
    EXPECT_EQ(time.milliseconds(), 0U);
    EXPECT_EQ(time.dto(), -24);
    EXPECT_TRUE(time.isDtoSet());
}

TEST_F(Time, DateTimeFromSecondsCarriesTheZonesOffset) {
    for (const auto& [zone, dto, expected] :
         {std::tuple("UTC0", 0, "2024-03-05 07:08:09"), std::tuple("CET-1", 2, "2024-03-05 08:08:09"),
          std::tuple("XXX5:30", -11, "2024-03-05 01:38:09"), std::tuple("IST-5:30", 11, "2024-03-05 12:38:09"),
          std::tuple("XXX12", -24, "2024-03-04 19:08:09"), std::tuple("XXX-12", 24, "2024-03-05 19:08:09"),
          // Between the half hours it is cut towards zero.
          std::tuple("XXX-5:45", 11, "2024-03-05 12:38:09"), std::tuple("XXX3:45", -7, "2024-03-05 03:38:09")}) {
        test::setTimeZone(zone);
        const DateTime time = DateTime::fromSeconds(kMarch2024);
        EXPECT_EQ(time.dto(), dto) << zone;
        EXPECT_EQ(text(time), expected) << zone;
        EXPECT_EQ(time.milliseconds(), 0U);
        EXPECT_EQ(time.toTimespec().time, (Timespec{kMarch2024, 0})) << zone;
        EXPECT_EQ(time.toTimespec().dto, dto) << zone;
    }
}

TEST_F(Time, DateTimeKeepsTheZonesStandardOffsetThroughAYearWithSummerTime) {
    test::setTimeZone("CET-1CEST");
    EXPECT_EQ(text(DateTime::fromSeconds(kJuly2019)), "2019-07-15 13:00:00");
    constexpr int32_t kNewYear2019 = 1'546'300'800;
    for (int32_t seconds = kNewYear2019; seconds < kNewYear2019 + 365 * 86'400; seconds += 1800) {
        const DateTime time = DateTime::fromSeconds(seconds);
        ASSERT_EQ(time.dto(), 2) << seconds;
        ASSERT_EQ(time.toTimespec().time, (Timespec{seconds, 0}));
    }
}

TEST_F(Time, DateTimeFromSecondsThatAreRefusedIs1900) {
    test::setTimeZone("UTC0");
    const DateTime early = DateTime::fromSeconds(kDayBefore1970);
    EXPECT_EQ(text(early), "1900-01-01 00:00:00");
    EXPECT_EQ(early.dto(), DateTime::UnknownDto);
    // A local time behind the last second keeps its offset.
    test::setTimeZone("CET-1");
    const DateTime late = DateTime::fromSeconds(kLastSecond);
    EXPECT_EQ(text(late), "1900-01-01 00:00:00");
    EXPECT_EQ(late.dto(), 2);
    // 1900 has no seconds either (-1), so the offset of the early one comes out as -47 half hours.
    m_expected = {refused(559, "-86400"),
                  refused(1241, "-171000"),
                  {"i_dto == UnknownDto", "core_time", 1265, 1, ""},
                  refused(1241, "2147487247")};
}

TEST_F(Time, DateTimeFromTimespecCutsNanosecondsToMilliseconds) {
    test::setTimeZone("UTC0");
    for (const auto& [nanoseconds, milliseconds] :
         {std::pair(999'999'999, 999U), std::pair(999'999, 0U), std::pair(123'456'789, 123U)}) {
        const DateTime time(Timespec{kMarch2024, nanoseconds});
        EXPECT_EQ(time.milliseconds(), milliseconds);
        EXPECT_EQ(text(time), "2024-03-05 07:08:09");
        EXPECT_EQ(time.toTimespec().time, (Timespec{kMarch2024, static_cast<int32_t>(milliseconds) * 1'000'000}));
    }
    // Out of range they leave a defined value: 2147 ms, and -1500 ms in 16 bits, which are 64036.
    EXPECT_EQ(DateTime(Timespec{kMarch2024, kLastSecond}).toTimespec().time, (Timespec{kMarch2024 + 2, 147'000'000}));
    EXPECT_EQ(DateTime(Timespec{kMarch2024, -1'500'000'000}).toTimespec().time,
              (Timespec{kMarch2024 + 64, 36'000'000}));
}

TEST_F(Time, DateTimeNowIsTheSystemsClock) {
    test::setTimeZone("XXX5:30");
    const Timespec before = NS_CORE::systemNow();
    const DateTime now = DateTime::now();
    const Timespec after = NS_CORE::systemNow();
    EXPECT_EQ(now.dto(), -11);
    const Timespec moment = now.toTimespec().time;
    EXPECT_GE(std::pair(moment.seconds, moment.nanoseconds),
              std::pair(before.seconds, before.nanoseconds / 1'000'000 * 1'000'000));
    EXPECT_LE(std::pair(moment.seconds, moment.nanoseconds), std::pair(after.seconds, after.nanoseconds));
}

TEST_F(Time, SetDtoKeepsKnownOffsetsAndFailsTheAssertionForOthersWhichBecomeTheUnknownOne) {
    DateTime time(calendar(2019, 11, 20, 14, 49, 57), 0);
    for (int32_t dto = -24; dto <= 25; ++dto) {
        time.setDto(dto);
        EXPECT_EQ(time.dto(), dto);
        EXPECT_EQ(time.isDtoSet(), dto != 25);
    }
    for (const int32_t dto : {30, 26, -25, 31, 32, 64, kLastSecond, std::numeric_limits<int32_t>::min()}) {
        time.setDto(2);
        time.setDto(dto);
        EXPECT_EQ(time.dto(), 25);
        m_expected.push_back({"i_dto == UnknownDto", "core_time", 1265, 1, ""});
    }
    EXPECT_EQ(text(time), "2019-11-20 14:49:57");
    // No assertions at level 0.
    NS_CORE::Assert::setLevel(0);
    EXPECT_EQ(DateTime(calendar(2019, 11, 20), 30).toTimespec().dto, 25);
    NS_CORE::Assert::setLevel(1);
}

TEST_F(Time, ToTimespecCountsEveryDayOfTheCalendar) {
    constexpr int kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    int32_t seconds = 0;
    for (int year = 1970; year < 2038; ++year) {
        const bool leap = year % 4 == 0; // holds from 1901 to 2099
        for (int month = 1; month <= 12; ++month) {
            for (int day = 1; day <= kDays[month - 1] + (leap && month == 2 ? 1 : 0); ++day, seconds += 86'400) {
                ASSERT_EQ(DateTime(calendar(year, month, day, 23, 59, 59), 0).toTimespec().time,
                          (Timespec{seconds + 86'399, 0}));
                ASSERT_EQ(DateTime(calendar(year, month, day), 3).toTimespec().time, (Timespec{seconds - 5400, 0}));
            }
        }
    }
}

TEST_F(Time, ToTimespecCountsBefore1970AndLeapSeconds) {
    EXPECT_EQ(DateTime(calendar(1969, 12, 31, 23, 59, 59), 0).toTimespec().time, (Timespec{-1, 0}));
    EXPECT_EQ(DateTime(calendar(1901, 12, 13, 20, 45, 52), 0).toTimespec().time,
              (Timespec{std::numeric_limits<int32_t>::min(), 0}));
    EXPECT_EQ(DateTime(calendar(2016, 12, 31, 23, 59, 60), 0).toTimespec().time,
              DateTime(calendar(2017, 1, 1), 0).toTimespec().time);
}

TEST_F(Time, ToTimespecWithoutAnOffsetFailsTheAssertionAndTakesTheUnknownOneAsItStands) {
    const DateTime::Moment moment = DateTime(calendar(1970, 1, 2), DateTime::UnknownDto).toTimespec();
    EXPECT_EQ(moment.time, (Timespec{86'400 - 25 * 1800, 0}));
    EXPECT_EQ(moment.dto, DateTime::UnknownDto);
    m_expected = {{"isDtoSet()", "core_time", 1837, 1, ""}};
}

TEST(TimeDeathTest, FailedChecksEndTheProcessWhereTheHookSaysStop) {
    const DateTime unknown(calendar(1970, 1, 2), DateTime::UnknownDto);
    test::HookRecorder hook;
    hook.answerStop(true);
    EXPECT_DEATH(NS_CORE::localTimeOf(-1), "");
    EXPECT_DEATH(DateTime(calendar(2019, 11, 20), 30), "");
    EXPECT_DEATH(unknown.toTimespec(), "");
}

// Differences.

TEST_F(Time, DifferenceBorrowsASecondForTheNanoseconds) {
    test::setTimeZone("UTC0");
    struct Row {
        Timespec end, begin, difference;
    };
    for (const Row& row : {Row{{36000, 100'000'000}, {35999, 900'000'000}, {0, 200'000'000}},
                           Row{{35999, 900'000'000}, {36000, 100'000'000}, {-1, 800'000'000}},
                           Row{{36000, 0}, {36000, 1'000'000}, {-1, 999'000'000}},
                           Row{{36000, 999'000'000}, {32400, 0}, {3600, 999'000'000}},
                           Row{{36000, 5'000'000}, {36000, 5'000'000}, {0, 0}}})
        EXPECT_EQ(difference(DateTime(row.end), DateTime(row.begin)), row.difference);
}

TEST_F(Time, DifferenceCountsOffsetsUnlessOneIsUnknown) {
    const DateTime east(calendar(2019, 11, 20, 10), 2);
    const DateTime utc(calendar(2019, 11, 20, 10), 0);
    EXPECT_EQ(difference(east, utc), (Timespec{-3600, 0}));
    EXPECT_EQ(difference(utc, east), (Timespec{3600, 0}));
    const DateTime unknown(calendar(2019, 11, 20, 10, 0, 1), DateTime::UnknownDto);
    const DateTime west(calendar(2019, 11, 20, 10), -11);
    EXPECT_EQ(difference(unknown, west), (Timespec{1, 0}));
    EXPECT_EQ(difference(west, unknown), (Timespec{-1, 0}));
    EXPECT_EQ(difference(unknown, unknown), (Timespec{0, 0}));
}

// Durations.

TEST_F(Time, DurationTextCutsAndNeverRounds) {
    const std::pair<uint64_t, const char*> rows[] = {
        {0, "0ms"},           {250, "250ms"},          {999, "999ms"},
        {1000, "1.00s"},      {1009, "1.00s"},         {1999, "1.99s"},
        {9999, "9.99s"},      {10'000, "10.0s"},       {10'100, "10.1s"},
        {12'345, "12.3s"},    {59'999, "59.9s"},       {60'000, "1m, 00s"},
        {307'000, "5m, 07s"}, {3'599'999, "59m, 59s"}, {86'400'000, "1440m, 00s"}};
    for (const auto& [milliseconds, expected] : rows) EXPECT_EQ(NS_CORE::durationText(milliseconds), expected);
    EXPECT_EQ(NS_CORE::durationText(std::numeric_limits<uint64_t>::max()), "307445734561825m, 51s");
}

} // namespace

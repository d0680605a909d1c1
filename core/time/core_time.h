#pragma once

#include <cstdint>
#include <ctime>
#include <string>

namespace NS_CORE {

// Two clocks, the runtime library's conversions to broken-down time with their failures reported, and DateTime, a
// compact calendar value. Any thread may call; they share only the runtime library's time zone.
//
// Seconds count from 1970-01-01 00:00:00 UTC in 32 bits, which end in January 2038. Both platforms have the limits of
// Windows' runtime library: UTC conversions fail for times more than 12 hours before 1970, local ones for all times
// before 1970.

// Milliseconds since some moment in the past, for intervals and rate limits. Never goes back, continues while the
// machine sleeps, and advances in the platform's ticks (10 to 16 ms on Windows).
uint64_t monotonicMilliseconds();

// Returns when at least so many milliseconds are over.
void sleepFor(uint32_t milliseconds);

struct Timespec {
    int32_t seconds;
    int32_t nanoseconds; // 0 to 999,999,999

    bool operator==(const Timespec&) const = default;
};

// The system's clock. It can jump in either direction when somebody sets it.
Timespec systemNow();

// The broken-down time of `seconds`. If the conversion fails, a check fails with the seconds as its message, *out is
// 1900-01-01 00:00:00, and the result is false.
bool utcTime(int32_t seconds, std::tm* out);
bool localTime(int32_t seconds, std::tm* out);

// Like localTime, for callers that accept 1900-01-01 00:00:00 on failure.
std::tm localTimeOf(int32_t seconds);

// A duration for people to read, truncated, never rounded: "250ms", "1.99s", "12.3s", "5m, 07s".
std::string durationText(uint64_t milliseconds);

// A calendar time with its own offset from UTC, its `dto`: -24 to 24 in units of 30 minutes, or UnknownDto. The
// calendar fields are local time at that offset. The object is eight bytes, little-endian, and can be stored as it is:
//
//     bytes 0-1  year, e.g. 2019
//     bytes 2-5  bits 0-3 month 1-12, 4-8 day 1-31, 9-13 hour, 14-19 minute, 20-25 second 0-60, 26-31 dto, signed
//     bytes 6-7  milliseconds 0-999
class DateTime {
public:
    // The name is part of a published assertion text: "i_dto == UnknownDto".
    static constexpr int32_t UnknownDto = 25;
    static constexpr int32_t kSecondsPerDto = 1800;

    // The current time at the local offset.
    static DateTime now();

    // `seconds` at the local offset, with milliseconds 0. The offset is that of the zone's standard time all year:
    // where clocks change to summer time, the calendar fields are an hour behind them in summer. If a conversion fails,
    // a check fails and the fields are 1900-01-01 00:00:00. Within a day of 1970 and of the last second the offset may
    // be wrong or unknown.
    static DateTime fromSeconds(int32_t seconds);

    // Like fromSeconds, with the milliseconds of `time`, truncated. Its nanoseconds must be 0 to 999,999,999: others
    // give milliseconds that are defined but wrong.
    explicit DateTime(Timespec time);

    // The given fields, which must be in range, with milliseconds 0; then setDto(dto).
    DateTime(const std::tm& fields, int32_t dto);

    uint32_t year() const { return m_year; }
    uint32_t month() const { return bits(kMonthShift, 4); }
    uint32_t day() const { return bits(kDayShift, 5); }
    uint32_t hour() const { return bits(kHourShift, 5); }
    uint32_t minute() const { return bits(kMinuteShift, 6); }
    uint32_t second() const { return bits(kSecondShift, 6); }
    uint32_t milliseconds() const { return m_milliseconds; }
    int32_t dto() const;
    bool isDtoSet() const;

    // Stores -24 to 24 as they are and anything else as UnknownDto. If it is not UnknownDto itself, the assertion
    // "i_dto == UnknownDto" fails first.
    void setDto(int32_t i_dto);

    // A time in UTC, and the offset of the DateTime that it comes from.
    struct Moment {
        Timespec time;
        int32_t dto;
    };

    // If the offset is unknown, the assertion "isDtoSet()" fails; if the process continues, the result is off by
    // UnknownDto times 30 minutes, so compare such values with difference(). Seconds beyond 32 bits wrap.
    Moment toTimespec() const;

    bool operator==(const DateTime&) const = default;

private:
    static constexpr uint32_t kMonthShift = 0;
    static constexpr uint32_t kDayShift = 4;
    static constexpr uint32_t kHourShift = 9;
    static constexpr uint32_t kMinuteShift = 14;
    static constexpr uint32_t kSecondShift = 20;
    static constexpr uint32_t kDtoShift = 26;

    uint32_t packed() const { return m_packedLow | static_cast<uint32_t>(m_packedHigh) << 16; }
    void setPacked(uint32_t packed);
    uint32_t bits(uint32_t shift, uint32_t count) const { return packed() >> shift & ((1U << count) - 1); }

    // In halves, because a whole word at byte 2 would need padding or unaligned access.
    uint16_t m_year;
    uint16_t m_packedLow = 0;
    uint16_t m_packedHigh = 0;
    uint16_t m_milliseconds = 0;
};

static_assert(sizeof(DateTime) == 8, "stored as it is");

// a - b. If either offset is unknown, subtracts the calendar fields as if both were UTC.
Timespec difference(DateTime a, DateTime b);

} // namespace NS_CORE

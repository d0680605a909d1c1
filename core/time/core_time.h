#pragma once

#include <cstdint>
#include <ctime>
#include <string>

namespace NS_CORE {

// Three clocks, the broken-down times of the runtime library with their failures reported, and DateTime, a compact
// calendar value. Any thread may call; all that is shared is the runtime library's time zone.
//
// Seconds count from 1970-01-01 00:00:00 UTC in 32 bits, which end in January 2038. On both platforms the runtime
// library's limits are Windows': no UTC time further than 12 hours before 1970 can be broken down, and no local time
// before 1970.

// Milliseconds since some moment in the past, for intervals and rate limits. Never goes back; counts on while the
// machine sleeps; moves in the platform's ticks (10 to 16 ms on Windows).
uint64_t monotonicMilliseconds();

struct Timespec {
    int32_t seconds;
    int32_t nanoseconds; // 0 to 999,999,999 in all that these functions produce

    bool operator==(const Timespec&) const = default;
};

// The system's clock, which may be set back and forth.
Timespec systemNow();

// The broken-down time of `seconds`. When the runtime library refuses, a check fails with the seconds as its message,
// *out is 1900-01-01 00:00:00 and the answer is false.
bool utcTime(int32_t seconds, std::tm* out);
bool localTime(int32_t seconds, std::tm* out);

// localTime for who can do with 1900-01-01 00:00:00, as a time stamp can.
std::tm localTimeOf(int32_t seconds);

// A text for a person, cut and never rounded: "250ms", "1.99s", "12.3s", "5m, 07s".
std::string durationText(uint64_t milliseconds);

// A calendar time that carries its own offset from UTC, its `dto`: in units of 30 minutes, -24 to 24, or UnknownDto.
// The calendar fields are the wall clock's at that offset. Eight bytes, little-endian, for storing as they are:
//
//     bytes 0-1  year, e.g. 2019
//     bytes 2-5  bits 0-3 month 1-12, 4-8 day 1-31, 9-13 hour, 14-19 minute, 20-25 second 0-60, 26-31 dto, signed
//     bytes 6-7  milliseconds 0-999
class DateTime {
public:
    // Written as in the published text of the check on it.
    static constexpr int32_t UnknownDto = 25;
    static constexpr int32_t kSecondsPerDto = 1800;

    // The system's clock, at the local offset.
    static DateTime now();

    // `seconds` at the local offset, with milliseconds 0. The offset is that of the zone's standard time all year:
    // in summer, where there is a summer time, the calendar fields run an hour behind the clock on the wall. Where
    // the runtime library refuses, a check fails and the fields are 1900-01-01 00:00:00.
    static DateTime fromSeconds(int32_t seconds);

    // The same with the milliseconds of `time`.
    explicit DateTime(Timespec time);

    // The fields as they are, which must be in range, with milliseconds 0, and setDto(dto).
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

    // Anything but -24 to 24 becomes UnknownDto; where it is not UnknownDto itself, the assertion
    // "i_dto == UnknownDto" fails first.
    void setDto(int32_t i_dto);

    // The moment in UTC, and the offset that it was told at.
    struct Moment {
        Timespec time;
        int32_t dto;
    };

    // Without a known offset the assertion "isDtoSet()" fails, and where the process goes on the offset counts as
    // UnknownDto times 30 minutes; compare such values by difference(). Beyond the 32 bits the seconds wrap.
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

    // The packed word in halves, so that it lies at byte 2 without padding and without unaligned access.
    uint16_t m_year;
    uint16_t m_packedLow = 0;
    uint16_t m_packedHigh = 0;
    uint16_t m_milliseconds = 0;
};

static_assert(sizeof(DateTime) == 8, "stored as it is");

// a - b. Where either offset is unknown, the two wall clocks are compared as if both told UTC.
Timespec difference(DateTime a, DateTime b);

} // namespace NS_CORE

#include "core/time/core_time.h"

#include <bit>
#include <type_traits>
#include <utility>

#include "absl/time/civil_time.h"
#include "core/text/core_checkf.h"
#include "core/time/core_time_platform.h"

namespace NS_CORE {

static_assert(std::endian::native == std::endian::little, "DateTime is stored with its low bytes first");
static_assert(std::is_trivially_copyable_v<DateTime> && std::is_standard_layout_v<DateTime>);

namespace {

constexpr int64_t kNanosecondsPerMillisecond = 1'000'000;
constexpr int64_t kNanosecondsPerSecond = 1'000'000'000;
constexpr int32_t kFarthestDto = 24;

bool isKnownDto(int32_t dto) {
    return dto >= -kFarthestDto && dto <= kFarthestDto;
}

// 1900-01-01 00:00:00, the result of a failed conversion.
std::tm noTime() {
    std::tm fields{};
    fields.tm_mday = 1;
    return fields;
}

// Gives *out a defined value if the conversion failed. Returns `converted`.
bool defineOnFailure(bool converted, std::tm* out) {
    if (!converted) *out = noTime();
    return converted;
}

// Carries nanoseconds out of range over to the seconds. Seconds beyond 32 bits wrap.
Timespec timespec(int64_t seconds, int64_t nanoseconds) {
    seconds += nanoseconds / kNanosecondsPerSecond;
    nanoseconds %= kNanosecondsPerSecond;
    if (nanoseconds < 0) {
        --seconds;
        nanoseconds += kNanosecondsPerSecond;
    }
    return {static_cast<int32_t>(static_cast<uint32_t>(static_cast<uint64_t>(seconds))),
            static_cast<int32_t>(nanoseconds)};
}

// The local offset, in units of 30 minutes.
int32_t localDto(int32_t seconds) {
    std::tm utc{};
    static_cast<void>(CHECKF_AT("core_time", 559, defineOnFailure(systemUtcTime(seconds, &utc), &utc), "%d", seconds));
    // Converting the UTC fields as if they were local standard time is off by exactly the offset. Where the system has
    // no seconds for them, within a day of either end of the range, its -1 gives an offset that means nothing.
    return static_cast<int32_t>((int64_t{seconds} - systemSecondsOfLocal(utc)) / DateTime::kSecondsPerDto);
}

// The broken-down time of `seconds`, which already include the offset.
std::tm shiftedTime(int64_t seconds) {
    std::tm fields{};
    const bool converted = std::in_range<int32_t>(seconds) && systemUtcTime(static_cast<int32_t>(seconds), &fields);
    static_cast<void>(CHECKF_AT("core_time", 1241, defineOnFailure(converted, &fields), "%d", seconds));
    return fields;
}

} // namespace

bool utcTime(int32_t seconds, std::tm* out) {
    return CHECKF_AT("core_time", 457, defineOnFailure(systemUtcTime(seconds, out), out), "%d", seconds);
}

bool localTime(int32_t seconds, std::tm* out) {
    return CHECKF_AT("core_time", 482, defineOnFailure(systemLocalTime(seconds, out), out), "%d", seconds);
}

std::tm localTimeOf(int32_t seconds) {
    std::tm fields{};
    static_cast<void>(
        CHECKF_AT("core_time", 571, defineOnFailure(systemLocalTime(seconds, &fields), &fields), "%d", seconds));
    return fields;
}

std::string durationText(uint64_t milliseconds) {
    const uint64_t m = milliseconds;
    if (m < 1000) return formatString("%ums", m);
    if (m < 10'000) return formatString("%u.%02us", m / 1000, m % 1000 / 10);
    if (m < 60'000) return formatString("%u.%us", m / 1000, m % 1000 / 100);
    return formatString("%um, %02ds", m / 60'000, m / 1000 % 60);
}

Timespec timespecOfFileTime(int64_t ticks) {
    // 1970-01-01 00:00:00 in ticks since 1601.
    constexpr int64_t kUnixEpoch = 116'444'736'000'000'000;
    constexpr int64_t kTicksPerSecond = 10'000'000;
    constexpr int64_t kNanosecondsPerTick = 100;
    const int64_t sinceEpoch = ticks - kUnixEpoch;
    return timespec(sinceEpoch / kTicksPerSecond, sinceEpoch % kTicksPerSecond * kNanosecondsPerTick);
}

DateTime DateTime::now() {
    return DateTime(systemNow());
}

DateTime DateTime::fromSeconds(int32_t seconds) {
    const int32_t dto = localDto(seconds);
    return DateTime(shiftedTime(seconds + int64_t{dto} * kSecondsPerDto), dto);
}

DateTime::DateTime(Timespec time) : DateTime(fromSeconds(time.seconds)) {
    m_milliseconds = static_cast<uint16_t>(time.nanoseconds / kNanosecondsPerMillisecond);
}

DateTime::DateTime(const std::tm& fields, int32_t dto) : m_year(static_cast<uint16_t>(fields.tm_year + 1900)) {
    const auto at = [](int value, uint32_t shift, uint32_t count) {
        return (static_cast<uint32_t>(value) & ((1U << count) - 1)) << shift;
    };
    setPacked(at(fields.tm_mon + 1, kMonthShift, 4) | at(fields.tm_mday, kDayShift, 5) |
              at(fields.tm_hour, kHourShift, 5) | at(fields.tm_min, kMinuteShift, 6) |
              at(fields.tm_sec, kSecondShift, 6));
    setDto(dto);
}

void DateTime::setPacked(uint32_t packed) {
    m_packedLow = static_cast<uint16_t>(packed);
    m_packedHigh = static_cast<uint16_t>(packed >> 16);
}

int32_t DateTime::dto() const {
    // The topmost bits, so the shift extends the sign.
    return static_cast<int32_t>(packed()) >> kDtoShift;
}

bool DateTime::isDtoSet() const {
    return isKnownDto(dto());
}

void DateTime::setDto(int32_t i_dto) {
    if (!isKnownDto(i_dto)) {
        GASSERT_AT("core_time", 1265, 1, i_dto == UnknownDto);
        i_dto = UnknownDto;
    }
    setPacked((packed() & ((1U << kDtoShift) - 1)) | static_cast<uint32_t>(i_dto) << kDtoShift);
}

DateTime::Moment DateTime::toTimespec() const {
    GASSERT_AT("core_time", 1837, 1, isDtoSet());
    const absl::CivilSecond wall(m_year, static_cast<int>(month()), static_cast<int>(day()), static_cast<int>(hour()),
                                 static_cast<int>(minute()), static_cast<int>(second()));
    const int64_t seconds = wall - absl::CivilSecond(1970) - int64_t{dto()} * kSecondsPerDto;
    return {timespec(seconds, int64_t{m_milliseconds} * kNanosecondsPerMillisecond), dto()};
}

Timespec difference(DateTime a, DateTime b) {
    if (!a.isDtoSet() || !b.isDtoSet()) {
        a.setDto(0);
        b.setDto(0);
    }
    const Timespec ta = a.toTimespec().time;
    const Timespec tb = b.toTimespec().time;
    return timespec(int64_t{ta.seconds} - tb.seconds, int64_t{ta.nanoseconds} - tb.nanoseconds);
}

} // namespace NS_CORE

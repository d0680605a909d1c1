#include "health/local_time.h"

#include <charconv>
#include <ctime>

#include "core/text/core_varargs.h"
#include "core/time/core_time.h"

namespace health {
namespace {

constexpr int64_t kSecondsPerMinute = 60;
constexpr int64_t kSecondsPerHour = 3600;
constexpr int64_t kSecondsPerDay = 86400;

// Days since 1970-01-01. Years begin in March here, so that a leap day is a year's last.
int64_t daysOf(int64_t year, int64_t month, int64_t day) {
    if (month <= 2) --year;
    const int64_t marchMonth = (month + 9) % 12;
    return 365 * year + year / 4 - year / 100 + year / 400 + (153 * marchMonth + 2) / 5 + day - 1 - 719468;
}

LocalSeconds secondsOf(const std::tm& time) {
    return daysOf(time.tm_year + 1900, time.tm_mon + 1, time.tm_mday) * kSecondsPerDay +
           time.tm_hour * kSecondsPerHour + time.tm_min * kSecondsPerMinute + time.tm_sec;
}

// Reads `count` digits at position `at`; false if one of them is no digit.
bool readNumber(std::string_view text, size_t at, size_t count, int* out) {
    const char* first = text.data() + at;
    const auto [end, error] = std::from_chars(first, first + count, *out);
    return error == std::errc() && end == first + count && *out >= 0;
}

} // namespace

LocalSeconds toLocal(int64_t utcSeconds) {
    if (utcSeconds <= 0 || utcSeconds > INT32_MAX) return 0;
    return secondsOf(NS_CORE::localTimeOf(static_cast<int32_t>(utcSeconds)));
}

std::string timeText(LocalSeconds seconds) {
    std::tm time{};
    if (seconds < 0 || seconds > INT32_MAX || !NS_CORE::utcTime(static_cast<int32_t>(seconds), &time)) return "?";
    return NS_CORE::formatString("%04d-%02d-%02d %02d:%02d:%02d", time.tm_year + 1900, time.tm_mon + 1, time.tm_mday,
                                 time.tm_hour, time.tm_min, time.tm_sec);
}

bool parseTime(std::string_view text, LocalSeconds* out) {
    constexpr std::string_view kPattern = "dddd-dd-dd dd:dd:dd";
    if (text.size() < kPattern.size()) return false;
    for (size_t i = 0; i < kPattern.size(); ++i)
        if (kPattern[i] != 'd' && text[i] != kPattern[i]) return false;
    std::tm time{};
    if (!readNumber(text, 0, 4, &time.tm_year) || !readNumber(text, 5, 2, &time.tm_mon) ||
        !readNumber(text, 8, 2, &time.tm_mday) || !readNumber(text, 11, 2, &time.tm_hour) ||
        !readNumber(text, 14, 2, &time.tm_min) || !readNumber(text, 17, 2, &time.tm_sec))
        return false;
    time.tm_year -= 1900;
    --time.tm_mon;
    *out = secondsOf(time);
    return true;
}

} // namespace health

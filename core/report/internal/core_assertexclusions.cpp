#include "core/report/internal/core_assertexclusions.h"

#include <algorithm>
#include <cstddef>
#include <optional>

#include "core/files/core_settingsfile.h"
#include "core/text/core_varargs.h"

namespace NS_CORE {
namespace {

constexpr std::string_view kMonths = "JanFebMarAprMayJunJulAugSepOctNovDec";

bool isDigit(char character) {
    return character >= '0' && character <= '9';
}

// "YYYY-MM-DD" with a month and a day that a calendar has. As such texts sort like their days, nothing more is needed.
bool isDay(std::string_view date) {
    if (date.size() != 10 || date[4] != '-' || date[7] != '-') return false;
    for (const uint32_t position : {0U, 1U, 2U, 3U, 5U, 6U, 8U, 9U}) {
        if (!isDigit(date[position])) return false;
    }
    const std::string_view month = date.substr(5, 2);
    const std::string_view day = date.substr(8, 2);
    return month >= "01" && month <= "12" && day >= "01" && day <= "31";
}

// "Nov  5 2019" -> "2019-11-05". Empty, so that nothing has passed, for a date of another form.
std::string dayOfBuild(std::string_view buildDate) {
    const std::vector<std::string_view> parts = settingsTokens(buildDate);
    if (parts.size() != 3) return {};
    const std::optional<int32_t> day = settingsNumber(parts[1]);
    const size_t month = kMonths.find(parts[0]);
    if (!day || month == std::string_view::npos) return {};
    return formatString("%s-%02d-%02d", parts[2], month / 3 + 1, *day);
}

// Line first: most comparisons are then of two numbers. Lets the list be searched for a name that is not a string of
// its own.
struct InOrder {
    using Place = std::pair<int32_t, std::string>;
    using Sought = std::pair<int32_t, std::string_view>;
    static bool isBefore(int32_t line, std::string_view unit, int32_t otherLine, std::string_view otherUnit) {
        return line != otherLine ? line < otherLine : unit < otherUnit;
    }
    bool operator()(const Place& place, const Sought& sought) const {
        return isBefore(place.first, place.second, sought.first, sought.second);
    }
    bool operator()(const Sought& sought, const Place& place) const {
        return isBefore(sought.first, sought.second, place.first, place.second);
    }
};

} // namespace

AssertExclusions::AssertExclusions(std::string_view buildDate) : m_buildDay(dayOfBuild(buildDate)) {}

void AssertExclusions::takeLine(std::string_view line) {
    const std::vector<std::string_view> tokens = settingsTokens(line);
    if (tokens.size() < 3 || tokens[0].starts_with('#')) return;
    const std::optional<int32_t> number = settingsNumber(tokens[1]);
    if (!number) return;
    if (!isDay(tokens[2])) {
        ++m_malformedDates;
    } else if (tokens[2] < m_buildDay) {
        ++m_passedDates;
    } else {
        m_places.emplace_back(*number, tokens[0]);
    }
}

void AssertExclusions::finish() {
    std::sort(m_places.begin(), m_places.end());
}

bool AssertExclusions::contains(std::string_view unit, int32_t line) const {
    return std::binary_search(m_places.begin(), m_places.end(), InOrder::Sought(line, unit), InOrder());
}

} // namespace NS_CORE

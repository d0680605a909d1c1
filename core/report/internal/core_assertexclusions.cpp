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

// "YYYY-MM-DD" with a month from 01 to 12 and a day from 01 to 31. Such texts sort like the days that they name.
bool isDay(std::string_view date) {
    if (date.size() != 10 || date[4] != '-' || date[7] != '-') return false;
    for (const uint32_t position : {0U, 1U, 2U, 3U, 5U, 6U, 8U, 9U}) {
        if (!isDigit(date[position])) return false;
    }
    const std::string_view month = date.substr(5, 2);
    const std::string_view day = date.substr(8, 2);
    return month >= "01" && month <= "12" && day >= "01" && day <= "31";
}

// "Nov  5 2019" -> "2019-11-05". Empty for a date of another form; then every entry applies.
std::string dayOfBuild(std::string_view buildDate) {
    const std::vector<std::string_view> parts = settingsTokens(buildDate);
    if (parts.size() != 3) return {};
    const std::optional<int32_t> day = settingsNumber(parts[1]);
    const size_t month = kMonths.find(parts[0]);
    if (!day || month == std::string_view::npos) return {};
    return formatString("%s-%02d-%02d", parts[2], month / 3 + 1, *day);
}

// By unit, then line. Compares views, so that a search needs no copy of the name.
struct InOrder {
    template <class First, class Second>
    bool operator()(const First& first, const Second& second) const {
        return std::pair<std::string_view, int32_t>(first) < std::pair<std::string_view, int32_t>(second);
    }
};

} // namespace

AssertExclusions::AssertExclusions(std::string_view buildDate) : m_buildDay(dayOfBuild(buildDate)) {}

void AssertExclusions::addLine(std::string_view line) {
    const std::vector<std::string_view> tokens = settingsTokens(line);
    if (tokens.size() < 3 || tokens[0].starts_with('#')) return;
    const std::optional<int32_t> number = settingsNumber(tokens[1]);
    if (!number) return;
    if (!isDay(tokens[2])) {
        ++m_malformedDates;
    } else if (tokens[2] < m_buildDay) {
        ++m_passedDates;
    } else if (m_places.size() >= kMaxPlaces) {
        ++m_tooMany;
    } else {
        m_places.emplace_back(tokens[0], *number);
    }
}

void AssertExclusions::finish() {
    std::sort(m_places.begin(), m_places.end(), InOrder());
}

bool AssertExclusions::contains(std::string_view unit, int32_t line) const {
    return std::binary_search(m_places.begin(), m_places.end(), std::pair(unit, line), InOrder());
}

} // namespace NS_CORE

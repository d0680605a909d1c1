#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace NS_CORE {

// The checks that an administrator has excluded, by source unit (without directory and extension) and line, as failures
// name them. One thread fills the list; after finish() any thread may search it.
//
//     # unit        line  until
//     utl_service   41    2020-06-30
//
// An entry applies to builds made on or before its date, because line numbers change with the source. Text after the
// date is a comment. A line with fewer than three tokens, or with a line number that is not a number, adds nothing.
// The list keeps kMaxPlaces entries, far more than there are checks, so that no file can fill the memory.
class AssertExclusions {
public:
    static constexpr size_t kMaxPlaces = 100'000;

    // buildDate  the day of the build as compilers write it, "Nov 20 2019" (core_rcsname.h).
    explicit AssertExclusions(std::string_view buildDate);

    // Reads one line of the file. Counts the entries that do not apply, by reason.
    void addLine(std::string_view line);

    // Sorts the list by unit, then line. Call it once after the last line.
    void finish();

    // Binary search for an exact match of both.
    bool contains(std::string_view unit, int32_t line) const;

    size_t size() const { return m_places.size(); }
    int32_t malformedDates() const { return m_malformedDates; }
    int32_t passedDates() const { return m_passedDates; }
    int32_t tooMany() const { return m_tooMany; }

private:
    std::string m_buildDay; // "YYYY-MM-DD"
    std::vector<std::pair<std::string, int32_t>> m_places;
    int32_t m_malformedDates = 0;
    int32_t m_passedDates = 0;
    int32_t m_tooMany = 0;
};

} // namespace NS_CORE

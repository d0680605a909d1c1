#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace NS_CORE {

// The places whose checks an administrator has taken out: source unit (without directory and extension) and line,
// as failures name them. Filled by one thread, asked by any number.
//
//     # unit        line  until
//     utl_service   41    2020-06-30
//
// Line numbers wander with the source, so an entry counts only for builds that were made up to its date, that day
// included; one that has passed is as good as none. What stands behind the date is the administrator's own remark.
// A line with fewer than three parts, or with a line number that is none, adds nothing.
class AssertExclusions {
public:
    // buildDate  the day of the build, "Nov 20 2019" as compilers write it (core_rcsname.h).
    explicit AssertExclusions(std::string_view buildDate);

    // Reads one line of the file. Malformed dates and entries that have passed are counted.
    void takeLine(std::string_view line);

    // To be called once, behind the last line: makes the list ready to be asked.
    void finish();

    // By binary search.
    bool contains(std::string_view unit, int32_t line) const;

    size_t size() const { return m_places.size(); }
    int32_t malformedDates() const { return m_malformedDates; }
    int32_t passedDates() const { return m_passedDates; }

private:
    std::string m_buildDay;                                // "YYYY-MM-DD"
    std::vector<std::pair<int32_t, std::string>> m_places; // line and unit
    int32_t m_malformedDates = 0;
    int32_t m_passedDates = 0;
};

} // namespace NS_CORE

#include "core/report/internal/core_assertexclusions.h"

#include <gtest/gtest.h>

using NS_CORE::AssertExclusions;

namespace {

AssertExclusions read(std::initializer_list<std::string_view> lines, std::string_view buildDate = "Nov 20 2019") {
    AssertExclusions exclusions(buildDate);
    for (const std::string_view line : lines) exclusions.addLine(line);
    exclusions.finish();
    return exclusions;
}

TEST(AssertExclusions, AreFoundByUnitAndLineBothExactly) {
    const AssertExclusions exclusions =
        read({"utl_service 41 2030-01-01", "core_time 7 2030-01-01 a remark", "utl_service 9 2030-01-01\r",
              "\tcore_time\t100  2030-01-01", "zzz -1 2030-01-01", "utl_service 41 2030-01-01"});
    EXPECT_EQ(exclusions.size(), 6U);
    for (const auto& [unit, line] :
         {std::pair("utl_service", 41), {"utl_service", 9}, {"core_time", 7}, {"core_time", 100}, {"zzz", -1}})
        EXPECT_TRUE(exclusions.contains(unit, line)) << unit << line;
    EXPECT_FALSE(exclusions.contains("utl_service", 40));
    EXPECT_FALSE(exclusions.contains("core_time", 41)) << "a line of another unit";
    EXPECT_FALSE(exclusions.contains("utl_service", 7));
    for (const char* unit : {"utl_servic", "utl_service_win32", "Utl_service", ""})
        EXPECT_FALSE(exclusions.contains(unit, 41)) << unit;
}

TEST(AssertExclusions, NeedThreePartsAndALineNumber) {
    const AssertExclusions exclusions = read({"", "a", "a 1", "# a 1 2030-01-01", "#a 1 2030-01-01", "a x 2030-01-01",
                                              "a 1x 2030-01-01", "a 99999999999 2030-01-01"});
    EXPECT_EQ(exclusions.size(), 0U);
    EXPECT_EQ(exclusions.malformedDates(), 0);
    EXPECT_EQ(exclusions.passedDates(), 0);
}

TEST(AssertExclusions, CountEntriesWithMalformedDates) {
    const AssertExclusions exclusions =
        read({"a 1 2030/01-01", "a 1 2030-01/01", "a 1 20300101", "a 1 2030-1-1", "a 1 2030-01-011", "a 1 2o30-01-01",
              "a 1 2030-13-01", "a 1 2030-00-01", "a 1 2030-01-32", "a 1 2030-01-00", "a 1 #"});
    EXPECT_EQ(exclusions.size(), 0U);
    EXPECT_EQ(exclusions.malformedDates(), 11);
}

TEST(AssertExclusions, CountOnlyForBuildsUpToTheirDate) {
    const auto counts = [](const char* line, const char* buildDate) {
        const AssertExclusions exclusions = read({line}, buildDate);
        EXPECT_EQ(exclusions.passedDates(), exclusions.contains("a", 1) ? 0 : 1);
        return exclusions.contains("a", 1);
    };
    EXPECT_FALSE(counts("a 1 2019-11-19", "Nov 20 2019"));
    EXPECT_TRUE(counts("a 1 2019-11-20", "Nov 20 2019"));
    EXPECT_TRUE(counts("a 1 2019-11-21", "Nov 20 2019"));
    EXPECT_FALSE(counts("a 1 2018-12-31", "Jan  1 2019"));
    // Compilers fill up the day with a blank.
    EXPECT_TRUE(counts("a 1 2019-11-05", "Nov  5 2019"));
    EXPECT_FALSE(counts("a 1 2019-11-04", "Nov  5 2019"));
    EXPECT_FALSE(counts("a 1 2019-12-30", "Dec 31 2019"));
    for (const char* unknown : {"", "Nov x 2019", "Nox 20 2019", "2019-11-20"})
        EXPECT_TRUE(counts("a 1 2001-01-01", unknown)) << unknown;
}

} // namespace

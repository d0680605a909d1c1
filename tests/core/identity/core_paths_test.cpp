#include "core/identity/core_paths.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "core/check/core_assert.h"
#include "tests/support/hook_recorder.h"

namespace {

using NS_CORE::PathKind;

constexpr PathKind kNoKind = static_cast<PathKind>(6);

TEST(Paths, NumbersNamesAndDefaultsAreFixed) {
    NS_CORE::setDefaultPaths();
    struct Row {
        PathKind kind;
        const char* name;
        std::string path;
    };
    uint32_t number = 0;
    for (const Row& row : {Row{PathKind::Assets, "Assets", "assets"}, Row{PathKind::Settings, "Settings", "settings"},
                           Row{PathKind::Work, "Work", "work"}, Row{PathKind::Temp, "Temp", "work/tmp"},
                           Row{PathKind::Logs, "Logs", "work/logs"}, Row{PathKind::Dumps, "Dumps", "work/dumps"}}) {
        EXPECT_EQ(static_cast<uint32_t>(row.kind), number++);
        EXPECT_STREQ(NS_CORE::pathName(row.kind), row.name);
        EXPECT_EQ(NS_CORE::getPath(row.kind), row.path);
        EXPECT_EQ(NS_CORE::dotPath(row.kind), "./" + row.path);
    }
}

TEST(Paths, APathThatWasSetReplacesTheDefaultAndOnlyIt) {
    NS_CORE::setDefaultPaths();
    NS_CORE::setPath(PathKind::Logs, "Ж/測試");
    EXPECT_EQ(NS_CORE::getPath(PathKind::Logs), "Ж/測試");
    EXPECT_EQ(NS_CORE::dotPath(PathKind::Logs), "./Ж/測試");
    EXPECT_EQ(NS_CORE::getPath(PathKind::Dumps), "work/dumps");
}

TEST(Paths, ReadingBeforeSettingFailsTheAssertionWithTheKindsNameButAtLevel0) {
    const test::HookRecorder hook;
    EXPECT_FALSE(NS_CORE::isPathSet(PathKind::Temp));
    EXPECT_EQ(NS_CORE::getPath(PathKind::Temp), "");
    EXPECT_EQ(NS_CORE::dotPath(PathKind::Dumps), "./");
    NS_CORE::Assert::setLevel(0);
    EXPECT_EQ(NS_CORE::getPath(PathKind::Temp), "");
    NS_CORE::Assert::setLevel(1);
    EXPECT_EQ(hook.failures(), (std::vector<test::FailedCheck>{{"pi.is_set", "core_paths", 108, 1, "Temp"},
                                                               {"pi.is_set", "core_paths", 108, 1, "Dumps"}}));
}

TEST(Paths, AnEmptyPathThatWasSetIsNoFailure) {
    NS_CORE::setPath(PathKind::Work, "");
    EXPECT_TRUE(NS_CORE::isPathSet(PathKind::Work));
    EXPECT_EQ(NS_CORE::getPath(PathKind::Work), "");
}

TEST(PathsDeathTest, ReadingBeforeSettingEndsTheProcessWhereTheHookSaysStop) {
    test::HookRecorder hook;
    hook.answerStop(true);
    EXPECT_DEATH(static_cast<void>(NS_CORE::getPath(PathKind::Temp)), "");
}

TEST(Paths, AKindBeyondTheTableIsOutOfRange) {
    for (const PathKind kind : {kNoKind, static_cast<PathKind>(0xFFFFFFFF)}) {
        try {
            static_cast<void>(NS_CORE::getPath(kind));
            FAIL() << "no exception";
        } catch (const std::out_of_range& error) {
            EXPECT_STREQ(error.what(), "invalid vector<T> subscript");
        }
        EXPECT_THROW(NS_CORE::setPath(kind, "x"), std::out_of_range);
        EXPECT_THROW(static_cast<void>(NS_CORE::isPathSet(kind)), std::out_of_range);
        EXPECT_THROW(static_cast<void>(NS_CORE::dotPath(kind)), std::out_of_range);
    }
}

TEST(Paths, TheNameOfAKindBeyondTheTableIsAQuestionMark) {
    const test::HookRecorder hook;
    EXPECT_STREQ(NS_CORE::pathName(kNoKind), "?");
    EXPECT_EQ(hook.single(), (test::FailedCheck{"CHECKF", "core_paths", 125, 0, ""}));
}

// Another unit's static initialiser may come before any of this unit's.
const std::string g_earlyName = [] {
    NS_CORE::setPath(PathKind::Assets, "early");
    return NS_CORE::dotPath(PathKind::Assets);
}();

TEST(Paths, TheTableServesStaticInitialisers) {
    EXPECT_EQ(g_earlyName, "./early");
    EXPECT_EQ(NS_CORE::getPath(PathKind::Assets), "early");
}

} // namespace

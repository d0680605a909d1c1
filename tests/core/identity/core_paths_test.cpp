#include "core/identity/core_paths.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "core/check/core_assert.h"
#include "tests/support/hook_recorder.h"

namespace {

using NS_CORE::PathKind;

constexpr PathKind kNoKind = static_cast<PathKind>(6);

// Reads a path for its effect alone.
void read(PathKind kind) {
    static_cast<void>(NS_CORE::getPath(kind));
}

TEST(Paths, DefaultsAreThoseOfTheInstallation) {
    NS_CORE::setDefaultPaths();
    EXPECT_EQ(NS_CORE::getPath(PathKind::Assets), "assets");
    EXPECT_EQ(NS_CORE::getPath(PathKind::Settings), "settings");
    EXPECT_EQ(NS_CORE::getPath(PathKind::Work), "work");
    EXPECT_EQ(NS_CORE::getPath(PathKind::Temp), "work/tmp");
    EXPECT_EQ(NS_CORE::getPath(PathKind::Logs), "work/logs");
    EXPECT_EQ(NS_CORE::getPath(PathKind::Dumps), "work/dumps");
}

TEST(Paths, DotPathIsRelativeToTheWorkingDirectory) {
    NS_CORE::setDefaultPaths();
    EXPECT_EQ(NS_CORE::dotPath(PathKind::Logs), "./work/logs");
    EXPECT_EQ(NS_CORE::dotPath(PathKind::Dumps), "./work/dumps");
}

TEST(Paths, NumbersAndNamesOfTheKindsAreFixed) {
    const char* const names[] = {"Assets", "Settings", "Work", "Temp", "Logs", "Dumps"};
    for (uint32_t number = 0; number < 6; ++number) {
        EXPECT_STREQ(NS_CORE::pathName(static_cast<PathKind>(number)), names[number]);
    }
    EXPECT_EQ(static_cast<uint32_t>(PathKind::Settings), 1U);
    EXPECT_EQ(static_cast<uint32_t>(PathKind::Work), 2U);
    EXPECT_EQ(static_cast<uint32_t>(PathKind::Temp), 3U);
    EXPECT_EQ(static_cast<uint32_t>(PathKind::Logs), 4U);
    EXPECT_EQ(static_cast<uint32_t>(PathKind::Dumps), 5U);
}

TEST(Paths, APathThatWasSetReplacesTheDefaultAndOnlyIt) {
    NS_CORE::setDefaultPaths();
    NS_CORE::setPath(PathKind::Logs, "Ж/測試");
    EXPECT_EQ(NS_CORE::getPath(PathKind::Logs), "Ж/測試");
    EXPECT_EQ(NS_CORE::dotPath(PathKind::Logs), "./Ж/測試");
    EXPECT_EQ(NS_CORE::getPath(PathKind::Dumps), "work/dumps");
}

TEST(Paths, ReadingBeforeSettingFailsTheAssertionWithTheKindsName) {
    const test::HookRecorder hook;
    NS_CORE::Assert::setLevel(1);
    EXPECT_EQ(NS_CORE::getPath(PathKind::Temp), "");
    EXPECT_EQ(hook.single(), (test::FailedCheck{"pi.is_set", "core_paths", 108, 1, "Temp"}));
}

TEST(Paths, DotPathBeforeSettingFailsTheSameAssertion) {
    const test::HookRecorder hook;
    EXPECT_EQ(NS_CORE::dotPath(PathKind::Dumps), "./");
    EXPECT_EQ(hook.single(), (test::FailedCheck{"pi.is_set", "core_paths", 108, 1, "Dumps"}));
}

TEST(Paths, AnEmptyPathThatWasSetIsNoFailure) {
    const test::HookRecorder hook;
    NS_CORE::setPath(PathKind::Work, "");
    EXPECT_EQ(NS_CORE::getPath(PathKind::Work), "");
    EXPECT_TRUE(hook.failures().empty());
}

TEST(Paths, ReadingBeforeSettingIsSilentAtAssertionLevel0) {
    const test::HookRecorder hook;
    NS_CORE::Assert::setLevel(0);
    EXPECT_EQ(NS_CORE::getPath(PathKind::Temp), "");
    EXPECT_TRUE(hook.failures().empty());
}

TEST(PathsDeathTest, ReadingBeforeSettingEndsTheProcessWhereTheHookSaysStop) {
    EXPECT_DEATH(
        {
            test::HookRecorder hook;
            hook.answerStop(true);
            read(PathKind::Temp);
        },
        "");
}

TEST(Paths, AKindBeyondTheTableIsOutOfRange) {
    const test::HookRecorder hook;
    for (const PathKind kind : {kNoKind, static_cast<PathKind>(0xFFFFFFFF)}) {
        try {
            read(kind);
            FAIL() << "no exception";
        } catch (const std::out_of_range& error) {
            EXPECT_STREQ(error.what(), "invalid vector<T> subscript");
        }
        EXPECT_THROW(NS_CORE::setPath(kind, "x"), std::out_of_range);
        EXPECT_THROW(static_cast<void>(NS_CORE::dotPath(kind)), std::out_of_range);
    }
    EXPECT_TRUE(hook.failures().empty());
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

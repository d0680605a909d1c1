#include "core/check/core_assert.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "core/check/core_assertpolicy.h"
#include "core/log/core_v2masterlogger.h"
#include "core/text/core_checkf.h"
#include "tests/support/child.h"
#include "tests/support/hook_recorder.h"
#include "tests/support/log_recorder.h"
#include "tests/support/stream_capture.h"

using NS_CORE::Assert;
using NS_CORE::AssertPolicy;
using test::FailedCheck;
using test::HookRecorder;
using test::LogRecorder;
using test::Printed;
using test::printedBy;

namespace {

using Lines = std::vector<std::string>;

// What the policy under test was asked and told.
Lines g_told;
bool g_excluded = false;
bool g_stops = false;

bool recordExcluded(std::string_view file, int32_t line) {
    g_told.push_back("excluded? " + std::string(file) + ":" + std::to_string(line));
    return g_excluded;
}

void recordReport(AssertPolicy::Kind kind, const char* expression, std::string_view file, int32_t line, int32_t level,
                  const std::string& message) {
    g_told.push_back("report " + std::to_string(static_cast<uint32_t>(kind)) + " " + expression + " " +
                     std::string(file) + ":" + std::to_string(line) + " " + std::to_string(level) + " " + message);
}

bool recordStops() {
    g_told.push_back("stops?");
    return g_stops;
}

constexpr AssertPolicy kRecordingPolicy{&recordExcluded, &recordReport, &recordStops};

struct PolicyTest : testing::Test {
    PolicyTest() {
        g_told.clear();
        g_excluded = g_stops = false;
        NS_CORE::setAssertPolicy(&kRecordingPolicy);
    }
    ~PolicyTest() override { NS_CORE::setAssertPolicy(nullptr); }
    LogRecorder log;
};

// Puts level, hook and lock back as they are at start.
struct AssertTest : testing::Test {
    ~AssertTest() override {
        Assert::lockFailureHandler(false);
        Assert::setFailureHandler(&Assert::failDefault);
        Assert::setLevel(1);
    }
};

// Runs the action, whose CRIT lines go to the console too, and answers its records.
template <class Action>
Lines loggedBy(LogRecorder& log, Action&& action) {
    printedBy(action);
    return log.lines();
}

TEST_F(AssertTest, StartsWithTheDefaultHandlerAtLevelOne) {
    EXPECT_EQ(Assert::failureHandler(), &Assert::failDefault);
    EXPECT_EQ(Assert::level(), 1);
}

TEST_F(AssertTest, ClampsTheLevel) {
    for (const auto& [given, stored] : {std::pair{-1, 0}, {0, 0}, {1, 1}, {2, 1}, {INT32_MAX, 1}, {INT32_MIN, 0}}) {
        Assert::setLevel(given);
        EXPECT_EQ(Assert::level(), stored) << given;
    }
}

TEST_F(AssertTest, HandsAFailedCheckToTheHook) {
    HookRecorder hook;
    int evaluated = 0;
    EXPECT_TRUE(CHECKF(true, "%d", ++evaluated));
    EXPECT_EQ(evaluated, 0) << "the message is for failures";
    EXPECT_FALSE(CHECKF_AT("core_paths", 108, false, "%s is %d", "x", 5));
    EXPECT_EQ(hook.single(), (FailedCheck{"CHECKF", "core_paths", 108, 0, "x is 5"}));
    hook.clear();
    const int32_t line = __LINE__ + 1;
    EXPECT_FALSE(CHECKF(1 > 2, ""));
    EXPECT_EQ(hook.single(), (FailedCheck{"CHECKF", "core_assert_test", line, 0, ""}));
}

TEST_F(AssertTest, HandsAFailedAssertionToTheHookWithItsExpression) {
    HookRecorder hook;
    GASSERT_AT("core_time", 1265, 1, 1 > 2);
    EXPECT_EQ(hook.single(), (FailedCheck{"1 > 2", "core_time", 1265, 1, ""}));
    hook.clear();
    const int32_t line = __LINE__ + 1;
    GASSERT(0, 1 > 2, "why");
    EXPECT_EQ(hook.single(), (FailedCheck{"1 > 2", "core_assert_test", line, 0, "why"}));
    hook.clear();
    GASSERT(1, 2 > 1, "why");
    EXPECT_TRUE(hook.failures().empty());
}

TEST_F(AssertTest, SkipsLevelOneAssertionsAtLevelZeroButNoCheck) {
    HookRecorder hook;
    Assert::setLevel(0);
    int evaluated = 0;
    GASSERT(1, ++evaluated < 0);
    EXPECT_EQ(evaluated, 0);
    EXPECT_TRUE(hook.failures().empty());
    GASSERT(0, 1 > 2);
    EXPECT_FALSE(CHECKF(false, "still"));
    EXPECT_EQ(hook.failures().size(), 2U);
}

TEST_F(AssertTest, KeepsTheHookWhileItIsLocked) {
    LogRecorder log;
    Assert::lockFailureHandler(true);
    Assert::setFailureHandler();
    Assert::setFailureHandler(&Assert::failQuiet);
    EXPECT_EQ(Assert::failureHandler(), &Assert::failDefault);
    const std::string line = "WARN CORE::Assert::setFailureHandler - handler locked";
    EXPECT_EQ(log.lines(), (Lines{line, line}));
    Assert::lockFailureHandler(false);
    Assert::setFailureHandler();
    EXPECT_EQ(Assert::failureHandler(), &Assert::failQuiet);
    EXPECT_EQ(log.lines().size(), 2U);
}

TEST_F(AssertTest, QuietHandlerWritesOneLineToStandardErrorAndGoesOn) {
    LogRecorder log;
    Assert::setFailureHandler();
    const Printed printed = printedBy([] {
        EXPECT_FALSE(CHECKF_AT("utl_service", 70, false, "%d left", 3));
        GASSERT_AT("core_time", 1265, 1, 1 > 2);
    });
    EXPECT_EQ(printed.error, "GASSERT failed at utl_service:70 (3 left)\nGASSERT failed at core_time:1265 ()\n");
    EXPECT_EQ(printed.output, "");
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(AssertTest, DefaultHandlerLogsAtCritAndGoesOn) {
    LogRecorder log;
    const Printed printed = printedBy([] {
        EXPECT_FALSE(CHECKF_AT("utl_service", 70, false, "%d left", 3));
        GASSERT_AT("core_time", 1265, 1, 1 > 2);
    });
    const std::string first = "CORE::Assert::failDefault - GASSERT failed at utl_service:70 (CHECKF) (3 left)";
    const std::string second = "CORE::Assert::failDefault - GASSERT failed at core_time:1265 (1 > 2) ()";
    EXPECT_EQ(log.lines(), (Lines{"CRIT " + first, "CRIT " + second}));
    EXPECT_EQ(printed.output, "[CRIT] " + first + "\n[CRIT] " + second + "\n");
    EXPECT_EQ(printed.error, "");
}

TEST_F(PolicyTest, ReportsAFailureAndAsksWhetherToStop) {
    const Lines logged = loggedBy(log, [] {
        EXPECT_FALSE(Assert::failDefault("a < b", "core_x", 12, 1, "why"));
        g_stops = true;
        EXPECT_TRUE(Assert::failDefault("a < b", "core_x", 13, 1, ""));
    });
    EXPECT_EQ(g_told, (Lines{"excluded? core_x:12", "report 0 a < b core_x:12 1 why", "stops?", "excluded? core_x:13",
                             "report 0 a < b core_x:13 1 ", "stops?"}));
    EXPECT_EQ(logged, (Lines{"CRIT CORE::Assert::failDefault - GASSERT failed at core_x:12 (a < b) (why)",
                             "CRIT CORE::Assert::failDefault - GASSERT failed at core_x:13 (a < b) ()"}));
}

TEST_F(PolicyTest, LogsAnExcludedPlaceAndDoesNotReportItOrStop) {
    g_excluded = g_stops = true;
    const Lines logged = loggedBy(log, [] {
        EXPECT_FALSE(Assert::failDefault("a < b", "core_x", 12, 1, ""));
        EXPECT_FALSE(Assert::failDefault("a < b", "core_x", 12, 1, "why"));
    });
    EXPECT_EQ(g_told, (Lines{"excluded? core_x:12", "excluded? core_x:12"}));
    EXPECT_EQ(logged, (Lines{"CRIT CORE::Assert::failDefault - EXCLUDED_ASSERT failed at core_x:12 (a < b)",
                             "CRIT CORE::Assert::failDefault - EXCLUDED_ASSERT failed at core_x:12 (a < b) (why)"}));
}

TEST_F(PolicyTest, OnlyLogsAFailureWithoutAnExpression) {
    g_stops = true;
    const Lines logged = loggedBy(log, [] { EXPECT_FALSE(Assert::failDefault(nullptr, "core_x", 12, 1, "why")); });
    EXPECT_TRUE(g_told.empty());
    EXPECT_EQ(logged, Lines{"CRIT CORE::Assert::failDefault - ERROR!! ASSERT failed at core_x:12"});
}

// Fails checks while it is told of one.
void failInside(AssertPolicy::Kind /*kind*/, const char* /*expression*/, std::string_view /*file*/, int32_t /*line*/,
                int32_t /*level*/, const std::string& /*message*/) {
    EXPECT_FALSE(CHECKF(false, "inner"));
    EXPECT_FALSE(Assert::failDefault(nullptr, "core_x", 1, 1, ""));
    // Another thread has its own flag, and is told of as usual; its report fails inside likewise.
    static bool onOtherThread = false;
    if (!onOtherThread) {
        onOtherThread = true;
        std::thread([] { CHECKF_AT("core_other", 1, false, ""); }).join();
    }
}

TEST_F(PolicyTest, CutsOffACheckThatFailsInsideTheHandler) {
    static constexpr AssertPolicy policy{&recordExcluded, &failInside, &recordStops};
    NS_CORE::setAssertPolicy(&policy);
    const Printed printed = printedBy([] { EXPECT_FALSE(CHECKF_AT("core_x", 12, false, "outer")); });
    const std::string once = "Assert:failDefault - recursive call\n";
    EXPECT_EQ(printed.error, once + once) << "one per thread";
    EXPECT_EQ(log.lines().size(), 4U) << "two failures, two without an expression";
    // The flag is down again on every way out.
    g_excluded = true;
    EXPECT_EQ(printedBy([] { CHECKF(false, ""); }).error, "");
    EXPECT_EQ(printedBy([] { CHECKF(false, ""); }).error, "");
}

TEST_F(AssertTest, DefaultHandlerIsNotStoppedByALogThatFailsAsWell) {
    // The implementation's check fails while the handler's own record is being served.
    struct Failing : NS_CORE::LogImpl {
        void log(uint32_t, uint32_t, const NS_CORE::LevelEntry&, uint8_t, const char*, size_t) override {
            CHECKF(false, "inner");
        }
    };
    NS_CORE::MasterLogger::setImplementation(std::make_unique<Failing>());
    const Printed printed = printedBy([] { EXPECT_FALSE(CHECKF(false, "outer")); });
    NS_CORE::MasterLogger::setImplementation(nullptr);
    EXPECT_EQ(printed.error, "Assert:failDefault - recursive call\n");
}

// Started by the platform's test of how a process ends.
const test::ChildProgram g_stopByCheck("StopByCheck", [](const auto&) {
    HookRecorder hook;
    hook.answerStop(true);
    CHECKF(false, "stop");
    return 0;
});

const test::ChildProgram g_stopByAssertion("StopByAssertion", [](const auto&) {
    g_stops = true;
    NS_CORE::setAssertPolicy(&kRecordingPolicy);
    GASSERT(1, 1 > 2, "stop");
    return 0;
});

} // namespace

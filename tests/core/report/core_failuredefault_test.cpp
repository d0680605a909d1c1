#include "core/report/core_failuredefault.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <thread>
#include <vector>

#include "core/log/core_v2masterlogger.h"
#include "core/text/core_checkf.h"
#include "tests/support/calling_log.h"
#include "tests/support/child.h"
#include "tests/support/crash_kinds.h"
#include "tests/support/stream_capture.h"

using NS_CORE::Assert;
using NS_CORE::AssertPolicy;
using NS_CORE::Failure;
using test::Printed;
using test::printedBy;

namespace {

using Lines = std::vector<std::string>;

// What happened, in order: records of the log and calls of the policy.
Lines g_events;
bool g_excluded = false;
bool g_stops = false;

bool recordExcluded(std::string_view file, int32_t line) {
    g_events.push_back("excluded? " + std::string(file) + ":" + std::to_string(line));
    return g_excluded;
}

void recordReport(const Failure& failure) {
    g_events.push_back("report " + std::to_string(static_cast<uint32_t>(failure.kind)) + " " +
                       std::string(failure.condition) + " " + std::string(failure.file) + ":" +
                       std::to_string(failure.line) + " " + std::to_string(failure.level) + " " +
                       std::string(failure.message));
}

bool recordStops() {
    g_events.push_back("stops?");
    return g_stops;
}

constexpr AssertPolicy kRecordingPolicy{&recordExcluded, &recordReport, &recordStops};

struct FailDefaultTest : testing::Test {
    FailDefaultTest() {
        g_events.clear();
        g_excluded = g_stops = false;
        Assert::installFailureHandler(&Assert::failDefault);
        NS_CORE::setAssertPolicy(&kRecordingPolicy);
        test::setImplementation([](const std::string& record) { g_events.push_back(record); });
    }
    ~FailDefaultTest() override {
        NS_CORE::MasterLogger::setImplementation(nullptr);
        NS_CORE::setAssertPolicy(nullptr);
        Assert::lockFailureHandler(false);
    }
};

TEST_F(FailDefaultTest, LogsThenReportsThenAsksWhetherToStop) {
    const Printed printed = printedBy([] {
        EXPECT_FALSE(Assert::failDefault("a < b", "core_x", 12, 1, "why"));
        g_stops = true;
        EXPECT_TRUE(Assert::failDefault("a < b", "core_x", 13, 1, ""));
    });
    const std::string first = "CORE::Assert::failDefault - GASSERT failed at core_x:12 (a < b) (why)";
    const std::string second = "CORE::Assert::failDefault - GASSERT failed at core_x:13 (a < b) ()";
    EXPECT_EQ(g_events, (Lines{"excluded? core_x:12", "CRIT " + first, "report 0 a < b core_x:12 1 why", "stops?",
                               "excluded? core_x:13", "CRIT " + second, "report 0 a < b core_x:13 1 ", "stops?"}));
    EXPECT_EQ(printed.output, "[CRIT] " + first + "\n[CRIT] " + second + "\n");
    EXPECT_EQ(printed.error, "");
}

TEST_F(FailDefaultTest, OnlyLogsAnExcludedPlace) {
    g_excluded = g_stops = true;
    printedBy([] {
        EXPECT_FALSE(Assert::failDefault("a < b", "core_x", 12, 1, ""));
        EXPECT_FALSE(Assert::failDefault("a < b", "core_x", 12, 1, "why"));
    });
    const std::string text = "CRIT CORE::Assert::failDefault - EXCLUDED_ASSERT failed at core_x:12 (a < b)";
    EXPECT_EQ(g_events, (Lines{"excluded? core_x:12", text, "excluded? core_x:12", text + " (why)"}));
}

TEST_F(FailDefaultTest, OnlyLogsAFailureWithoutAnExpression) {
    g_stops = true;
    printedBy([] { EXPECT_FALSE(Assert::failDefault(nullptr, "core_x", 12, 1, "why")); });
    EXPECT_EQ(g_events, Lines{"CRIT CORE::Assert::failDefault - ERROR!! ASSERT failed at core_x:12"});
}

TEST_F(FailDefaultTest, NeitherReportsNorStopsWithoutAPolicy) {
    NS_CORE::setAssertPolicy(nullptr);
    printedBy([] { EXPECT_FALSE(CHECKF_AT("core_x", 12, false, "why")); });
    EXPECT_EQ(g_events, Lines{"CRIT CORE::Assert::failDefault - GASSERT failed at core_x:12 (CHECKF) (why)"});
}

// Its own checks fail while it reports one.
void failInside(const Failure& /*failure*/) {
    EXPECT_FALSE(CHECKF(false, "inner"));
    EXPECT_FALSE(Assert::failDefault(nullptr, "core_x", 1, 1, ""));
    // Another thread has its own flag and is reported as usual; its report fails inside likewise.
    static bool onOtherThread = false;
    if (!onOtherThread) {
        onOtherThread = true;
        std::thread([] { CHECKF_AT("core_other", 1, false, ""); }).join();
    }
}

TEST_F(FailDefaultTest, CutsOffACheckThatFailsInsideTheHandler) {
    static constexpr AssertPolicy policy{&recordExcluded, &failInside, &recordStops};
    NS_CORE::setAssertPolicy(&policy);
    const Printed printed = printedBy([] { EXPECT_FALSE(CHECKF_AT("core_x", 12, false, "outer")); });
    const std::string once = "Assert:failDefault - recursive call\n";
    EXPECT_EQ(printed.error, once + once) << "one per thread";
    EXPECT_EQ(std::count_if(g_events.begin(), g_events.end(), [](const auto& event) { return event[0] == 'C'; }), 4)
        << "two failures, two without an expression";
    // The flag is cleared on every way out.
    g_excluded = true;
    EXPECT_EQ(printedBy([] { CHECKF(false, ""); }).error, "");
    EXPECT_EQ(printedBy([] { CHECKF(false, ""); }).error, "");
}

TEST_F(FailDefaultTest, CutsOffACheckThatFailsWhileItLogs) {
    test::setImplementation([](const auto& /*record*/) { CHECKF(false, "inner"); });
    EXPECT_EQ(printedBy([] { EXPECT_FALSE(CHECKF(false, "outer")); }).error, "Assert:failDefault - recursive call\n");
}

TEST_F(FailDefaultTest, IsReplacedByTheQuietHandlerUnlessTheHandlerIsLocked) {
    const Assert::FailureHandler before = Assert::failureHandler();
    Assert::lockFailureHandler(true);
    Assert::setFailureHandler();
    EXPECT_EQ(Assert::failureHandler(), before);
    EXPECT_EQ(g_events, Lines{"WARN CORE::Assert::setFailureHandler - handler locked"});
    Assert::lockFailureHandler(false);
    Assert::setFailureHandler();
    EXPECT_EQ(Assert::failureHandler(), &Assert::failQuiet);
    EXPECT_EQ(g_events.size(), 1U);
}

const test::ChildProgram g_stopByAssertion("StopByAssertion", [](const auto&) {
    test::endQuietlyOnUnhandledFaults();
    g_stops = true;
    NS_CORE::setAssertPolicy(&kRecordingPolicy);
    GASSERT(1, 1 > 2, "stop");
    return 0;
});

} // namespace

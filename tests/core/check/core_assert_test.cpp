#include "core/check/core_assert.h"

#include <gtest/gtest.h>

#include "core/text/core_checkf.h"
#include "tests/support/child.h"
#include "tests/support/crash_kinds.h"
#include "tests/support/hook_recorder.h"
#include "tests/support/self_process.h"
#include "tests/support/stream_capture.h"

using NS_CORE::Assert;
using test::FailedCheck;
using test::HookRecorder;
using test::Printed;
using test::printedBy;

namespace {

const Assert::FailureHandler g_handlerAtStart = Assert::failureHandler();

TEST(Assert, StartsWithTheDefaultHandlerAtLevelOne) {
    EXPECT_EQ(g_handlerAtStart, &Assert::failDefault);
    EXPECT_EQ(Assert::level(), 1);
}

TEST(Assert, ClampsTheLevel) {
    for (const auto& [given, stored] :
         {std::pair{-1, 0}, {INT32_MIN, 0}, {INT32_MAX, 1}, {0, 0}, {1, 1}, {0, 0}, {2, 1}}) {
        Assert::setLevel(given);
        EXPECT_EQ(Assert::level(), stored) << given;
    }
}

TEST(Assert, HandsAFailedCheckToTheHook) {
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

TEST(Assert, HandsAFailedAssertionToTheHookWithItsExpression) {
    HookRecorder hook;
    GASSERT_AT("core_time", 1265, 1, 1 > 2);
    EXPECT_EQ(hook.single(), (FailedCheck{"1 > 2", "core_time", 1265, 1, ""}));
    hook.clear();
    const int32_t line = __LINE__ + 1;
    GASSERT(0, 1 > 2, "why %d");
    EXPECT_EQ(hook.single(), (FailedCheck{"1 > 2", "core_assert_test", line, 0, "why %d"}));
    hook.clear();
    GASSERT(1, 2 > 1, "why");
    EXPECT_TRUE(hook.failures().empty());
}

// An assertion takes one message or none: a format with arguments does not compile.
template <class... Parts>
concept IsAssertionMessage = requires(Parts... parts) { NS_CORE::assertionMessage(parts...); };
static_assert(IsAssertionMessage<> && IsAssertionMessage<const char*> && IsAssertionMessage<std::string>);
static_assert(!IsAssertionMessage<const char*, int> && !IsAssertionMessage<const char*, const char*> &&
              !IsAssertionMessage<int>);

TEST(Assert, SkipsLevelOneAssertionsAtLevelZeroButNoCheck) {
    HookRecorder hook;
    Assert::setLevel(0);
    int evaluated = 0;
    GASSERT(1, ++evaluated < 0);
    EXPECT_EQ(evaluated, 0);
    EXPECT_TRUE(hook.failures().empty());
    GASSERT(0, 1 > 2);
    EXPECT_FALSE(CHECKF(false, "still"));
    EXPECT_EQ(hook.failures().size(), 2U);
    Assert::setLevel(1);
}

TEST(Assert, KeepsTheHookWhileItIsLocked) {
    const Assert::FailureHandler before = Assert::failureHandler();
    Assert::lockFailureHandler(true);
    EXPECT_FALSE(Assert::installFailureHandler(&Assert::failQuiet));
    EXPECT_EQ(Assert::failureHandler(), before);
    Assert::lockFailureHandler(false);
    EXPECT_TRUE(Assert::installFailureHandler(&Assert::failQuiet));
    EXPECT_EQ(Assert::failureHandler(), &Assert::failQuiet);
}

TEST(Assert, IsSilentWithoutAHook) {
    Assert::installFailureHandler(nullptr);
    const Printed printed = printedBy([] {
        EXPECT_FALSE(CHECKF_AT("utl_service", 70, false, "%d left", 3));
        GASSERT_AT("core_time", 1265, 1, 1 > 2);
    });
    EXPECT_EQ(printed.error + printed.output, "");
}

TEST(Assert, QuietHandlerWritesOneLineToStandardErrorAndGoesOn) {
    Assert::installFailureHandler(&Assert::failQuiet);
    const Printed printed = printedBy([] {
        EXPECT_FALSE(CHECKF_AT("utl_service", 70, false, "%d left", 3));
        GASSERT_AT("core_time", 1265, 1, 1 > 2);
    });
    EXPECT_EQ(printed.error, "GASSERT failed at utl_service:70 (3 left)\nGASSERT failed at core_time:1265 ()\n");
    EXPECT_EQ(printed.output, "");
}

const test::ChildProgram g_stopByCheck("StopByCheck", [](const auto&) {
    test::endQuietlyOnUnhandledFaults();
    HookRecorder hook;
    hook.answerStop(true);
    CHECKF(false, "stop");
    return 0;
});

// StopByAssertion is in core_failuredefault_test.cpp.
TEST(AssertStop, EndsTheProcessByAWriteToAddressZero) {
    for (const char* childName : {"StopByCheck", "StopByAssertion"}) {
        test::SelfProcess child(childName);
        child.readAll();
        EXPECT_EQ(child.wait(), test::kUnhandledFaultExitCode) << childName;
    }
}

// In a file of that name.
#line 7 "some.where/two.dots.cpp"
TEST(AssertPlace, IsTheFilesNameWithoutDirectoryAndExtension) {
    constexpr NS_CORE::Place place = NS_CORE::here();
    EXPECT_EQ(place.unit, "two.dots");
    EXPECT_EQ(place.line, 8);
}

} // namespace

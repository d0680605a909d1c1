#include <gtest/gtest.h>
#include <stdlib.h>
#include <windows.h>

#include <cerrno>
#include <cstdio>

#include "core/crash/core_crashguard.h"
#include "core/crash/internal/core_seh_win32.h"
#include "core/log/core_v2masterlogger.h"
#include "tests/support/child.h"
#include "tests/support/log_recorder.h"
#include "tests/support/self_process.h"

namespace {

using Lines = std::vector<std::string>;
using NS_CORE::runGuarded;
using NS_CORE::SehOutcome;
using NS_CORE::SehVerdict;

const std::string kInvalidParameter = "Invalid parameter detected (exp=(null)) (func=(null)) (file=(null):0)";

// Calls the runtime library with an argument that it refuses, and answers what it says then.
int callWithBadArgument() {
    return ::fopen_s(nullptr, "file", "r");
}

int badArgument(int, char**) {
    return callWithBadArgument();
}

TEST(InvalidParameter, IsLoggedAndTheCallAnswersItsError) {
    const test::LogRecorder log;
    char program[] = "program";
    char* argv[] = {program, nullptr};
    EXPECT_EQ(NS_CORE::guard(1, argv, &badArgument), EINVAL);
    EXPECT_EQ(log.lines(), Lines{"CRIT " + kInvalidParameter});
}

TEST(InvalidParameter, IsLoggedFromOtherThreadsToo) {
    const test::LogRecorder log;
    char program[] = "program";
    char* argv[] = {program, nullptr};
    NS_CORE::guard(1, argv, [](int, char**) {
        const HANDLE thread = ::CreateThread(
            nullptr, 0, [](void*) WINAPI -> DWORD { return static_cast<DWORD>(callWithBadArgument()); }, nullptr, 0,
            nullptr);
        ::WaitForSingleObject(thread, INFINITE);
        ::CloseHandle(thread);
        return 0;
    });
    EXPECT_EQ(log.lines(), Lines{"CRIT " + kInvalidParameter});
}

TEST(InvalidParameter, IsNotLoggedWithCritOff) {
    const test::LogRecorder log;
    NS_CORE::MasterLogger::setLevelFlags(NS_CORE::LogLevel::Crit, 0);
    NS_CORE::MasterLogger::setLevelImplementationBits(NS_CORE::LogLevel::Crit, 0);
    char program[] = "program";
    char* argv[] = {program, nullptr};
    EXPECT_EQ(NS_CORE::guard(1, argv, &badArgument), EINVAL);
    EXPECT_EQ(log.lines(), Lines{});
}

TEST(InvalidParameter, IsNotHandledWithTheSwitchWord) {
    const _invalid_parameter_handler before = _get_invalid_parameter_handler();
    char program[] = "program";
    char word[] = "jitd";
    char* argv[] = {program, word, nullptr};
    NS_CORE::guard(2, argv, [](int, char**) { return 0; });
    EXPECT_EQ(_get_invalid_parameter_handler(), before);
}

struct Filtered {
    DWORD code = 0;
    int calls = 0;
    SehVerdict verdict = SehVerdict::ExecuteHandler;
};

SehVerdict noteException(EXCEPTION_POINTERS* exception, void* context) {
    auto& filtered = *static_cast<Filtered*>(context);
    filtered.code = exception->ExceptionRecord->ExceptionCode;
    ++filtered.calls;
    return filtered.verdict;
}

constexpr DWORD kCode = 0xE1234567;

void raise(void*) {
    ::RaiseException(kCode, 0, 0, nullptr);
}

TEST(RunGuarded, PassesThroughABodyWithoutFault) {
    Filtered filtered;
    EXPECT_EQ(runGuarded([](void*) {}, &noteException, &filtered), SehOutcome::Returned);
    EXPECT_EQ(filtered.calls, 0);
}

TEST(RunGuarded, CatchesAgainAndAgain) {
    Filtered filtered;
    for (int round = 1; round <= 1000; ++round) {
        ASSERT_EQ(runGuarded(&raise, &noteException, &filtered), SehOutcome::Caught);
        ASSERT_EQ(filtered.calls, round);
        ASSERT_EQ(filtered.code, kCode);
    }
}

TEST(RunGuarded, LeavesToTheOuterGuardWhatItsFilterDoesNotWant) {
    Filtered outer;
    const auto body = [](void*) {
        Filtered inner;
        inner.verdict = SehVerdict::ContinueSearch;
        runGuarded(&raise, &noteException, &inner);
        ADD_FAILURE() << "the inner guard caught it";
    };
    EXPECT_EQ(runGuarded(body, &noteException, &outer), SehOutcome::Caught);
    EXPECT_EQ(outer.calls, 1);
    EXPECT_EQ(outer.code, kCode);
    // The chain is whole again.
    EXPECT_EQ(runGuarded(&raise, &noteException, &outer), SehOutcome::Caught);
}

TEST(RunGuarded, CatchesInsideWhatTheInnerGuardWants) {
    Filtered outer;
    const auto body = [](void*) {
        Filtered inner;
        EXPECT_EQ(runGuarded(&raise, &noteException, &inner), SehOutcome::Caught);
        EXPECT_EQ(inner.calls, 1);
    };
    EXPECT_EQ(runGuarded(body, &noteException, &outer), SehOutcome::Returned);
    EXPECT_EQ(outer.calls, 0);
}

TEST(RunGuarded, LetsACxxExceptionThrough) {
    Filtered filtered;
    EXPECT_THROW(runGuarded([](void*) { throw 1; }, &noteException, &filtered), int);
    EXPECT_EQ(filtered.calls, 0);
}

} // namespace

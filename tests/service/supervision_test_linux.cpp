#include <gtest/gtest.h>
#include <sched.h>
#include <sys/syscall.h>

#include <cerrno>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "core/check/core_assert.h"
#include "tests/service/stop_fixture.h"
#include "tests/support/child.h"
#include "tests/support/hook_recorder.h"
#include "tests/support/refused_call_linux.h"
#include "tests/support/self_process.h"

namespace service {
namespace {

using Lines = std::vector<std::string>;

TEST(StopTest, FailsACheckWithoutASocketAndStillEndsTheLoop) {
    const test::HookRecorder hook;
    const Lines lines = stopInVain([] {
        test::refuseCall(SYS_socket, EMFILE);
        return true;
    });
    EXPECT_EQ(hook.single(), (test::FailedCheck{"CHECKF", "main", 113, 0, ""}));
    ASSERT_GE(lines.size(), 3U);
    EXPECT_EQ(lines[1], "INFO Stop - Stop");
    EXPECT_EQ(lines[2], "WARN CORE::SmartSocket::create(2,2,0) - failed to open socket");
}

TEST(StopTest, FailsACheckWhenTheDatagramCannotBeSentAndStillEndsTheLoop) {
    const test::HookRecorder hook;
    // A network of the thread's own, whose loopback has not been brought up.
    const Lines lines = stopInVain([] { return ::unshare(CLONE_NEWNET) == 0; });
    if (lines.empty()) GTEST_SKIP() << "only root may have a network of its own";
    EXPECT_EQ(hook.single(), (test::FailedCheck{"CHECKF", "main", 122, 0, ""}));
    EXPECT_EQ(
        lines,
        (Lines{"INFO Run - Running", "INFO Stop - Stop",
               "WARN NS_CORE::Udp4Socket::send(10,34002,127.0.0.1) - failed in sendto (101: Network is unreachable)"}));
}

bool failWhenTheLoopHasEnded(const char*, std::string_view, int32_t, int32_t, const std::string&) {
    awaitTheLoopsEnd();
    return false;
}

TEST(StopTest, TheFlagIsClearedBeforeTheDatagramIsSent) {
    const test::HookRecorder putsTheHandlerBack;
    NS_CORE::Assert::installFailureHandler(&failWhenTheLoopHasEnded);
    stopThroughTheLoopsEnd([](Supervisor& supervisor) {
        std::thread([&] {
            test::refuseCall(SYS_socket, EMFILE);
            supervisor.stop();
        }).join();
    });
}

const test::ChildProgram g_stopsProcess("supervision_stops_process", [](const std::vector<std::string>& /*arguments*/) {
    test::HookRecorder hook;
    hook.answerStop(true);
    Supervisor supervisor({[] {}, [](const char*) {}}, /*restartDelayMs=*/0);
    test::refuseCall(SYS_socket, EMFILE);
    supervisor.stop();
    return 0;
});

TEST(StopTest, EndsTheProcessThereWhenTheHookSaysSo) {
    // By a fault; how that ends a process is its sanitizer's matter too.
    EXPECT_NE(test::SelfProcess("supervision_stops_process").wait(), 0);
}

} // namespace
} // namespace service

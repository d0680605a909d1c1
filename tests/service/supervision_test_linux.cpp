#include <gtest/gtest.h>
#include <sched.h>
#include <sys/syscall.h>

#include <cerrno>
#include <string>
#include <thread>
#include <vector>

#include "service/supervision.h"
#include "tests/support/child.h"
#include "tests/support/hook_recorder.h"
#include "tests/support/log_recorder.h"
#include "tests/support/refused_call_linux.h"
#include "tests/support/self_process.h"

namespace service {
namespace {

using Lines = std::vector<std::string>;

Supervisor::Steps stopsOnce(Supervisor*& supervisor, int& starts) {
    return {[] {},
            [&](const char*) {
                ++starts;
                supervisor->stop();
            }};
}

TEST(StopTest, FailsACheckWithoutASocketAndStillEndsTheLoop) {
    const test::HookRecorder hook;
    const test::LogRecorder log;
    int starts = 0;
    Supervisor* target = nullptr;
    Supervisor supervisor(stopsOnce(target, starts), /*restartDelayMs=*/0);
    target = &supervisor;
    std::thread([&supervisor] {
        test::refuseCall(SYS_socket, EMFILE);
        EXPECT_EQ(supervisor.run(0, nullptr), 0);
    }).join();
    EXPECT_EQ(hook.single(), (test::FailedCheck{"CHECKF", "main", 113, 0, ""}));
    EXPECT_EQ(starts, 1);
    const Lines lines = log.lines();
    ASSERT_GE(lines.size(), 3U);
    EXPECT_EQ(lines[1], "INFO Stop - Stop");
    EXPECT_EQ(lines[2], "WARN CORE::SmartSocket::create(2,2,0) - failed to open socket");
}

TEST(StopTest, FailsACheckWhenTheDatagramCannotBeSentAndStillEndsTheLoop) {
    const test::HookRecorder hook;
    const test::LogRecorder log;
    int starts = 0;
    Supervisor* target = nullptr;
    Supervisor supervisor(stopsOnce(target, starts), /*restartDelayMs=*/0);
    target = &supervisor;
    // A network of the thread's own, whose loopback has not been brought up.
    bool isSeparate = false;
    std::thread([&] {
        isSeparate = ::unshare(CLONE_NEWNET) == 0;
        if (!isSeparate) return;
        EXPECT_EQ(supervisor.run(0, nullptr), 0);
    }).join();
    if (!isSeparate) GTEST_SKIP() << "only root may have a network of its own";
    EXPECT_EQ(hook.single(), (test::FailedCheck{"CHECKF", "main", 122, 0, ""}));
    EXPECT_EQ(
        log.lines(),
        (Lines{"INFO Run - Running", "INFO Stop - Stop",
               "WARN NS_CORE::Udp4Socket::send(10,34002,127.0.0.1) - failed in sendto (101: Network is unreachable)"}));
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

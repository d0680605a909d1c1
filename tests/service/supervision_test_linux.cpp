#include <gtest/gtest.h>
#include <sched.h>
#include <sys/syscall.h>

#include <cerrno>
#include <chrono>
#include <functional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "core/check/core_assert.h"
#include "service/supervision.h"
#include "tests/support/child.h"
#include "tests/support/hook_recorder.h"
#include "tests/support/log_recorder.h"
#include "tests/support/refused_call_linux.h"
#include "tests/support/self_process.h"
#include "tests/support/semaphore.h"

namespace service {
namespace {

using Lines = std::vector<std::string>;

// The log of a loop that ends although the datagram cannot be sent, on a thread that `isolate` prepares: it tells
// whether it could.
Lines stopInVain(const std::function<bool()>& isolate) {
    const test::LogRecorder log;
    int starts = 0;
    std::thread([&] {
        if (!isolate()) return;
        Supervisor supervisor({[] {},
                               [&](const char*) {
                                   ++starts;
                                   supervisor.stop();
                               }},
                              /*restartDelayMs=*/0);
        EXPECT_EQ(supervisor.run(0, nullptr), 0);
        EXPECT_EQ(starts, 1);
    }).join();
    return log.lines();
}

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

// The loop is let go while the stop callback has got as far as its socket: it must find the flag cleared already.
test::Semaphore g_companionEnds;
test::Semaphore g_loopHasEnded;

bool endTheLoop(const char*, std::string_view, int32_t, int32_t, const std::string&) {
    g_companionEnds.release();
    EXPECT_TRUE(g_loopHasEnded.acquireWithin(std::chrono::seconds(60)));
    return false;
}

TEST(StopTest, TheFlagIsClearedBeforeTheDatagramIsSent) {
    const test::LogRecorder log;
    const test::HookRecorder putsTheHandlerBack;
    NS_CORE::Assert::installFailureHandler(&endTheLoop);
    test::Semaphore started;
    Supervisor supervisor({[] {},
                           [&](const char*) {
                               started.release();
                               g_companionEnds.acquire();
                           }},
                          /*restartDelayMs=*/0);
    std::thread loop([&] {
        EXPECT_EQ(supervisor.run(0, nullptr), 0);
        g_loopHasEnded.release();
    });
    started.acquire();
    std::thread([&] {
        test::refuseCall(SYS_socket, EMFILE);
        supervisor.stop();
    }).join();
    g_companionEnds.release(); // for a loop that goes on
    loop.join();
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

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "core/check/core_assert.h"
#include "service/supervision.h"
#include "tests/service/refusals.h"
#include "tests/support/child.h"
#include "tests/support/crash_kinds.h"
#include "tests/support/hook_recorder.h"
#include "tests/support/log_recorder.h"
#include "tests/support/self_process.h"
#include "tests/support/semaphore.h"

// Stops that meet a fault or the loop's end on their way.
namespace service {
namespace {

using Lines = std::vector<std::string>;

TEST(StopTest, FailsACheckWithoutItsDatagramAndStillEndsTheLoop) {
    struct Row {
        Refusal (*refuse)();
        int32_t line;
        Lines warnings;
    };
    for (const auto& [refuse, line, warnings] :
         {Row{&refuseSockets,
              113,
              {"WARN CORE::SmartSocket::create(2,2,0) - failed to open socket", "WARN Log at core_udp4socket:22"}},
          Row{&refuseDatagrams,
              122,
              {"WARN NS_CORE::Udp4Socket::send(10,34002,127.0.0.1) - failed in sendto (" + std::to_string(ENETUNREACH) +
               ": " + std::strerror(ENETUNREACH) + ')'}}}) {
        const test::HookRecorder hook;
        const test::LogRecorder log;
        int starts = 0;
        bool isRefused = false;
        std::thread([&] {
            const Refusal refusal = refuse();
            isRefused = refusal != nullptr;
            if (!isRefused) return;
            Supervisor supervisor({[] {},
                                   [&](const char*) {
                                       ++starts;
                                       supervisor.stop();
                                   }},
                                  /*restartDelayMs=*/0);
            EXPECT_EQ(supervisor.run(0, nullptr), 0);
        }).join();
        if (!isRefused) GTEST_SKIP() << "only root may have a network of its own";
        EXPECT_EQ(starts, 1);
        EXPECT_EQ(hook.single(), (test::FailedCheck{"CHECKF", "main", line, 0, ""}));
        Lines expected{"INFO Run - Running", "INFO Stop - Stop"};
        expected.insert(expected.end(), warnings.begin(), warnings.end());
        EXPECT_EQ(log.lines(), expected);
    }
}

test::Semaphore g_companionEnds;
test::Semaphore g_loopHasEnded;

// In the middle of the stop, which has failed to make its socket.
bool letTheLoopEnd(const char*, std::string_view, int32_t, int32_t, const std::string&) {
    g_companionEnds.release();
    EXPECT_TRUE(g_loopHasEnded.acquireWithin(std::chrono::seconds(60)));
    return false;
}

TEST(StopTest, TheFlagIsClearedBeforeTheDatagramIsSent) {
    const test::HookRecorder putsTheHandlerBack;
    NS_CORE::Assert::installFailureHandler(&letTheLoopEnd);
    const test::LogRecorder log;
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
        const Refusal refusal = refuseSockets();
        supervisor.stop();
    }).join();
    g_companionEnds.release(); // for a loop that goes on
    loop.join();
}

constexpr int kNotRefused = 3;

const test::ChildProgram g_stopsProcess("supervision_stops_process", [](const std::vector<std::string>& arguments) {
    test::HookRecorder hook;
    hook.answerStop(true);
    Supervisor supervisor({[] {}, [](const char*) {}}, /*restartDelayMs=*/0);
    const Refusal refusal = arguments.at(0) == "socket" ? refuseSockets() : refuseDatagrams();
    if (!refusal) return kNotRefused;
    test::endQuietlyOnUnhandledFaults();
    supervisor.stop();
    return 0;
});

TEST(StopTest, EndsTheProcessThereWhenTheHookSaysSo) {
    for (const char* const what : {"socket", "datagram"}) {
        const int64_t exitCode = test::SelfProcess("supervision_stops_process", {what}).wait();
        if (exitCode == kNotRefused) GTEST_SKIP() << "only root may have a network of its own";
        EXPECT_EQ(exitCode, test::kUnhandledFaultExitCode) << what;
    }
}

} // namespace
} // namespace service

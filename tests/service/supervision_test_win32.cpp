#include <gtest/gtest.h>
#include <winsock2.h>

#include "service/supervision.h"
#include "tests/support/hook_recorder.h"
#include "tests/support/log_recorder.h"

namespace service {
namespace {

TEST(StopTest, FailsACheckWithoutASocketAndStillEndsTheLoop) {
    const test::HookRecorder hook;
    const test::LogRecorder log;
    int starts = 0;
    Supervisor* target = nullptr;
    Supervisor supervisor({[] {},
                           [&](const char*) {
                               ++starts;
                               target->stop();
                           }},
                          /*restartDelayMs=*/0);
    target = &supervisor;
    // The socket library, shut down under the service.
    ASSERT_EQ(::WSACleanup(), 0);
    EXPECT_EQ(supervisor.run(0, nullptr), 0);
    EXPECT_EQ(hook.single(), (test::FailedCheck{"CHECKF", "main", 113, 0, ""}));
    EXPECT_EQ(starts, 1);
    ASSERT_GE(log.lines().size(), 3U);
    EXPECT_EQ(log.lines()[2], "WARN CORE::SmartSocket::create(2,2,0) - failed to open socket");
    WSADATA data;
    EXPECT_EQ(::WSAStartup(MAKEWORD(2, 2), &data), 0);
}

} // namespace
} // namespace service

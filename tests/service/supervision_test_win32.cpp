#include <gtest/gtest.h>
#include <winsock2.h>

#include <chrono>
#include <thread>
#include <vector>

#include "service/supervision.h"
#include "tests/support/child.h"
#include "tests/support/hook_recorder.h"
#include "tests/support/import_hook_win32.h"
#include "tests/support/log_recorder.h"
#include "tests/support/semaphore.h"

namespace service {
namespace {

// The loop ends although the datagram cannot be sent; what the service says of it is in `hook` and the result.
std::vector<std::string> stopInVain() {
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
    EXPECT_EQ(supervisor.run(0, nullptr), 0);
    EXPECT_EQ(starts, 1);
    return log.lines();
}

SOCKET WSAAPI refuseSocket(int /*family*/, int /*type*/, int /*protocol*/) {
    ::WSASetLastError(WSAEMFILE);
    return INVALID_SOCKET;
}

int WSAAPI refuseDatagram(SOCKET /*socket*/, const char* /*bytes*/, int /*length*/, int /*flags*/,
                          const sockaddr* /*to*/, int /*size*/) {
    ::WSASetLastError(WSAENETUNREACH);
    return SOCKET_ERROR;
}

TEST(StopTest, FailsACheckWithoutASocketAndStillEndsTheLoop) {
    const test::HookRecorder hook;
    const test::ImportHook socketHook("socket", &refuseSocket);
    const std::vector<std::string> lines = stopInVain();
    EXPECT_EQ(hook.single(), (test::FailedCheck{"CHECKF", "main", 113, 0, ""}));
    ASSERT_GE(lines.size(), 3U);
    EXPECT_EQ(lines[2], "WARN CORE::SmartSocket::create(2,2,0) - failed to open socket");
}

TEST(StopTest, FailsACheckWhenTheDatagramCannotBeSentAndStillEndsTheLoop) {
    const test::HookRecorder hook;
    const test::ImportHook socketHook("sendto", &refuseDatagram);
    const std::vector<std::string> lines = stopInVain();
    EXPECT_EQ(hook.single(), (test::FailedCheck{"CHECKF", "main", 122, 0, ""}));
    ASSERT_GE(lines.size(), 3U);
    EXPECT_TRUE(lines[2].starts_with("WARN NS_CORE::Udp4Socket::send(10,34002,127.0.0.1) - failed in sendto ("))
        << lines[2];
}

// The loop is let go while the stop callback is still sending: it must find the flag cleared already.
test::Semaphore g_companionEnds;
test::Semaphore g_loopHasEnded;

int WSAAPI sendAfterTheLoop(SOCKET /*socket*/, const char* /*bytes*/, int length, int /*flags*/, const sockaddr* /*to*/,
                            int /*size*/) {
    g_companionEnds.release();
    EXPECT_TRUE(g_loopHasEnded.acquireWithin(std::chrono::seconds(60)));
    return length;
}

TEST(StopTest, TheFlagIsClearedBeforeTheDatagramIsSent) {
    const test::LogRecorder log;
    const test::ImportHook socketHook("sendto", &sendAfterTheLoop);
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
    supervisor.stop();
    g_companionEnds.release(); // for a loop that goes on
    loop.join();
}

const test::ChildProgram g_stopsProcess("supervision_stops_process", [](const std::vector<std::string>& /*arguments*/) {
    test::HookRecorder hook;
    hook.answerStop(true);
    Supervisor supervisor({[] {}, [](const char*) {}}, /*restartDelayMs=*/0);
    const test::ImportHook socketHook("sendto", &refuseDatagram);
    supervisor.stop();
    return 0;
});

TEST(StopTest, EndsTheProcessThereWhenTheHookSaysSo) {
    EXPECT_NE(test::runAndWait(test::childCommandLine("supervision_stops_process")), 0);
}

} // namespace
} // namespace service

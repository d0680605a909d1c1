#include <gtest/gtest.h>
#include <winsock2.h>

#include <string>
#include <vector>

#include "tests/service/stop_fixture.h"
#include "tests/support/child.h"
#include "tests/support/hook_recorder.h"
#include "tests/support/import_hook_win32.h"

namespace service {
namespace {

const auto g_isReady = [] { return true; };

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
    const std::vector<std::string> lines = stopInVain(g_isReady);
    EXPECT_EQ(hook.single(), (test::FailedCheck{"CHECKF", "main", 113, 0, ""}));
    ASSERT_GE(lines.size(), 3U);
    EXPECT_EQ(lines[2], "WARN CORE::SmartSocket::create(2,2,0) - failed to open socket");
}

TEST(StopTest, FailsACheckWhenTheDatagramCannotBeSentAndStillEndsTheLoop) {
    const test::HookRecorder hook;
    const test::ImportHook socketHook("sendto", &refuseDatagram);
    const std::vector<std::string> lines = stopInVain(g_isReady);
    EXPECT_EQ(hook.single(), (test::FailedCheck{"CHECKF", "main", 122, 0, ""}));
    ASSERT_GE(lines.size(), 3U);
    EXPECT_TRUE(lines[2].starts_with("WARN NS_CORE::Udp4Socket::send(10,34002,127.0.0.1) - failed in sendto ("))
        << lines[2];
}

int WSAAPI sendAfterTheLoop(SOCKET /*socket*/, const char* /*bytes*/, int length, int /*flags*/, const sockaddr* /*to*/,
                            int /*size*/) {
    awaitTheLoopsEnd();
    return length;
}

TEST(StopTest, TheFlagIsClearedBeforeTheDatagramIsSent) {
    const test::ImportHook socketHook("sendto", &sendAfterTheLoop);
    stopThroughTheLoopsEnd([](Supervisor& supervisor) { supervisor.stop(); });
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

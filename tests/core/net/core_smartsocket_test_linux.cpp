#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>

#include <cerrno>
#include <thread>

#include "core/net/core_smartsocket.h"
#include "tests/support/child.h"
#include "tests/support/log_recorder.h"
#include "tests/support/refused_call_linux.h"

using NS_CORE::SmartSocket;

namespace {

constexpr int32_t kInet = 2;
constexpr int32_t kDatagram = 2;

const test::ChildProgram g_hasHandle("has-handle", [](const auto& arguments) {
    return ::fcntl(std::stoi(arguments.at(0)), F_GETFD) >= 0 ? 1 : 0;
});

} // namespace

TEST(SmartSocket, StaysEmptyWhenItsOptionIsRefused) {
    std::thread([] {
        test::refuseCall(SYS_setsockopt, EPERM);
        test::LogRecorder log;
        SmartSocket socket;
        EXPECT_FALSE(socket.create(kInet, kDatagram, /*protocol=*/0, NS_CORE::SocketFlag::ReuseAddr));
        EXPECT_FALSE(socket.isOpen());
        ASSERT_EQ(log.lines().size(), 2U);
        EXPECT_EQ(log.lines()[0], "WARN CORE::SmartSocket::setReuseAddr - failed to set REUSEADDR");
        EXPECT_TRUE(log.lines()[1].starts_with("WARN Log at core_smartsocket:")) << log.lines()[1];
        // Nothing was left open.
        const int next = ::fcntl(0, F_DUPFD_CLOEXEC, 3);
        EXPECT_TRUE(socket.create(kInet, kDatagram, /*protocol=*/0, /*flags=*/0));
        EXPECT_EQ(socket.handle(), next + 1);
    }).join();
}

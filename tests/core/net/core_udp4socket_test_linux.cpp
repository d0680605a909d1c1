#include <gtest/gtest.h>
#include <sched.h>
#include <sys/resource.h>

#include <thread>

#include "core/log/core_v2masterlogger.h"
#include "core/net/core_socket.h"
#include "core/net/core_udp4socket.h"
#include "tests/support/log_recorder.h"

using NS_CORE::Udp4Socket;

TEST(Udp4Socket, SaysWhereTheOpenFailed) {
    Udp4Socket socket;
    test::LogRecorder log;
    // A sanitizer needs descriptors when it first looks at the recorder.
    NS_CORE::MasterLogger::logText(NS_CORE::LogLevel::Warn, "first");
    // No descriptor is to be had any more.
    rlimit limit{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &limit), 0);
    const rlimit none{0, limit.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
    EXPECT_FALSE(socket.open(/*flags=*/1, NS_CORE::kLoopbackAddress));
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);
    const std::vector<std::string> lines = log.lines();
    ASSERT_EQ(lines.size(), 3U);
    EXPECT_EQ(lines[1], "WARN CORE::SmartSocket::create(2,2,0) - failed to open socket");
    EXPECT_TRUE(lines[2].starts_with("WARN Log at core_udp4socket:")) << lines[2];
    EXPECT_FALSE(socket.isOpen());
    EXPECT_EQ(socket.family(), 0);
    EXPECT_EQ(socket.flags(), 0U);
    EXPECT_EQ(socket.localAddress(), 0U);
    // It can be opened once there is room again.
    EXPECT_TRUE(socket.open(/*flags=*/0, NS_CORE::kAnyAddress));
}

TEST(Udp4Socket, ReportsANetworkThatCannotBeReached) {
    // On a thread of its own, which leaves the machine's network for good.
    std::thread([] {
        // A network with nothing in it, not even the loopback.
        ASSERT_EQ(::unshare(CLONE_NEWNET), 0);
        Udp4Socket socket;
        ASSERT_TRUE(socket.open(/*flags=*/0, NS_CORE::kAnyAddress));
        test::LogRecorder log;
        EXPECT_FALSE(socket.send("127.0.0.1", 34002, "0123456789", 10));
        EXPECT_EQ(log.lines(),
                  (std::vector<std::string>{"WARN NS_CORE::Udp4Socket::send(10,34002,127.0.0.1) - failed in "
                                            "sendto (101: Network is unreachable)"}));
    }).join();
}

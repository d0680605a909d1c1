#include <gtest/gtest.h>
#include <sys/syscall.h>

#include <cerrno>

#include <thread>

#include "core/net/core_socket.h"
#include "core/net/core_udp4socket.h"
#include "tests/support/log_recorder.h"
#include "tests/support/refused_call_linux.h"

using NS_CORE::Udp4Socket;

TEST(Udp4Socket, SaysWhereTheOpenFailedAndStaysClosed) {
    std::thread([] {
        test::refuseCall(SYS_socket, EMFILE);
        Udp4Socket socket;
        const test::LogRecorder log;
        EXPECT_FALSE(socket.open(/*flags=*/1, NS_CORE::kLoopbackAddress));
        ASSERT_EQ(log.lines().size(), 2U);
        EXPECT_EQ(log.lines()[0], "WARN CORE::SmartSocket::create(2,2,0) - failed to open socket");
        EXPECT_TRUE(log.lines()[1].starts_with("WARN Log at core_udp4socket:")) << log.lines()[1];
        EXPECT_FALSE(socket.isOpen());
        EXPECT_EQ(socket.family(), 0);
        EXPECT_EQ(socket.flags(), 0U);
        EXPECT_EQ(socket.localAddress(), 0U);
    }).join();
}

#include "core/net/core_udp4socket.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <tuple>
#include <type_traits>

#include "core/net/core_socket.h"
#include "core/net/core_socket_platform.h"
#include "core/text/core_varargs.h"
#include "tests/support/hook_recorder.h"
#include "tests/support/log_recorder.h"
#include "tests/support/udp_receiver.h"

namespace NS_CORE {
namespace {

using Lines = std::vector<std::string>;
using SocketFlag::NonBlocking;
using SocketFlag::ReuseAddr;

void expectCheck(const test::HookRecorder& hook) {
    EXPECT_EQ(hook.single(), (test::FailedCheck{"CHECKF", "core_udp4socket", hook.single().line, 0, ""}));
}

// A socket that shows what only derived classes may touch.
class OpenedUp : public Udp4Socket {
public:
    using Udp4Socket::leaveMulticastGroup;
    using Udp4Socket::m_memberships;
    using Udp4Socket::m_socket;

    bool join(const char* group, uint32_t interfaceAddress) {
        Membership membership{::inet_addr(group), interfaceAddress};
        const bool joined = socket_platform::setOption(m_socket.handle(), IPPROTO_IP, IP_ADD_MEMBERSHIP, &membership,
                                                       sizeof membership);
        if (joined) m_memberships.push_back(membership);
        return joined;
    }
};

static_assert(!std::is_copy_constructible_v<Udp4Socket>);

// An open socket and somebody who receives.
struct OpenUdp4Socket : testing::Test {
    OpenUdp4Socket() { EXPECT_TRUE(socket.open(/*flags=*/0, kAnyAddress)); }
    bool send(const std::string& bytes) {
        return socket.send(kLoopbackAddress, receiver.port(), bytes.data(), static_cast<uint32_t>(bytes.size()));
    }

    test::UdpReceiver receiver;
    OpenedUp socket;
    test::LogRecorder log;
};

TEST(Udp4Socket, IsClosedAndEmptyUntilItNotesWhatItWasOpenedWith) {
    Udp4Socket socket;
    const auto noted = [&] {
        return std::tuple(socket.isOpen(), socket.family(), socket.type(), socket.protocol(), socket.flags(),
                          socket.localAddress());
    };
    EXPECT_EQ(noted(), std::tuple(false, 0, 0, 0, 0U, 0U));
    ASSERT_TRUE(socket.open(NonBlocking | ReuseAddr, kLoopbackAddress));
    EXPECT_EQ(noted(), std::tuple(true, 2, 2, 0, 3U, ::inet_addr("127.0.0.1")));
}

TEST_F(OpenUdp4Socket, DeliversTheBytesTheLengthAndTheSendersAddress) {
    for (const std::string& bytes : {std::string("a\0b\n\rc\x1a"
                                                 "def",
                                                 10),
                                     std::string(65507, 'q')}) {
        ASSERT_TRUE(send(bytes));
        const test::Datagram datagram = receiver.receive();
        EXPECT_EQ(datagram.bytes, bytes);
        EXPECT_EQ(datagram.senderAddress, "127.0.0.1");
        EXPECT_NE(datagram.senderPort, 0);
    }
}

TEST_F(OpenUdp4Socket, IsBoundByTheSystemAtTheFirstSendAndKeepsThatPort) {
    sockaddr_in address;
    ASSERT_TRUE(SetSockAddr("127.0.0.1", receiver.port(), address));
    ASSERT_TRUE(socket.send(kLoopbackAddress, receiver.port(), "1", 1));
    ASSERT_TRUE(socket.send("127.0.0.1", receiver.port(), "2", 1));
    ASSERT_TRUE(socket.send(address, "3", 1));
    sockaddr_in local = {};
    socklen_t size = sizeof local;
    ASSERT_EQ(::getsockname(static_cast<test::SystemSocket>(socket.m_socket.handle()),
                            reinterpret_cast<sockaddr*>(&local), &size),
              0);
    for (const char* const bytes : {"1", "2", "3"}) {
        const test::Datagram datagram = receiver.receive();
        EXPECT_EQ(datagram.bytes, bytes);
        EXPECT_EQ(datagram.senderPort, ntohs(local.sin_port));
    }
}

TEST(Udp4Socket, DoesNotBindToTheLocalAddressThatItNotes) {
    test::UdpReceiver receiver;
    Udp4Socket socket;
    // Were it bound to this address, it could not send to the loopback address.
    ASSERT_TRUE(socket.open(/*flags=*/0, ::inet_addr("192.0.2.1")));
    ASSERT_TRUE(socket.send(kLoopbackAddress, receiver.port(), "x", 1));
    EXPECT_EQ(receiver.receive().senderAddress, "127.0.0.1");
}

TEST(Udp4Socket, RefusesASecondOpenAndKeepsTheFirstHandle) {
    OpenedUp socket;
    ASSERT_TRUE(socket.open(ReuseAddr, kLoopbackAddress));
    const SocketHandle first = socket.m_socket.handle();
    test::HookRecorder hook;
    EXPECT_FALSE(socket.open(/*flags=*/0, kAnyAddress));
    expectCheck(hook);
    EXPECT_EQ(socket.m_socket.handle(), first);
    EXPECT_EQ(socket.flags(), ReuseAddr);
    EXPECT_EQ(socket.localAddress(), kLoopbackAddress);
    test::UdpReceiver receiver;
    EXPECT_TRUE(socket.send(kLoopbackAddress, receiver.port(), "still", 5));
    EXPECT_EQ(receiver.receive().bytes, "still");
}

TEST(Udp4Socket, RefusesToSendWhileClosed) {
    test::HookRecorder hook;
    test::LogRecorder log;
    Udp4Socket socket;
    EXPECT_FALSE(socket.send(kLoopbackAddress, 9, "x", 1));
    expectCheck(hook);
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(OpenUdp4Socket, NeverSendsAnEmptyDatagram) {
    const test::HookRecorder hook;
    EXPECT_FALSE(send(""));
    expectCheck(hook);
    EXPECT_EQ(log.lines(), Lines());
    // The next datagram is the first to arrive.
    ASSERT_TRUE(send("after"));
    EXPECT_EQ(receiver.receive().bytes, "after");
}

TEST_F(OpenUdp4Socket, NamesTheTextThatIsNoAddress) {
    EXPECT_FALSE(socket.send("255.255.255.256", 34002, "0123456789", 10));
    EXPECT_EQ(log.lines(), (Lines{"WARN CORE::SetSockAddr - invalid ip '255.255.255.256'",
                                  "WARN CORE::Udp4Socket::send(10,34002,255.255.255.256) - failed to set sockaddr"}));
}

TEST_F(OpenUdp4Socket, ReportsAFailedSendWithTheRuntimesError) {
    // No datagram is that large.
    const std::string bytes(70000, 'q');
    errno = 0;
    EXPECT_FALSE(socket.send(kLoopbackAddress, 34002, bytes.data(), static_cast<uint32_t>(bytes.size())));
    EXPECT_EQ(log.lines(),
              Lines{formatString("WARN NS_CORE::Udp4Socket::send(70000,34002,127.0.0.1) - failed in sendto (%u: %s)",
                                 static_cast<unsigned>(test::kErrnoOfTooLargeDatagram),
                                 std::strerror(test::kErrnoOfTooLargeDatagram))});
}

TEST_F(OpenUdp4Socket, ReportsBroadcastWithoutTheRightToIt) {
    EXPECT_FALSE(socket.send("255.255.255.255", 65535, "x", 1));
    ASSERT_EQ(log.lines().size(), 1U);
    EXPECT_TRUE(
        log.lines()[0].starts_with("WARN NS_CORE::Udp4Socket::send(1,65535,255.255.255.255) - failed in sendto ("))
        << log.lines()[0];
}

TEST_F(OpenUdp4Socket, LeavesItsGroupsWhenItEnds) {
    {
        OpenedUp member;
        ASSERT_TRUE(member.open(/*flags=*/0, kAnyAddress));
        ASSERT_TRUE(member.join("239.1.2.3", kLoopbackAddress));
        ASSERT_TRUE(member.join("239.1.2.4", kLoopbackAddress));
        member.leaveMulticastGroup(::inet_addr("192.0.2.1"));
        EXPECT_EQ(member.m_memberships.size(), 2U);
        member.leaveMulticastGroup(kLoopbackAddress);
        EXPECT_TRUE(member.m_memberships.empty());
        // Left, so that it can be joined again.
        ASSERT_TRUE(member.join("239.1.2.3", kLoopbackAddress));
    }
    EXPECT_EQ(log.lines(), Lines());
}

TEST(Udp4Socket, ReportsEveryGroupThatItCannotLeave) {
    test::LogRecorder log;
    {
        OpenedUp socket;
        ASSERT_TRUE(socket.open(/*flags=*/0, kAnyAddress));
        socket.m_memberships = {{::inet_addr("239.1.2.3"), kLoopbackAddress}, {::inet_addr("239.1.2.4"), kAnyAddress}};
    }
    {
        OpenedUp closed;
        closed.m_memberships = {{::inet_addr("239.1.2.3"), kAnyAddress}};
    }
    const std::string function = "WARN CORE::Udp4Socket::leaveMulticastGroup";
    EXPECT_EQ(log.lines(), (Lines{function + "(239.1.2.3) - failed dropping membership for interface 127.0.0.1",
                                  function + "(239.1.2.4) - failed dropping membership for interface 0.0.0.0"}));
}

TEST(Udp4Socket, LeavesNoHandleBehind) {
    SocketHandle first = kInvalidSocket;
    for (int i = 0; i < 1000; ++i) {
        OpenedUp socket;
        ASSERT_TRUE(socket.open(/*flags=*/0, kAnyAddress));
        if (i == 0) first = socket.m_socket.handle();
        ASSERT_EQ(socket.m_socket.handle(), first);
    }
}

} // namespace
} // namespace NS_CORE

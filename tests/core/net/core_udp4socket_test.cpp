#include "core/net/core_udp4socket.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <type_traits>

#include "core/net/core_socket.h"
#include "core/net/core_socket_platform.h"
#include "core/text/core_varargs.h"
#include "tests/support/hook_recorder.h"
#include "tests/support/log_recorder.h"
#include "tests/support/udp_receiver.h"

using NS_CORE::kAnyAddress;
using NS_CORE::kLoopbackAddress;
using NS_CORE::Udp4Socket;
using NS_CORE::SocketFlag::NonBlocking;
using NS_CORE::SocketFlag::ReuseAddr;

namespace {

const test::FailedCheck* checkOf(const test::FailedCheck& check) {
    EXPECT_EQ(check.expression, "CHECKF");
    EXPECT_EQ(check.file, "core_udp4socket");
    EXPECT_EQ(check.level, 0);
    EXPECT_EQ(check.message, "");
    return &check;
}

// A socket that shows what only derived classes may touch.
class OpenedUp : public Udp4Socket {
public:
    using Udp4Socket::leaveMulticastGroup;
    using Udp4Socket::m_memberships;
    using Udp4Socket::m_socket;

    bool join(const char* group, uint32_t interfaceAddress) {
        Membership membership{::inet_addr(group), interfaceAddress};
        const bool joined = NS_CORE::socket_platform::setOption(m_socket.handle(), IPPROTO_IP, IP_ADD_MEMBERSHIP,
                                                                &membership, sizeof membership);
        if (joined) m_memberships.push_back(membership);
        return joined;
    }
};

static_assert(!std::is_copy_constructible_v<Udp4Socket>);

} // namespace

TEST(Udp4Socket, IsClosedAndEmptyWhenConstructed) {
    const Udp4Socket socket;
    EXPECT_FALSE(socket.isOpen());
    EXPECT_EQ(socket.family(), 0);
    EXPECT_EQ(socket.type(), 0);
    EXPECT_EQ(socket.protocol(), 0);
    EXPECT_EQ(socket.flags(), 0U);
    EXPECT_EQ(socket.localAddress(), 0U);
}

TEST(Udp4Socket, NotesWhatItWasOpenedWith) {
    Udp4Socket socket;
    ASSERT_TRUE(socket.open(NonBlocking | ReuseAddr, kLoopbackAddress));
    EXPECT_TRUE(socket.isOpen());
    EXPECT_EQ(socket.family(), 2);
    EXPECT_EQ(socket.type(), 2);
    EXPECT_EQ(socket.protocol(), 0);
    EXPECT_EQ(socket.flags(), 3U);
    EXPECT_EQ(socket.localAddress(), ::inet_addr("127.0.0.1"));
}

TEST(Udp4Socket, DeliversTheBytesTheLengthAndTheSendersAddress) {
    test::UdpReceiver receiver;
    Udp4Socket socket;
    ASSERT_TRUE(socket.open(/*flags=*/0, kAnyAddress));
    const char bytes[10] = {'a', '\0', 'b', '\n', '\r', 'c', '\x1a', 'd', 'e', 'f'};
    ASSERT_TRUE(socket.send(kLoopbackAddress, receiver.port(), bytes, sizeof bytes));
    const test::Datagram datagram = receiver.receive();
    EXPECT_EQ(datagram.bytes, std::string(bytes, sizeof bytes));
    EXPECT_EQ(datagram.senderAddress, "127.0.0.1");
    EXPECT_NE(datagram.senderPort, 0);
}

TEST(Udp4Socket, IsBoundBySystemAtTheFirstSendAndKeepsThatPort) {
    test::UdpReceiver receiver;
    OpenedUp socket;
    ASSERT_TRUE(socket.open(/*flags=*/0, kAnyAddress));
    ASSERT_TRUE(socket.send(kLoopbackAddress, receiver.port(), "1", 1));
    ASSERT_TRUE(socket.send("127.0.0.1", receiver.port(), "2", 1));
    const test::Datagram first = receiver.receive();
    const test::Datagram second = receiver.receive();
    EXPECT_EQ(first.bytes, "1");
    EXPECT_EQ(second.bytes, "2");
    EXPECT_EQ(first.senderPort, second.senderPort);
    sockaddr_in local = {};
    socklen_t size = sizeof local;
    ASSERT_EQ(::getsockname(static_cast<test::SystemSocket>(socket.m_socket.handle()),
                            reinterpret_cast<sockaddr*>(&local), &size),
              0);
    EXPECT_EQ(ntohs(local.sin_port), first.senderPort);
}

TEST(Udp4Socket, DoesNotBindToTheLocalAddressThatItNotes) {
    test::UdpReceiver receiver;
    Udp4Socket socket;
    // Were it bound to this address, it could not send to the loopback address.
    ASSERT_TRUE(socket.open(/*flags=*/0, ::inet_addr("192.0.2.1")));
    ASSERT_TRUE(socket.send(kLoopbackAddress, receiver.port(), "x", 1));
    EXPECT_EQ(receiver.receive().senderAddress, "127.0.0.1");
}

TEST(Udp4Socket, SendsToAFilledSocketAddress) {
    test::UdpReceiver receiver;
    Udp4Socket socket;
    ASSERT_TRUE(socket.open(/*flags=*/0, kAnyAddress));
    sockaddr_in address;
    ASSERT_TRUE(NS_CORE::SetSockAddr("127.0.0.1", receiver.port(), address));
    ASSERT_TRUE(socket.send(address, "common path", 11));
    EXPECT_EQ(receiver.receive().bytes, "common path");
}

TEST(Udp4Socket, DeliversTheLargestDatagram) {
    test::UdpReceiver receiver;
    Udp4Socket socket;
    ASSERT_TRUE(socket.open(/*flags=*/0, kAnyAddress));
    const std::string bytes(65507, 'q');
    ASSERT_TRUE(socket.send(kLoopbackAddress, receiver.port(), bytes.data(), static_cast<uint32_t>(bytes.size())));
    EXPECT_EQ(receiver.receive().bytes, bytes);
}

TEST(Udp4Socket, RefusesASecondOpenAndKeepsTheFirstHandle) {
    OpenedUp socket;
    ASSERT_TRUE(socket.open(ReuseAddr, kLoopbackAddress));
    const NS_CORE::SocketHandle first = socket.m_socket.handle();
    test::HookRecorder hook;
    EXPECT_FALSE(socket.open(/*flags=*/0, kAnyAddress));
    checkOf(hook.single());
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
    checkOf(hook.single());
    EXPECT_TRUE(log.lines().empty());
}

TEST(Udp4Socket, NeverSendsAnEmptyDatagram) {
    test::UdpReceiver receiver;
    Udp4Socket socket;
    ASSERT_TRUE(socket.open(/*flags=*/0, kAnyAddress));
    test::HookRecorder hook;
    test::LogRecorder log;
    EXPECT_FALSE(socket.send(kLoopbackAddress, receiver.port(), "", 0));
    checkOf(hook.single());
    EXPECT_TRUE(log.lines().empty());
    // The next datagram is the first to arrive.
    ASSERT_TRUE(socket.send(kLoopbackAddress, receiver.port(), "after", 5));
    EXPECT_EQ(receiver.receive().bytes, "after");
}

TEST(Udp4Socket, NamesTheTextThatIsNoAddress) {
    Udp4Socket socket;
    ASSERT_TRUE(socket.open(/*flags=*/0, kAnyAddress));
    test::LogRecorder log;
    EXPECT_FALSE(socket.send("255.255.255.256", 34002, "0123456789", 10));
    EXPECT_EQ(log.lines(), (std::vector<std::string>{
                               "WARN CORE::SetSockAddr - invalid ip '255.255.255.256'",
                               "WARN CORE::Udp4Socket::send(10,34002,255.255.255.256) - failed to set sockaddr"}));
}

TEST(Udp4Socket, ReportsAFailedSendWithTheRuntimesError) {
    Udp4Socket socket;
    ASSERT_TRUE(socket.open(/*flags=*/0, kAnyAddress));
    test::LogRecorder log;
    // No datagram is that large.
    const std::string bytes(70000, 'q');
    errno = 0;
    EXPECT_FALSE(socket.send(kLoopbackAddress, 34002, bytes.data(), static_cast<uint32_t>(bytes.size())));
    EXPECT_EQ(log.lines(), (std::vector<std::string>{NS_CORE::formatString(
                               "WARN NS_CORE::Udp4Socket::send(70000,34002,127.0.0.1) - failed in sendto (%u: %s)",
                               static_cast<unsigned>(test::kErrnoOfTooLargeDatagram),
                               std::strerror(test::kErrnoOfTooLargeDatagram))}));
}

TEST(Udp4Socket, ReportsBroadcastWithoutTheRightToIt) {
    Udp4Socket socket;
    ASSERT_TRUE(socket.open(/*flags=*/0, kAnyAddress));
    test::LogRecorder log;
    EXPECT_FALSE(socket.send("255.255.255.255", 65535, "x", 1));
    ASSERT_EQ(log.lines().size(), 1U);
    EXPECT_EQ(log.lines()[0].find("WARN NS_CORE::Udp4Socket::send(1,65535,255.255.255.255) - failed in sendto ("), 0U)
        << log.lines()[0];
}

TEST(Udp4Socket, LeavesItsGroupsWhenItEnds) {
    test::LogRecorder log;
    OpenedUp probe;
    ASSERT_TRUE(probe.open(/*flags=*/0, kAnyAddress));
    {
        OpenedUp socket;
        ASSERT_TRUE(socket.open(/*flags=*/0, kAnyAddress));
        ASSERT_TRUE(socket.join("239.1.2.3", kLoopbackAddress));
        ASSERT_TRUE(socket.join("239.1.2.4", kLoopbackAddress));
        socket.leaveMulticastGroup(::inet_addr("192.0.2.1"));
        EXPECT_EQ(socket.m_memberships.size(), 2U);
        socket.leaveMulticastGroup(kLoopbackAddress);
        EXPECT_TRUE(socket.m_memberships.empty());
        // Left, so that it can be joined again.
        ASSERT_TRUE(socket.join("239.1.2.3", kLoopbackAddress));
    }
    EXPECT_TRUE(log.lines().empty());
}

TEST(Udp4Socket, ReportsEveryGroupThatItCannotLeave) {
    test::LogRecorder log;
    {
        OpenedUp socket;
        ASSERT_TRUE(socket.open(/*flags=*/0, kAnyAddress));
        socket.m_memberships = {{::inet_addr("239.1.2.3"), kLoopbackAddress}, {::inet_addr("239.1.2.4"), kAnyAddress}};
    }
    const std::string function = "WARN CORE::Udp4Socket::leaveMulticastGroup";
    EXPECT_EQ(log.lines(),
              (std::vector<std::string>{function + "(239.1.2.3) - failed dropping membership for interface 127.0.0.1",
                                        function + "(239.1.2.4) - failed dropping membership for interface 0.0.0.0"}));
}

TEST(Udp4Socket, LeavesNoHandleBehind) {
    NS_CORE::SocketHandle first = NS_CORE::kInvalidSocket;
    for (int i = 0; i < 1000; ++i) {
        OpenedUp socket;
        ASSERT_TRUE(socket.open(/*flags=*/0, kAnyAddress));
        if (i == 0) first = socket.m_socket.handle();
        ASSERT_EQ(socket.m_socket.handle(), first);
    }
}

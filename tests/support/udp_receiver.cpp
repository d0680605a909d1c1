#include "tests/support/udp_receiver.h"

#include <gtest/gtest.h>

#include "core/net/core_socket.h"

namespace test {

UdpReceiver::UdpReceiver(uint16_t port) {
    EXPECT_TRUE(m_socket.create(AF_INET, SOCK_DGRAM, /*protocol=*/0, /*flags=*/0));
    sockaddr_in address;
    EXPECT_TRUE(NS_CORE::SetSockAddr("127.0.0.1", port, address));
    const auto socket = static_cast<SystemSocket>(m_socket.handle());
    EXPECT_EQ(::bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    socklen_t size = sizeof address;
    EXPECT_EQ(::getsockname(socket, reinterpret_cast<sockaddr*>(&address), &size), 0);
    m_port = ntohs(address.sin_port);
}

Datagram UdpReceiver::receive() {
    const auto socket = static_cast<SystemSocket>(m_socket.handle());
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(socket, &readable);
    timeval limit = {10, 0};
    if (::select(static_cast<int>(socket) + 1, &readable, nullptr, nullptr, &limit) != 1) {
        ADD_FAILURE() << "no datagram arrived";
        return {};
    }
    constexpr int kLargest = 65536;
    std::string bytes(kLargest, '\0');
    sockaddr_in sender = {};
    socklen_t size = sizeof sender;
    const auto length =
        ::recvfrom(socket, bytes.data(), kLargest, /*flags=*/0, reinterpret_cast<sockaddr*>(&sender), &size);
    EXPECT_GE(length, 0);
    bytes.resize(length < 0 ? 0 : static_cast<size_t>(length));
    return {bytes, NS_CORE::addressText(sender.sin_addr.s_addr), ntohs(sender.sin_port)};
}

} // namespace test

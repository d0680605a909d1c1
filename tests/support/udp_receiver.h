#pragma once

#include <cerrno>
#include <cstdint>
#include <string>

#include "core/net/core_smartsocket.h"
#include "core/net/core_socket_platform.h"

namespace test {

// As the system's own calls take a socket.
#ifdef _WIN32
using SystemSocket = SOCKET;
// The socket library on Windows keeps its errors apart from the runtime's.
inline constexpr int kErrnoOfTooLargeDatagram = 0;
#else
using SystemSocket = int;
inline constexpr int kErrnoOfTooLargeDatagram = EMSGSIZE;
#endif

struct Datagram {
    std::string bytes;
    std::string senderAddress;
    uint16_t senderPort;
};

// Listens on a port of the loopback address, one that the system chooses unless it is given.
class UdpReceiver {
public:
    explicit UdpReceiver(uint16_t port = 0);

    uint16_t port() const { return m_port; }

    // The next datagram; fails the test when none arrives within ten seconds.
    Datagram receive();

private:
    NS_CORE::SmartSocket m_socket;
    uint16_t m_port = 0;
};

} // namespace test

#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "core/net/core_smartsocket.h"

struct sockaddr_in;

namespace NS_CORE {

// Sends datagrams over IPv4. Closed at construction; open() opens it, destruction closes it. It is not bound: the
// system gives it a local port at the first send. Failures of the system are logged at WARN; misuse fails a CHECKF
// with an empty message and, if the process goes on, returns false. Addresses are in network byte order, ports in host
// order. One thread at a time; a send may wait for room in the system's buffer unless NonBlocking was given.
class Udp4Socket {
public:
    Udp4Socket() = default;
    // Leaves every joined group (failures logged at WARN), then closes.
    ~Udp4Socket();
    Udp4Socket(const Udp4Socket&) = delete;
    Udp4Socket& operator=(const Udp4Socket&) = delete;

    // flags         of SocketFlag.
    // localAddress  stored for localAddress() and not used otherwise; kAnyAddress is usual.
    // Opening an open socket is misuse and keeps the first. After a failure the socket is closed as before.
    [[nodiscard]] bool open(uint32_t flags, uint32_t localAddress);

    // One datagram of `length` bytes, which must not be 0. True when the system took it.
    [[nodiscard]] bool send(uint32_t address, uint16_t port, const void* data, uint32_t length);
    // `address` is a dotted quad, as SetSockAddr (core_socket.h) reads it.
    [[nodiscard]] bool send(const std::string& address, uint16_t port, const void* data, uint32_t length);
    [[nodiscard]] bool send(const sockaddr_in& address, const void* data, uint32_t length);

    bool isOpen() const { return m_socket.isOpen(); }

    // What the socket was opened with; all 0 before.
    int32_t family() const { return m_family; }
    int32_t type() const { return m_type; }
    int32_t protocol() const { return m_protocol; }
    uint32_t flags() const { return m_flags; }
    uint32_t localAddress() const { return m_localAddress; }

protected:
    // A joined multicast group, laid out as the system's ip_mreq.
    struct Membership {
        uint32_t group;
        uint32_t interfaceAddress;
    };

    // Leaves the groups joined on an interface; kAnyAddress stands for every interface. A group that cannot be
    // left is logged at WARN and forgotten all the same.
    void leaveMulticastGroup(uint32_t interfaceAddress);

    SmartSocket m_socket;

private:
    int32_t m_family = 0;
    int32_t m_type = 0;
    int32_t m_protocol = 0;
    uint32_t m_flags = 0;
    int32_t m_reserved = -1; // part of the layout; nothing reads it
    uint32_t m_localAddress = 0;

protected:
    std::vector<Membership> m_memberships; // for sockets that receive; this class joins none
};

} // namespace NS_CORE

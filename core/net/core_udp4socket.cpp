#include "core/net/core_udp4socket.h"

#include <cerrno>
#include <cstring>
#include <utility>

#include "core/log/core_v2masterlogger.h"
#include "core/net/core_socket.h"
#include "core/net/core_socket_platform.h"
#include "core/text/core_checkf.h"

namespace NS_CORE {

Udp4Socket::~Udp4Socket() {
    if (isOpen() && !m_memberships.empty()) leaveMulticastGroup(kAnyAddress);
}

bool Udp4Socket::open(uint32_t flags, uint32_t localAddress) {
    if (!CHECKF(!isOpen(), "")) return false;
    SmartSocket socket;
    if (!socket.create(AF_INET, SOCK_DGRAM, /*protocol=*/0, flags)) {
        const Place place = here();
        MasterLogger::logAt(LogLevel::Warn, place.unit, place.line);
        return false;
    }
    m_reserved = -1;
    m_localAddress = localAddress;
    m_family = AF_INET;
    m_type = SOCK_DGRAM;
    m_protocol = 0;
    m_flags = flags;
    m_socket = std::move(socket);
    return true;
}

bool Udp4Socket::send(uint32_t address, uint16_t port, const void* data, uint32_t length) {
    sockaddr_in socketAddress = {};
    socketAddress.sin_family = AF_INET;
    socketAddress.sin_port = htons(port);
    socketAddress.sin_addr.s_addr = address;
    return send(socketAddress, data, length);
}

bool Udp4Socket::send(const std::string& address, uint16_t port, const void* data, uint32_t length) {
    sockaddr_in socketAddress;
    if (!SetSockAddr(address, port, socketAddress)) {
        MLOG(Warn, "CORE::Udp4Socket::send", "(%u,%u,%s) - failed to set sockaddr", length, port, address);
        return false;
    }
    return send(socketAddress, data, length);
}

bool Udp4Socket::send(const sockaddr_in& address, const void* data, uint32_t length) {
    if (!CHECKF(isOpen(), "")) return false;
    if (!CHECKF(length != 0, "")) return false;
    if (socket_platform::send(m_socket.handle(), data, length, address)) return true;
    // This message has always shown the runtime's errno, on Windows too, where the socket library keeps its errors
    // elsewhere.
    const int error = errno;
    MLOG(Warn, "NS_CORE::Udp4Socket::send", "(%u,%u,%s) - failed in sendto (%u: %s)", length, ntohs(address.sin_port),
         addressText(address.sin_addr.s_addr), static_cast<uint32_t>(error), std::strerror(error));
    return false;
}

void Udp4Socket::leaveMulticastGroup(uint32_t interfaceAddress) {
    std::erase_if(m_memberships, [&](const Membership& membership) {
        if (interfaceAddress != kAnyAddress && interfaceAddress != membership.interfaceAddress) return false;
        static_assert(sizeof(Membership) == sizeof(ip_mreq));
        if (!socket_platform::setOption(m_socket.handle(), IPPROTO_IP, IP_DROP_MEMBERSHIP, &membership,
                                        sizeof membership))
            MLOG(Warn, "CORE::Udp4Socket::leaveMulticastGroup", "(%s) - failed dropping membership for interface %s",
                 addressText(membership.group), addressText(membership.interfaceAddress));
        return true;
    });
}

} // namespace NS_CORE

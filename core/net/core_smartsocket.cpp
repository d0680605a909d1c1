#include "core/net/core_smartsocket.h"

#include "core/check/core_assert.h"
#include "core/log/core_v2masterlogger.h"
#include "core/net/core_socket_platform.h"

namespace NS_CORE {

void SmartSocket::Traits::close(Value value) {
    socket_platform::close(value);
}

bool SmartSocket::create(int32_t family, int32_t type, int32_t protocol, uint32_t flags) {
    close();
    m_handle.reset(socket_platform::open(family, type, protocol));
    if (!isOpen()) {
        MLOG(Warn, "CORE::SmartSocket::create", "(%d,%d,%d) - failed to open socket", family, type, protocol);
        return false;
    }
    if ((flags & SocketFlag::ReuseAddr) != 0 && !setReuseAddr()) {
        const Place place = here();
        MasterLogger::logAt(LogLevel::Warn, place.unit, place.line);
        close();
        return false;
    }
    if ((flags & SocketFlag::NonBlocking) != 0) socket_platform::setNonBlocking(handle());
    return true;
}

bool SmartSocket::setReuseAddr() {
    const int32_t on = 1;
    if (socket_platform::setOption(handle(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on)) return true;
    MLOG(Warn, "CORE::SmartSocket::setReuseAddr", "failed to set REUSEADDR");
    return false;
}

} // namespace NS_CORE

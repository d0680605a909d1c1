#pragma once

#include <cstdint>

#include "core/memory/core_scopedhandle.h"
#include "core/net/core_socket.h"

namespace NS_CORE {

// Bits of the flags that sockets are opened with.
namespace SocketFlag {
inline constexpr uint32_t None = 0;
inline constexpr uint32_t NonBlocking = 1 << 0;
inline constexpr uint32_t ReuseAddr = 1 << 1;
} // namespace SocketFlag

// Owns one socket handle, or none. Movable, not copyable: an object that was moved from owns none. Child processes
// never inherit the socket. One thread at a time.
class SmartSocket {
public:
    // Closes the handle that it owns, if any, and creates a new socket. `flags` are of SocketFlag. Returns false,
    // owning none, when the system cannot create the socket or, for ReuseAddr, set its option (both logged at WARN). It
    // does not report a failure to set NonBlocking.
    [[nodiscard]] bool create(int32_t family, int32_t type, int32_t protocol, uint32_t flags);

    // Closes what is owned.
    void close() { m_handle.reset(); }

    bool isOpen() const { return static_cast<bool>(m_handle); }

    // Borrowed; kInvalidSocket when none is owned.
    SocketHandle handle() const { return m_handle.get(); }

private:
    struct Traits {
        using Value = SocketHandle;
        static Value empty() { return kInvalidSocket; }
        static void close(Value value);
    };

    bool setReuseAddr();

    ScopedHandle<Traits> m_handle;
};

} // namespace NS_CORE

#pragma once

#include <cstdint>

#include "core/memory/core_scopedhandle.h"

namespace NS_CORE {

// The system's handle of a socket: a SOCKET on Windows, a descriptor on Linux.
using SocketHandle = uint32_t;

inline constexpr SocketHandle kInvalidSocket = 0xffffffff; // INVALID_SOCKET

// Bits of the flags that sockets are opened with.
namespace SocketFlag {
inline constexpr uint32_t NonBlocking = 1 << 0;
inline constexpr uint32_t ReuseAddr = 1 << 1;
} // namespace SocketFlag

// Owns one socket handle, or none. Movable, not copyable: the object that was moved from owns none. The socket is
// never inherited by child processes. One thread at a time.
class SmartSocket {
public:
    // Makes a new socket and owns it; a handle owned before is closed first. `flags` are of SocketFlag. Returns
    // false, owning none, when the socket cannot be made or, for ReuseAddr, its option not be set (both logged at
    // WARN). That NonBlocking could not be set is not reported.
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

#pragma once

// The system's socket calls in one form, for the sources of this folder. All but startLibrary() return failures and
// leave the logging to the callers. When a call fails, its error (errno, WSAGetLastError) is as the system left it.

#include <cstdint>

#include "core/net/core_socket.h"
#include "core/net/core_socketaddress.h"

namespace NS_CORE::socket_platform {

// Sets the runtime's default file mode to binary (nothing to do on Linux).
void makeFilesBinary();

// Asks for version 2.2. Returns 0, with the version that the library offers (major in the low byte), or the error code.
int32_t start(uint16_t* version);

// Undoes one successful start.
void cleanup();

// start() and cleanup(), or what a test puts in their place.
struct Library {
    int32_t (*start)(uint16_t* version) = &socket_platform::start;
    void (*cleanup)() = &socket_platform::cleanup;
};

// Starts the library and logs at CRIT when it fails or offers another version than 2.2, which is cleaned up. Returns
// whether version 2.2 is started. Implemented in core_socket.cpp.
[[nodiscard]] bool startLibrary(const Library& library);

// A new socket that child processes do not inherit, or kInvalidSocket.
SocketHandle open(int32_t family, int32_t type, int32_t protocol);

void close(SocketHandle handle);

// Sets an option of 32 bits or a structure, `size` bytes at `value`.
bool setOption(SocketHandle handle, int32_t level, int32_t option, const void* value, uint32_t size);

// A socket that still blocks only makes its sender wait, so a failure is ignored.
void setNonBlocking(SocketHandle handle);

// Sends one datagram; false when sendto fails.
bool send(SocketHandle handle, const void* data, uint32_t length, const sockaddr_in& to);

} // namespace NS_CORE::socket_platform

#pragma once

// What the sources of this folder that own sockets ask of the platform: the system's socket calls in one form. They
// only report; the callers log. Where a call fails, its error (errno, WSAGetLastError) is as the system left it.

// The one place that knows which headers declare sockaddr_in, inet_addr and their like.
#ifdef _WIN32
#include <winsock2.h>
#include <ws2tcpip.h>
#else
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#endif

#include <cstdint>

#include "core/net/core_smartsocket.h"

namespace NS_CORE::socket_platform {

// Sets the runtime's default file mode to binary (nothing to do on Linux).
void makeFilesBinary();

// Asks for version 2.2. Answers 0, with the version that is offered (major in the low byte), or the error code.
int32_t start(uint16_t* version);

// Undoes one successful start.
void cleanup();

// A new socket that child processes do not inherit, or kInvalidSocket.
SocketHandle open(int32_t family, int32_t type, int32_t protocol);

void close(SocketHandle handle);

// Sets an option of 32 bits or a structure, `size` bytes at `value`.
bool setOption(SocketHandle handle, int32_t level, int32_t option, const void* value, uint32_t size);

bool setNonBlocking(SocketHandle handle);

// Sends one datagram; false when sendto fails.
bool send(SocketHandle handle, const void* data, uint32_t length, const sockaddr_in& to);

} // namespace NS_CORE::socket_platform

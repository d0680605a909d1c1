#pragma once

#include <cstdint>
#include <string>

struct sockaddr_in;

// Socket handles, IPv4 addresses, and the start of the system's socket library. Addresses are numbers or dotted quads:
// nothing here asks a name service, and nothing blocks.
namespace NS_CORE {

// The system's handle of a socket: a SOCKET on Windows, a file descriptor elsewhere.
#ifdef _WIN32
using SocketHandle = uint32_t;
#else
using SocketHandle = int32_t;
#endif

inline constexpr SocketHandle kInvalidSocket = static_cast<SocketHandle>(-1); // INVALID_SOCKET

// A host-order value as the network writes it (htonl); the same call turns it back.
constexpr uint32_t networkOrder(uint32_t value) {
    return value << 24 | (value & 0xff00U) << 8 | (value >> 8 & 0xff00U) | value >> 24;
}

// Addresses in network byte order.
inline constexpr uint32_t kAnyAddress = networkOrder(0);               // INADDR_ANY
inline constexpr uint32_t kLoopbackAddress = networkOrder(0x7F000001); // 127.0.0.1

// The dotted-quad text of an address in network byte order.
std::string addressText(uint32_t address);

// Fills `socketAddress` (zeroed, AF_INET) from a dotted-quad text and a port in host order. The text is read as
// inet_addr reads it, short and octal forms included; "255.255.255.255" is the limited broadcast address.
// Any other text logs WARN "invalid ip '%s'" and returns false; `socketAddress` then holds no address and no port.
[[nodiscard]] bool SetSockAddr(const std::string& addressText, uint16_t port, sockaddr_in& socketAddress);

// The process's start-up for files and sockets. An initialiser of this library, which the build links into every
// program, runs it once before main: it sets the runtime's default file mode to binary, starts the socket library and
// registers its clean-up at exit. A failed start is logged at CRIT; creating a socket then fails. Linux has no such
// library: there the start always succeeds and the same flags are kept.
void WinsockInit();

// Whether the socket library was started and has not been cleaned up. Main thread only.
bool winsockInitialised();

// Whether the exit handler of WinsockInit cleans up the socket library; true at start. A process under the service
// control manager turns it off (utl_service.cpp says why). Call these before exit handlers run, from one thread at a
// time.
bool winsockCleanupAtExit();
void setWinsockCleanupAtExit(bool cleanup);

} // namespace NS_CORE

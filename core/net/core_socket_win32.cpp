#include "core/net/core_socket_platform.h"

#include <fcntl.h>
#include <stdlib.h>
#include <windows.h>

namespace NS_CORE::socket_platform {

static_assert(sizeof(SOCKET) == sizeof(SocketHandle) && INVALID_SOCKET == kInvalidSocket);

void makeFilesBinary() {
    ::_set_fmode(_O_BINARY);
}

int32_t start(uint16_t* version) {
    WSADATA data = {};
    const int result = ::WSAStartup(MAKEWORD(2, 2), &data);
    *version = data.wVersion;
    return result;
}

void cleanup() {
    ::WSACleanup();
}

SocketHandle open(int32_t family, int32_t type, int32_t protocol) {
    const SOCKET handle = ::socket(family, type, protocol);
    // The companion must not hold our sockets. (The flag of WSASocket for it fails before Windows 7 SP1.)
    if (handle != INVALID_SOCKET) ::SetHandleInformation(reinterpret_cast<HANDLE>(handle), HANDLE_FLAG_INHERIT, 0);
    return handle;
}

void close(SocketHandle handle) {
    ::closesocket(handle);
}

bool setOption(SocketHandle handle, int32_t level, int32_t option, const void* value, uint32_t size) {
    return ::setsockopt(handle, level, option, static_cast<const char*>(value), static_cast<int>(size)) == 0;
}

void setNonBlocking(SocketHandle handle) {
    u_long on = 1;
    ::ioctlsocket(handle, static_cast<long>(FIONBIO), &on);
}

bool send(SocketHandle handle, const void* data, uint32_t length, const sockaddr_in& to) {
    return ::sendto(handle, static_cast<const char*>(data), static_cast<int>(length), /*flags=*/0,
                    reinterpret_cast<const sockaddr*>(&to), sizeof to) >= 0;
}

} // namespace NS_CORE::socket_platform

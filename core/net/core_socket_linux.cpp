#include "core/net/core_socket_platform.h"

#include <sys/ioctl.h>
#include <unistd.h>

namespace NS_CORE::socket_platform {

void makeFilesBinary() {}

int32_t start(uint16_t* version) {
    *version = 0x0202;
    return 0;
}

void cleanup() {}

SocketHandle open(int32_t family, int32_t type, int32_t protocol) {
    return ::socket(family, type | SOCK_CLOEXEC, protocol);
}

void close(SocketHandle handle) {
    ::close(handle);
}

bool setOption(SocketHandle handle, int32_t level, int32_t option, const void* value, uint32_t size) {
    return ::setsockopt(handle, level, option, value, size) == 0;
}

void setNonBlocking(SocketHandle handle) {
    int on = 1;
    ::ioctl(handle, FIONBIO, &on);
}

bool send(SocketHandle handle, const void* data, uint32_t length, const sockaddr_in& to) {
    return ::sendto(handle, data, length, /*flags=*/0, reinterpret_cast<const sockaddr*>(&to), sizeof to) >= 0;
}

} // namespace NS_CORE::socket_platform

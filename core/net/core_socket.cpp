#include "core/net/core_socket.h"

#include <cstdlib>

#include "absl/strings/str_cat.h"
#include "core/log/core_v2masterlogger.h"
#include "core/net/core_socket_platform.h"

namespace NS_CORE {
namespace {

constinit bool g_winsockInitialised = false;
constinit bool g_winsockCleanupAtExit = true;

void cleanupAtExit() {
    if (!g_winsockCleanupAtExit || !g_winsockInitialised) return;
    socket_platform::cleanup();
    g_winsockInitialised = false;
}

} // namespace

std::string addressText(uint32_t address) {
    const uint32_t host = networkOrder(address);
    return absl::StrCat(host >> 24, ".", host >> 16 & 0xff, ".", host >> 8 & 0xff, ".", host & 0xff);
}

bool SetSockAddr(const std::string& addressText, uint16_t port, sockaddr_in& socketAddress) {
    socketAddress = {};
    socketAddress.sin_family = AF_INET;
    const uint32_t address = ::inet_addr(addressText.c_str());
    // INADDR_NONE is also the value of the limited broadcast address, so the text has to tell the two apart.
    if (address == INADDR_NONE && addressText != "255.255.255.255") {
        MLOG(Warn, "CORE::SetSockAddr", "invalid ip '%s'", addressText);
        return false;
    }
    socketAddress.sin_addr.s_addr = address;
    socketAddress.sin_port = htons(port);
    return true;
}

bool socket_platform::startLibrary(const Library& library) {
    uint16_t version = 0;
    const int32_t result = library.start(&version);
    if (result != 0) {
        MLOG(Crit, "WinsockInit", "WSAStartup failed, err=%d", result);
        return false;
    }
    const int32_t major = version & 0xff;
    const int32_t minor = version >> 8;
    if (major == 2 && minor == 2) return true;
    // Minor before major: readers of the logs know the message in this order.
    MLOG(Crit, "WinsockInit", "no suitable WinSock DLL (%d.%d)", minor, major);
    library.cleanup();
    return false;
}

void WinsockInit() {
    socket_platform::makeFilesBinary();
    g_winsockInitialised = socket_platform::startLibrary({});
    if (g_winsockInitialised) static_cast<void>(std::atexit(&cleanupAtExit));
}

bool winsockInitialised() {
    return g_winsockInitialised;
}

bool winsockCleanupAtExit() {
    return g_winsockCleanupAtExit;
}

void setWinsockCleanupAtExit(bool cleanup) {
    g_winsockCleanupAtExit = cleanup;
}

} // namespace NS_CORE

extern "C" {
// The build tells the linker that every program needs this symbol, because nothing else would bring the
// initialiser into a program that uses files but no sockets.
bool quorkeriProcessStart = (NS_CORE::WinsockInit(), true);
}

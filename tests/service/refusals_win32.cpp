#include <winsock2.h>

#include <cerrno>

#include "tests/service/refusals.h"
#include "tests/support/import_hook_win32.h"

namespace service {
namespace {

SOCKET WSAAPI refuseSocket(int /*family*/, int /*type*/, int /*protocol*/) {
    ::WSASetLastError(WSAEMFILE);
    return INVALID_SOCKET;
}

int WSAAPI refuseDatagram(SOCKET /*socket*/, const char* /*bytes*/, int /*length*/, int /*flags*/,
                          const sockaddr* /*to*/, int /*size*/) {
    errno = ENETUNREACH; // which the log shows
    return SOCKET_ERROR;
}

} // namespace

Refusal refuseSockets() {
    return std::make_shared<test::ImportHook<decltype(::socket)>>("socket", &refuseSocket);
}

Refusal refuseDatagrams() {
    return std::make_shared<test::ImportHook<decltype(::sendto)>>("sendto", &refuseDatagram);
}

} // namespace service

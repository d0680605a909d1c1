#include <sched.h>
#include <sys/syscall.h>

#include <cerrno>

#include "tests/service/refusals.h"
#include "tests/support/refused_call_linux.h"

namespace service {

Refusal refuseSockets() {
    test::refuseCall(SYS_socket, EMFILE);
    return std::make_shared<bool>();
}

Refusal refuseDatagrams() {
    // A network of the thread's own, whose loopback has not been brought up.
    return ::unshare(CLONE_NEWNET) == 0 ? std::make_shared<bool>() : nullptr;
}

} // namespace service

#include <cerrno>
#include <csignal>

#include "utl/utl_service.h"
#include "utl/utl_service_platform.h"

namespace NS_UTL {
namespace {

// Linux has no service control manager; every attempt to reach one ends with this error.
void failUnsupported() {
    errno = ENOSYS;
}

} // namespace

int service_platform::runWithConsoleHandlers(Signal::Handler handler, const std::function<int()>& work) {
    const Signal interrupt(SIGINT, handler);
    const Signal terminate(SIGTERM, handler);
    return work();
}

ServiceManagerCalls ServiceManagerCalls::platform() {
    return {[](const char*) {
                failUnsupported();
                return false;
            },
            [](const char*) -> StatusHandle {
                failUnsupported();
                return nullptr;
            },
            [](StatusHandle, const ServiceStatus&) {}};
}

bool Service::install(const std::string& /*name*/, const std::string& /*displayName*/,
                      const std::string& /*executablePath*/) {
    failUnsupported();
    service_platform::logManagerNotOpened("UTL::Service::install");
    return false;
}

bool Service::remove() {
    failUnsupported();
    service_platform::logManagerNotOpened("UTL::Service::remove");
    return false;
}

} // namespace NS_UTL

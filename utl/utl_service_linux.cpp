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

// Logs that under the name of the caller, `function`, and returns false.
bool failToOpenManager(std::string_view function) {
    failUnsupported();
    service_platform::logManagerNotOpened(function);
    return false;
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
            [](StatusHandle, const ServiceStatus&) {},
            [](const std::string&, const std::string&, const std::string&) {
                return failToOpenManager("UTL::Service::install");
            },
            [](const std::string&) { return failToOpenManager("UTL::Service::remove"); }};
}

} // namespace NS_UTL

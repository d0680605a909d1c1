#include <array>
#include <cerrno>
#include <csignal>

#include "utl/utl_service.h"
#include "utl/utl_service_platform.h"

namespace NS_UTL {
namespace {

// There is no service control manager to ask: this is what every attempt ends with.
void failUnsupported() {
    errno = ENOSYS;
}

} // namespace

std::span<const int32_t> ServicePlatform::consoleSignals() {
    static constexpr std::array<int32_t, 2> kSignals = {SIGINT, SIGTERM};
    return kSignals;
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
    ServicePlatform::logManagerNotOpened("UTL::Service::install");
    return false;
}

bool Service::remove() {
    failUnsupported();
    ServicePlatform::logManagerNotOpened("UTL::Service::remove");
    return false;
}

} // namespace NS_UTL

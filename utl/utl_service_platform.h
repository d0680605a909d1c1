#pragma once

#include <cstdint>
#include <span>
#include <string_view>

// What the neutral source of the service host and its platform sources share; nobody else's concern.
namespace NS_UTL::ServicePlatform {

// The signals that stop a service in console mode, in the order of their installation.
std::span<const int32_t> consoleSignals();

// WARN "failed to open service manager: " with the text of the thread's last system error.
void logManagerNotOpened(std::string_view function);

} // namespace NS_UTL::ServicePlatform

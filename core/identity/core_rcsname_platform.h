#pragma once

#include <cstdint>
#include <string>

namespace NS_CORE {

// For core_rcsname and its tests, which pass a call of their own to hostNameBy().

// Writes the machine's name into `buffer`, `size` bytes with the terminator; false when it cannot.
using HostNameCall = bool (*)(char* buffer, uint32_t size);

bool systemHostName(char* buffer, uint32_t size);

std::string hostNameBy(HostNameCall call);

} // namespace NS_CORE

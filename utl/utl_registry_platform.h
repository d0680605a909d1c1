#pragma once

#include <cstdint>
#include <string>

// What utl_registry.cpp asks of the platform. For that unit alone.
namespace NS_UTL::registry_platform {

// Opens a key below HKEY_LOCAL_MACHINE; nothing ever closes it. Null on failure, with the reason as the thread's last
// error (errno on Linux).
void* openKey(const std::string& subKey);

// RegQueryValueEx: 0, ERROR_MORE_DATA with the count that is needed, or another of Windows' error codes.
uint32_t queryValue(void* key, const std::string& name, uint32_t& type, uint8_t* buffer, uint32_t& count);

} // namespace NS_UTL::registry_platform

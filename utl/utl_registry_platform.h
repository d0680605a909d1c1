#pragma once

#include <cstdint>
#include <string>

// What utl_registry.cpp asks of the platform. For that unit alone.
namespace NS_UTL::registry_platform {

// Opens a key below HKEY_LOCAL_MACHINE; nothing ever closes it. Null on failure, with the reason as the thread's last
// error (errno on Linux).
void* openKey(const std::string& subKey);

inline constexpr uint32_t kErrorMoreData = 234; // Windows' ERROR_MORE_DATA

// Does what RegQueryValueEx does: returns 0, kErrorMoreData with the needed size in `count`, or another of Windows'
// error codes.
uint32_t queryValue(void* key, const std::string& name, uint32_t& type, uint8_t* buffer, uint32_t& count);

} // namespace NS_UTL::registry_platform

#pragma once

#include <cstddef>
#include <string>

// What core_dir.cpp asks of the platform. Private to that unit and to its tests, which read into a small buffer.
namespace NS_CORE::dir_platform {

// Writes the running executable's path to `buffer`, not terminated when it does not fit. Returns the number
// of characters written, `size` if the path was cut, or 0 if the system does not know it.
size_t readModuleFilename(char* buffer, size_t size);

// On failure returns false and sets the system's last error.
bool setCurrentDirectory(const std::string& path);

} // namespace NS_CORE::dir_platform

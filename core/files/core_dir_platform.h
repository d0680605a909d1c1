#pragma once

#include <cstddef>
#include <string>

// What core_dir.cpp asks of the platform, and the part of it that tests reach without a path of that length. For that
// unit alone.
namespace NS_CORE::dir_platform {

// Writes the running executable's path to `buffer`, not terminated when it does not fit. Returns the count of
// characters written, `size` when the path was cut, and 0 when the system does not know it.
size_t readModuleFilename(char* buffer, size_t size);

// False, with the system's last error set.
bool setCurrentDirectory(const std::string& path);

} // namespace NS_CORE::dir_platform

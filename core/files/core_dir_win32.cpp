#include <windows.h>

#include "core/files/core_dir_platform.h"

namespace NS_CORE::dir_platform {

size_t readModuleFilename(char* buffer, size_t size) {
    return ::GetModuleFileNameA(/*hModule=*/nullptr, buffer, static_cast<DWORD>(size));
}

bool setCurrentDirectory(const std::string& path) {
    return ::SetCurrentDirectoryA(path.c_str()) != FALSE;
}

} // namespace NS_CORE::dir_platform

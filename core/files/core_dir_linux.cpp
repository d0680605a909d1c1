#include <unistd.h>

#include "core/files/core_dir_platform.h"

namespace NS_CORE::dir_platform {

size_t readModuleFilename(char* buffer, size_t size) {
    const ssize_t length = ::readlink("/proc/self/exe", buffer, size);
    return length < 0 ? 0 : static_cast<size_t>(length);
}

bool setCurrentDirectory(const std::string& path) {
    return ::chdir(path.c_str()) == 0;
}

} // namespace NS_CORE::dir_platform

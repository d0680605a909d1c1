#pragma once

#include <filesystem>

namespace NS_CORE {

// Stands between a directory and what lies in it, where the system itself writes a path: '\' on Windows, '/' on Linux.
inline constexpr char kPathSeparator = static_cast<char>(std::filesystem::path::preferred_separator);

} // namespace NS_CORE

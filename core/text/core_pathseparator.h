#pragma once

#include <filesystem>

namespace NS_CORE {

// The separator in the paths that the system returns: '\' on Windows, '/' on Linux.
inline constexpr char kPathSeparator = static_cast<char>(std::filesystem::path::preferred_separator);

} // namespace NS_CORE

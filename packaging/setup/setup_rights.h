#pragma once

#include <string>

namespace setup {

// Gives the directory, and what is made in it, to administrators and SYSTEM alone; users may read and run. A service
// that runs as SYSTEM must not lie where others can put a program or a library. Empty, or why it could not be done.
std::wstring protectDirectory(const std::wstring& directory);

} // namespace setup

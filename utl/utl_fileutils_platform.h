#pragma once

#include <string>

// What utl_fileutils.cpp asks of the platform. For that unit alone.
namespace NS_UTL::fileutils_platform {

// A path as the caller gave it, and converted.
struct Path {
    const std::string& narrow;
    std::u16string wide;
};

// Renames within a volume, replacing `to`. False, with the system's last error set.
bool moveReplacing(const Path& from, const Path& to);

} // namespace NS_UTL::fileutils_platform

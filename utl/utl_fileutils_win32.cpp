#include <windows.h>

#include "utl/utl_fileutils_platform.h"

namespace NS_UTL::fileutils_platform {

bool moveReplacing(const Path& from, const Path& to) {
    const std::wstring wideFrom(from.wide.begin(), from.wide.end());
    const std::wstring wideTo(to.wide.begin(), to.wide.end());
    return ::MoveFileExW(wideFrom.c_str(), wideTo.c_str(), MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH) != FALSE;
}

} // namespace NS_UTL::fileutils_platform

#include <cstdio>

#include "utl/utl_fileutils_platform.h"

namespace NS_UTL::fileutils_platform {

bool moveReplacing(const Path& from, const Path& to) {
    return std::rename(from.narrow.c_str(), to.narrow.c_str()) == 0;
}

} // namespace NS_UTL::fileutils_platform

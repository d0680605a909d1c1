#pragma once

#include <cerrno>

#include "core/files/core_wrapper.h"
#include "core/memory/core_scopedhandle.h"

namespace NS_CORE {

// A descriptor of the runtime library.
struct FdTraits {
    using Value = int;
    static Value empty() { return -1; }
    // Keeps errno: what failed before matters more to the caller.
    static void close(Value fd) {
        const int error = errno;
        Wrapper::close(fd);
        errno = error;
    }
};

using ScopedFd = ScopedHandle<FdTraits>;

} // namespace NS_CORE

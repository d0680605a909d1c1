#pragma once

#include <cerrno>

#include "core/files/core_wrapper.h"
#include "core/memory/core_scopedhandle.h"

namespace NS_CORE {

// Owns a file descriptor of the C runtime library, and closes it. -1 stands for none.
struct FdTraits {
    using Value = int;
    static Value empty() { return -1; }
    // Keeps errno: the caller wants the error of an earlier call, not that of close.
    static void close(Value fd) {
        const int error = errno;
        Wrapper::close(fd);
        errno = error;
    }
};

using ScopedFd = ScopedHandle<FdTraits>;

} // namespace NS_CORE

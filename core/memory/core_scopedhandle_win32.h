#pragma once

#include <cstdint>

#include "core/memory/core_scopedhandle.h"

namespace NS_CORE {

// What CloseHandle closes. HANDLE is void*, which keeps the system's headers out of here.

// Processes, threads, events: null where there is none.
struct KernelHandleTraits {
    using Value = void*;
    static Value empty() { return nullptr; }
    static void close(Value handle);
};
using ScopedKernelHandle = ScopedHandle<KernelHandleTraits>;

// Files and snapshots: INVALID_HANDLE_VALUE where there is none.
struct FileHandleTraits {
    using Value = void*;
    static Value empty() { return reinterpret_cast<void*>(intptr_t{-1}); }
    static void close(Value handle);
};
using ScopedFileHandle = ScopedHandle<FileHandleTraits>;

} // namespace NS_CORE

#pragma once

#include <windows.h>

#include <cstdint>
#include <type_traits>

#include "core/memory/core_scopedhandle.h"

namespace NS_CORE {

// One kind of Windows handle: its type, the function that closes it, and the value that means "none".
// Closing keeps the thread's last error, so that an owner may go out of scope between a call that failed and the
// GetLastError that asks why. What the closing function returns is ignored. Everything is inline: a program that
// only includes this header need not link this library.
template <class Type, auto kClose, intptr_t kNone = 0>
struct Win32HandleTraits {
    using Value = Type;
    static Value empty() {
        if constexpr (std::is_pointer_v<Type>) {
            return reinterpret_cast<Type>(kNone);
        } else {
            return Type{kNone};
        }
    }
    static void close(Value value) {
        const DWORD error = ::GetLastError();
        kClose(value);
        ::SetLastError(error);
    }
};

// Processes, threads, events, mutexes, tokens; null means none.
using ScopedKernelHandle = ScopedHandle<Win32HandleTraits<HANDLE, &::CloseHandle>>;
// Files, pipes and snapshots; INVALID_HANDLE_VALUE means none.
using ScopedFileHandle = ScopedHandle<Win32HandleTraits<HANDLE, &::CloseHandle, -1>>;
using ScopedFindHandle = ScopedHandle<Win32HandleTraits<HANDLE, &::FindClose, -1>>;
// The service control manager and its services.
using ScopedServiceHandle = ScopedHandle<Win32HandleTraits<SC_HANDLE, &::CloseServiceHandle>>;
using ScopedRegistryKey = ScopedHandle<Win32HandleTraits<HKEY, &::RegCloseKey>>;
using ScopedModule = ScopedHandle<Win32HandleTraits<HMODULE, &::FreeLibrary>>;
// Memory that the system allocated and the caller frees with LocalFree. T is the type of what it holds.
template <class T>
using ScopedLocalMemory = ScopedHandle<Win32HandleTraits<T*, &::LocalFree>>;

} // namespace NS_CORE

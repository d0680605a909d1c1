#include <windows.h>

#include "core/memory/core_threadword_platform.h"

namespace NS_CORE::threadword_platform {

bool allocate(uint32_t* slot) {
    const DWORD index = ::TlsAlloc();
    if (index == TLS_OUT_OF_INDEXES) return false;
    *slot = index;
    return true;
}

void release(uint32_t slot) {
    ::TlsFree(slot);
}

// TlsGetValue clears the last error, because 0 is a value, too.
uintptr_t get(uint32_t slot) {
    const DWORD lastError = ::GetLastError();
    const auto value = reinterpret_cast<uintptr_t>(::TlsGetValue(slot));
    ::SetLastError(lastError);
    return value;
}

void set(uint32_t slot, uintptr_t value) {
    ::TlsSetValue(slot, reinterpret_cast<void*>(value)); // NOLINT(performance-no-int-to-ptr): a number
}

} // namespace NS_CORE::threadword_platform

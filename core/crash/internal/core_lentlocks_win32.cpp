#include "core/crash/internal/core_lentlocks_win32.h"

#include <cstddef>
#include <cstdint>

namespace NS_CORE {
namespace {

// No function of the system says who holds the loader's lock. But the pointer to it has the same place in the process
// environment block (PEB) in all 32-bit Windows since NT 4.
CRITICAL_SECTION& loaderLock() {
    constexpr size_t kLockInBlock = 0xA0;
    char* block = nullptr;
    asm("movl %%fs:0x30, %0" : "=r"(block));
    return **reinterpret_cast<CRITICAL_SECTION**>(block + kLockInBlock);
}

} // namespace

LentLocks::LentLocks(bool isHeapHeld) : m_isHeapHeld(isHeapHeld) {
    if (m_isHeapHeld) ::HeapUnlock(::GetProcessHeap());
    CRITICAL_SECTION& loader = loaderLock();
    if (loader.OwningThread != reinterpret_cast<HANDLE>(uintptr_t{::GetCurrentThreadId()})) return;
    m_loaderDepth = loader.RecursionCount;
    for (LONG depth = 0; depth < m_loaderDepth; ++depth) ::LeaveCriticalSection(&loader);
}

LentLocks::~LentLocks() {
    for (LONG depth = 0; depth < m_loaderDepth; ++depth) ::EnterCriticalSection(&loaderLock());
    if (m_isHeapHeld) ::HeapLock(::GetProcessHeap());
}

} // namespace NS_CORE

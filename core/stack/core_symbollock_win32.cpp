#include <windows.h>

#include "core/stack/core_symbollock.h"

namespace NS_CORE {
namespace {

// The system's only recursive lock with a timeout. If it cannot be created, nobody ever acquires it.
HANDLE theMutex() {
    static const HANDLE mutex = ::CreateMutexA(/*lpMutexAttributes=*/nullptr, /*bInitialOwner=*/FALSE,
                                               /*lpName=*/nullptr);
    return mutex;
}

} // namespace

bool SymbolLock::acquire(uint32_t timeoutMs) {
    const DWORD result = ::WaitForSingleObject(theMutex(), timeoutMs);
    // A thread that ended while it held the mutex abandoned it to us.
    m_isHeld = result == WAIT_OBJECT_0 || result == WAIT_ABANDONED;
    return m_isHeld;
}

void SymbolLock::release() {
    if (m_isHeld) ::ReleaseMutex(theMutex());
    m_isHeld = false;
}

} // namespace NS_CORE

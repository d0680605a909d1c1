#include "core/stack/core_symbollock.h"

#include <windows.h>

namespace NS_CORE {
namespace {

// The only lock of the system that a thread may take again and that is not waited for without limit. Without it, when
// there are no more handles, nobody gets a turn.
HANDLE theMutex() {
    static const HANDLE mutex = ::CreateMutexA(/*lpMutexAttributes=*/nullptr, /*bInitialOwner=*/FALSE,
                                               /*lpName=*/nullptr);
    return mutex;
}

} // namespace

bool SymbolTurn::take(uint32_t patienceMs) {
    const DWORD result = ::WaitForSingleObject(theMutex(), patienceMs);
    // Abandoned by a thread that ended in the middle of it.
    return result == WAIT_OBJECT_0 || result == WAIT_ABANDONED;
}

void SymbolTurn::giveBack() {
    ::ReleaseMutex(theMutex());
}

} // namespace NS_CORE

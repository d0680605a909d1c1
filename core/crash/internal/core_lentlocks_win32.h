#pragma once

#include <windows.h>

namespace NS_CORE {

// Lends other threads the locks that the calling thread holds, while it waits for them: the loader's, and the heap's.
// Takes them back at the end, because the unwinding releases what the code under a fault holds.
//
// For faults in the middle of the heap's or the loader's own work. What the lock keeps is then half changed, but the
// lock would keep the whole report back.
class LentLocks {
public:
    // isHeapHeld  whether another thread waits for the heap's lock in vain; the system does not tell who holds it.
    explicit LentLocks(bool isHeapHeld);
    ~LentLocks();
    LentLocks(const LentLocks&) = delete;
    LentLocks& operator=(const LentLocks&) = delete;

private:
    bool m_isHeapHeld;
    LONG m_loaderDepth = 0;
};

} // namespace NS_CORE

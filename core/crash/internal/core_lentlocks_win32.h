#pragma once

#include <windows.h>

namespace NS_CORE {

// While it lives, other threads can acquire the loader's and the heap's lock although the calling thread holds them.
// The destructor acquires them again, because unwinding releases what the faulting code holds.
//
// For faults in the middle of the heap's or the loader's own work. What such a lock protects is then half changed, but
// the lock would stop the whole report.
class LentLocks {
public:
    // isHeapHeld  whether another thread waits for the heap's lock in vain, because the system does not say who holds
    // it.
    explicit LentLocks(bool isHeapHeld);
    ~LentLocks();
    LentLocks(const LentLocks&) = delete;
    LentLocks& operator=(const LentLocks&) = delete;

private:
    bool m_isHeapHeld;
    LONG m_loaderDepth = 0;
};

} // namespace NS_CORE

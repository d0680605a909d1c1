#pragma once

#include <cstdint>

namespace NS_CORE {

// The process-wide lock around the system's symbol library, which walks stacks, looks up names and writes dumps, and
// which is not thread-safe. It is recursive, so that a trace taken in the middle of a trace works. Every wait has a
// limit, because the holder may have crashed, or may itself wait for something that the caller holds.
class SymbolLock {
public:
    // How long a trace waits for another thread's trace.
    static constexpr uint32_t kTraceTimeoutMs = 5000;

    // Does not hold the lock yet.
    SymbolLock() = default;
    // Holds the lock if it could be acquired in time.
    explicit SymbolLock(uint32_t timeoutMs) { acquire(timeoutMs); }
    ~SymbolLock() { release(); }
    SymbolLock(const SymbolLock&) = delete;
    SymbolLock& operator=(const SymbolLock&) = delete;

    // Waits for the lock; returns whether this object holds it then. Call it at most once before release.
    bool acquire(uint32_t timeoutMs);

    // Does nothing if this object does not hold the lock. Only the thread that acquired it may release it.
    void release();

    bool isHeld() const { return m_isHeld; }

private:
    bool m_isHeld = false;
};

} // namespace NS_CORE

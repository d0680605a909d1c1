#pragma once

#include <atomic>
#include <cstdint>

namespace NS_CORE {

// One number for each thread, 0 until the thread sets it. Unlike a thread_local variable it neither allocates nor locks
// when a thread first uses it, so a crash report may use it: the compiler for Windows emulates thread_local on the
// heap, under a lock. That holds for the process's first slots only (64 on Windows, 32 on Linux); for a later one the
// system allocates at a thread's first set(). Constant-initialised and never destroyed, for use as a static. Any
// thread may call.
//
// The first get() or set() takes one of the process's slots for thread-local storage, for good. While no slot is free,
// every thread reads 0.
class ThreadWord {
public:
    constexpr ThreadWord() = default;
    ThreadWord(const ThreadWord&) = delete;
    ThreadWord& operator=(const ThreadWord&) = delete;
    ~ThreadWord() = default;

    // The last error of the system stays as it is.
    uintptr_t get() const;
    void set(uintptr_t value);

private:
    static constexpr uint32_t kNoSlot = UINT32_MAX;

    uint32_t slot() const;

    mutable std::atomic<uint32_t> m_slot{kNoSlot};
};

} // namespace NS_CORE

#pragma once

#include <windows.h>

#include <cstdint>

namespace test {

// How many handles this process has open. Counted one by one: Wine has no count, and the number of a fresh handle says
// nothing, because a new process leaves free numbers below those that leaked.
inline int64_t openHandles() {
    constexpr uintptr_t kHighest = 0x8000; // a leak of thousands shows all the same
    int64_t count = 0;
    for (uintptr_t value = 4; value < kHighest; value += 4) {
        DWORD flags = 0;
        if (::GetHandleInformation(reinterpret_cast<HANDLE>(value), &flags)) ++count;
    }
    return count;
}

} // namespace test

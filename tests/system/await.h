#pragma once

#include <chrono>
#include <thread>

namespace test {

using Clock = std::chrono::steady_clock;

// For anything that has to happen: far more than ten times what a quiet machine needs.
inline constexpr std::chrono::seconds kLimit(180);

// Calls `isDone` every millisecond until it returns true or the limit is over. Returns its last result.
template <class IsDone>
[[nodiscard]] bool await(IsDone isDone, std::chrono::milliseconds limit = kLimit) {
    const Clock::time_point deadline = Clock::now() + limit;
    while (!isDone()) {
        if (Clock::now() >= deadline) return isDone();
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

// The steady clock as the companion's records give it.
inline int64_t nowMicroseconds() {
    return std::chrono::duration_cast<std::chrono::microseconds>(Clock::now().time_since_epoch()).count();
}

} // namespace test

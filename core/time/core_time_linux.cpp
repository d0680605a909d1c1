#include <chrono>
#include <limits>
#include <thread>

#include "core/time/core_time_platform.h"

namespace NS_CORE {
namespace {

// The limits of Windows' runtime library, so that both platforms give the same results.
constexpr int32_t kEarliestUtc = -12 * 60 * 60;
constexpr int32_t kEarliestLocal = 0;

std::timespec readClock(clockid_t clock) {
    std::timespec time{};
    // Cannot fail: the clock exists and the output is writable.
    ::clock_gettime(clock, &time);
    return time;
}

} // namespace

uint64_t monotonicMilliseconds() {
    // Not CLOCK_MONOTONIC, which stops while the machine sleeps.
    const std::timespec time = readClock(CLOCK_BOOTTIME);
    return static_cast<uint64_t>(time.tv_sec) * 1000 + static_cast<uint64_t>(time.tv_nsec) / 1'000'000;
}

void sleepFor(uint32_t milliseconds) {
    std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

Timespec systemNow() {
    const std::timespec time = readClock(CLOCK_REALTIME);
    return {static_cast<int32_t>(time.tv_sec), static_cast<int32_t>(time.tv_nsec)};
}

bool systemUtcTime(int32_t seconds, std::tm* out) {
    const std::time_t time = seconds;
    return seconds >= kEarliestUtc && ::gmtime_r(&time, out) != nullptr;
}

bool systemLocalTime(int32_t seconds, std::tm* out) {
    const std::time_t time = seconds;
    return seconds >= kEarliestLocal && ::localtime_r(&time, out) != nullptr;
}

int32_t systemSecondsOfLocal(std::tm fields) {
    const std::time_t seconds = std::mktime(&fields);
    return seconds < 0 || seconds > std::numeric_limits<int32_t>::max() ? -1 : static_cast<int32_t>(seconds);
}

} // namespace NS_CORE

#include <windows.h>

#include <chrono>

#include "core/time/core_time.h"
#include "core/time/core_time_platform.h"

namespace NS_CORE {

uint64_t monotonicMilliseconds() {
    return ::GetTickCount64();
}

// The standard library's sleep waits for an event instead, which takes Wine's server, and 0.5 ms longer.
void sleepFor(uint32_t milliseconds) {
    using std::chrono::steady_clock;
    const steady_clock::time_point end = steady_clock::now() + std::chrono::milliseconds(milliseconds);
    // Sleep may end up to one tick of the system's timer early.
    for (std::chrono::milliseconds left(milliseconds); left.count() > 0;
         left = std::chrono::ceil<std::chrono::milliseconds>(end - steady_clock::now()))
        ::Sleep(static_cast<DWORD>(left.count()));
}

Timespec systemNow() {
    FILETIME now;
    ::GetSystemTimeAsFileTime(&now);
    return timespecOfFileTime(static_cast<int64_t>(now.dwHighDateTime) << 32 | now.dwLowDateTime);
}

// The functions with explicit widths: this toolchain's headers and the universal runtime disagree about time_t.

bool systemUtcTime(int32_t seconds, std::tm* out) {
    const __time32_t time = seconds;
    return ::_gmtime32_s(out, &time) == 0;
}

bool systemLocalTime(int32_t seconds, std::tm* out) {
    const __time64_t time = seconds;
    return ::_localtime64_s(out, &time) == 0;
}

int32_t systemSecondsOfLocal(std::tm fields) {
    return static_cast<int32_t>(::_mktime32(&fields));
}

} // namespace NS_CORE

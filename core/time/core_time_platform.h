#pragma once

#include <cstdint>
#include <ctime>

#include "core/time/core_time.h"

namespace NS_CORE {

// What core_time asks of each platform's runtime library; for core_time alone. None of them reports anything.

// False, with *out undefined, where the runtime library refuses.
bool systemUtcTime(int32_t seconds, std::tm* out);
bool systemLocalTime(int32_t seconds, std::tm* out);

// The seconds of a local broken-down time; -1 where they would be negative or need more than 32 bits.
int32_t systemSecondsOfLocal(std::tm fields);

// A time from Windows' count of 100 nanoseconds since 1601-01-01. Beyond the 32 bits the seconds wrap.
Timespec timespecOfFileTime(int64_t ticks);

} // namespace NS_CORE

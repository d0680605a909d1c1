#pragma once

#include <cstdint>
#include <ctime>

#include "core/time/core_time.h"

namespace NS_CORE {

// The platform's part of core_time, for core_time alone. These functions fail no check and log nothing.

// Return false, with *out undefined, if the conversion fails.
bool systemUtcTime(int32_t seconds, std::tm* out);
bool systemLocalTime(int32_t seconds, std::tm* out);

// The seconds of a local broken-down time, or -1 if they would be negative or need more than 32 bits.
int32_t systemSecondsOfLocal(std::tm fields);

// Converts Windows' count of 100 nanoseconds since 1601-01-01. Seconds beyond 32 bits wrap.
Timespec timespecOfFileTime(int64_t ticks);

} // namespace NS_CORE

#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace health {

// Seconds since 1970-01-01 00:00:00 on the clock on the wall. service.log has no other time, so all times are compared
// in it. Where the clock is put back in autumn, an hour counts twice; in spring, one is missing.
using LocalSeconds = int64_t;

// Of a moment in seconds since 1970, UTC. 0 for a moment that the runtime library does not convert.
LocalSeconds toLocal(int64_t utcSeconds);

// "2026-01-02 03:04:05"
std::string timeText(LocalSeconds seconds);

// Reads a text of that form at the front of `text`, and returns false when it is none.
bool parseTime(std::string_view text, LocalSeconds* out);

} // namespace health

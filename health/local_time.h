#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace health {

// Seconds since 1970-01-01 00:00:00 in local time, as a wall clock shows it. service.log has only local times, so all
// times are compared as such. In the hour after a change of summer time, differences are wrong by an hour.
using LocalSeconds = int64_t;

// Converts seconds since 1970, UTC. 0 for a moment that the runtime library does not convert.
LocalSeconds toLocal(int64_t utcSeconds);

// "2026-01-02 03:04:05"
std::string timeText(LocalSeconds seconds);

// Reads a time of that form from the front of `text`; returns false when there is none.
bool parseTime(std::string_view text, LocalSeconds* out);

} // namespace health

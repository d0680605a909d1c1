#pragma once

#include <string_view>

namespace bench {

// Appends one line to a file with the calls that a log record needs and nothing else: open, write, read the
// size, commit, close. The programs that use it measure; it ignores failures.
void writeBareRecord(const char* path, std::string_view line);

} // namespace bench

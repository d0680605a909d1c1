#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace NS_CORE {

// Reads the settings of a test installation: files of lines, lines of tokens. Any thread.

// A line of more bytes counts as several lines.
inline constexpr size_t kMaxSettingsLine = 999;

// Calls `addLine` for each line of the file, in order, without its line break. `line` is valid during that call only. A
// line ends at its first NUL. Returns false, without a call, if the file cannot be opened. If reading fails later, logs
// WARN; the lines read so far count. The file may have any size: one line is in memory at a time.
[[nodiscard]] bool readSettingsFile(const std::string& path, const std::function<void(std::string_view line)>& addLine);

// The parts of the line between blanks, tabs, carriage returns and newlines; none is empty. They point
// into `line`, whose text must outlive them.
std::vector<std::string_view> settingsTokens(std::string_view line);

// The whole token as a decimal number with or without a sign; nothing when it is not one or needs more than 32 bits.
std::optional<int32_t> settingsNumber(std::string_view token);

} // namespace NS_CORE

#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace NS_CORE {

// How the settings of a test installation are read: lines of tokens, from files that nobody has checked. Any thread.

// What is read of one file at most; a file of more is not a settings file, whatever it is called.
inline constexpr size_t kMaxSettingsBytes = 64 * 1024;

// A line of more bytes counts as several lines.
inline constexpr size_t kMaxSettingsLine = 999;

// Hands the file's lines to `take`, in order, without their line breaks. A line ends at its first NUL. False, with
// nothing handed over, when the file does not open. One that cannot be read to its end, and one of more than
// kMaxSettingsBytes, is told at WARN; what was read counts.
[[nodiscard]] bool readSettingsFile(const std::string& path, const std::function<void(std::string_view line)>& take);

// The parts of the line between blanks, tabs, carriage returns and newlines; none is empty.
std::vector<std::string_view> settingsTokens(std::string_view line);

// The whole token as a decimal number with or without a sign; nothing when it is none or needs more than 32 bits.
std::optional<int32_t> settingsNumber(std::string_view token);

} // namespace NS_CORE

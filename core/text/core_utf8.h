#pragma once

#include <string>
#include <string_view>

namespace NS_CORE {

// Texts are UTF-8 throughout. These functions convert at the boundary of the operating system, where it wants UTF-16
// (core_utf8_win32.h takes the system's own wide strings). Any thread; nothing is shared.

// Converts all of `text`, U+0000 included. Accepts only well-formed UTF-8: no overlong sequence, no surrogate, nothing
// beyond U+10FFFF, nothing cut off. For any other text it writes one line to standard output, "fromUtf8 conversion
// failed " with the byte's position and the reason, and returns false with `wideOut` unchanged. The line does not name
// the text; the caller reports that.
[[nodiscard]] bool fromUtf8(std::string_view text, std::u16string& wideOut);

// Cannot fail: a surrogate without its other half, which a file name may hold, becomes U+FFFD.
std::string toUtf8(std::u16string_view wide);

} // namespace NS_CORE

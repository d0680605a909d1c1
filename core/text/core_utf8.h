#pragma once

#include <string>
#include <string_view>

namespace NS_CORE {

// Texts are UTF-8 throughout; these turn them into UTF-16 and back where the operating system wants it
// (core_utf8_win32.h has the same for its wide strings). Any thread may call; nothing is shared.

// Converts all of `text`, U+0000 included. Only well-formed UTF-8 passes: no overlong sequence, no surrogate, nothing
// beyond U+10FFFF, nothing cut off. Otherwise writes one line, "fromUtf8 conversion failed " with the byte's position
// and what is wrong there, to standard output and answers false with `wideOut` unchanged; the caller reports which
// text it was.
[[nodiscard]] bool fromUtf8(std::string_view text, std::u16string& wideOut);

// Cannot fail: a surrogate without its other half, which file names may hold, becomes U+FFFD.
std::string toUtf8(std::u16string_view wide);

} // namespace NS_CORE

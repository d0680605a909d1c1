#pragma once

#include <string>
#include <string_view>

#include "core/text/core_utf8.h"

namespace NS_CORE {

// fromUtf8 into the type that Windows' wide calls take; all else as there.
[[nodiscard]] bool fromUtf8(std::string_view text, std::wstring& wideOut);

// A terminated wide text; null counts as empty.
std::string toUtf8(const wchar_t* wide);

} // namespace NS_CORE

#pragma once

#include <string>

namespace NS_CORE {

// toUtf8 (core_utf8.h) for a terminated wide text of the system; null counts as empty.
std::string toUtf8(const wchar_t* wide);

// A UTF-16 text in the type that the system's wide calls take.
inline std::wstring systemWide(const std::u16string& text) {
    return {text.begin(), text.end()};
}

} // namespace NS_CORE

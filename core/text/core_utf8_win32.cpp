#include "core/text/core_utf8_win32.h"

#include <cwchar>

namespace NS_CORE {

static_assert(sizeof(wchar_t) == sizeof(char16_t), "wide texts are UTF-16 here");

bool fromUtf8(std::string_view text, std::wstring& wideOut) {
    std::u16string wide;
    if (!fromUtf8(text, wide)) return false;
    wideOut.assign(wide.begin(), wide.end());
    return true;
}

std::string toUtf8(const wchar_t* wide) {
    if (wide == nullptr) return {};
    return toUtf8(std::u16string(wide, wide + std::wcslen(wide)));
}

} // namespace NS_CORE

#include "core/text/core_utf8_win32.h"

#include <cwchar>

#include "core/text/core_utf8.h"

namespace NS_CORE {

static_assert(sizeof(wchar_t) == sizeof(char16_t), "wide texts are UTF-16 here");

std::string toUtf8(const wchar_t* wide) {
    if (wide == nullptr) return {};
    return toUtf8(std::u16string(wide, wide + std::wcslen(wide)));
}

} // namespace NS_CORE

#pragma once

#include <windows.h>

namespace test {

// Whether this is Wine and not a Windows.
inline bool isWine() {
    return ::GetProcAddress(::GetModuleHandleW(L"ntdll.dll"), "wine_get_version") != nullptr;
}

} // namespace test

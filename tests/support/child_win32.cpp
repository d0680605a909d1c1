#include <windows.h>

#include <filesystem>

#include "tests/support/child.h"

namespace test {

std::string thisProgram() {
    std::wstring path(32768, L'\0');
    path.resize(::GetModuleFileNameW(/*hModule=*/nullptr, path.data(), static_cast<DWORD>(path.size())));
    const std::u8string text = std::filesystem::path(path).u8string();
    return {text.begin(), text.end()};
}

} // namespace test

#include "packaging/setup/setup_text.h"

#include <windows.h>

#include <algorithm>

namespace setup {

std::vector<std::wstring> splitData(const std::wstring& data, size_t count) {
    std::vector<std::wstring> parts(count);
    size_t begin = 0;
    for (std::wstring& part : parts) {
        if (begin > data.size()) break;
        const bool isLast = &part == &parts.back();
        const size_t end = isLast ? data.size() : std::min(data.find(L'|', begin), data.size());
        part = data.substr(begin, end - begin);
        begin = end + 1;
    }
    return parts;
}

std::wstring errorText(unsigned long code) {
    wchar_t buffer[512] = {};
    DWORD length =
        ::FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, /*lpSource=*/nullptr, code,
                         /*dwLanguageId=*/0, buffer, ARRAYSIZE(buffer), /*Arguments=*/nullptr);
    while (length > 0 && (buffer[length - 1] <= L' ' || buffer[length - 1] == L'.')) --length;
    return std::wstring(buffer, length) + L" (" + std::to_wstring(code) + L")";
}

} // namespace setup

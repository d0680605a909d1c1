#include "core/text/core_utf8_win32.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <string>

namespace {

// The system's own conversion of a well-formed text.
std::wstring bySystem(const std::string& text) {
    std::wstring wide(text.size(), L'\0');
    const int length = ::MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, text.data(), static_cast<int>(text.size()),
                                             wide.data(), static_cast<int>(wide.size()));
    wide.resize(static_cast<size_t>(length));
    return wide;
}

TEST(WideUtf8, TextsConvertAsTheSystemConvertsThem) {
    const std::string text = "C:\\Ж é 測試\\\U0001F600";
    EXPECT_EQ(NS_CORE::toUtf8(bySystem(text).c_str()), text);
    EXPECT_EQ(NS_CORE::toUtf8(L""), "");
    EXPECT_EQ(NS_CORE::toUtf8(static_cast<const wchar_t*>(nullptr)), "");
}

} // namespace

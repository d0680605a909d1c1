#include "core/text/core_utf8_win32.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <string>

namespace {

// What the system itself makes of a well-formed text.
std::wstring bySystem(const std::string& text) {
    std::wstring wide(text.size(), L'\0');
    const int length = ::MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, text.data(), static_cast<int>(text.size()),
                                             wide.data(), static_cast<int>(wide.size()));
    wide.resize(static_cast<size_t>(length));
    return wide;
}

TEST(WideUtf8, TextsConvertAsTheSystemConvertsThem) {
    const std::string text = "C:\\Ж é 測試\\\U0001F600";
    std::wstring wide;
    ASSERT_TRUE(NS_CORE::fromUtf8(text, wide));
    EXPECT_EQ(wide, bySystem(text));
    EXPECT_EQ(NS_CORE::toUtf8(wide.c_str()), text);
}

TEST(WideUtf8, AnEmptyTextBecomesAnEmptyText) {
    std::wstring wide = L"before";
    EXPECT_TRUE(NS_CORE::fromUtf8("", wide));
    EXPECT_EQ(wide, L"");
    EXPECT_EQ(NS_CORE::toUtf8(L""), "");
}

TEST(WideUtf8, ARefusedTextLeavesTheOutputAlone) {
    std::wstring wide = L"before";
    testing::internal::CaptureStdout();
    EXPECT_FALSE(NS_CORE::fromUtf8("\x80", wide));
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "fromUtf8 conversion failed at byte 0 (0x80): continuation byte without a lead byte\n");
    EXPECT_EQ(wide, L"before");
}

TEST(WideUtf8, NullCountsAsEmpty) {
    EXPECT_EQ(NS_CORE::toUtf8(static_cast<const wchar_t*>(nullptr)), "");
}

} // namespace

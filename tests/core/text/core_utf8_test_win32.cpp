#include "core/text/core_utf8_win32.h"

#include <gtest/gtest.h>

TEST(WideUtf8, TextsConvertToTheSameInUtf8) {
    EXPECT_EQ(NS_CORE::toUtf8(L"C:\\Ж é 測試\\\U0001F600"), "C:\\Ж é 測試\\\U0001F600");
    EXPECT_EQ(NS_CORE::toUtf8(L""), "");
    EXPECT_EQ(NS_CORE::toUtf8(static_cast<const wchar_t*>(nullptr)), "");
}

#include "core/text/core_utf8.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <string_view>

#include "tests/support/child.h"
#include "tests/support/self_process.h"
#include "tests/support/stream_capture.h"

namespace {

// The converter is a pure function of the text; this takes its two outputs and what it wrote.
struct Outcome {
    bool converted;
    std::u16string wide;
    std::string output;
};

Outcome convert(std::string_view text) {
    Outcome outcome{false, u"before", ""};
    outcome.output = test::printedBy([&] { outcome.converted = NS_CORE::fromUtf8(text, outcome.wide); }).output;
    return outcome;
}

void expectConverted(std::string_view text, std::u16string_view wide) {
    const Outcome outcome = convert(text);
    EXPECT_TRUE(outcome.converted);
    EXPECT_EQ(outcome.wide, wide);
    EXPECT_EQ(outcome.output, "");
}

TEST(FromUtf8, TextsOfEveryLengthConvert) {
    expectConverted("", u"");
    expectConverted("service.log", u"service.log");
    // A byte order mark is text like any other.
    expectConverted("\xEF\xBB\xBF-", u"\xFEFF-");
    expectConverted("C:\\Ж é 測試\\\U0001F600", u"C:\\Ж é 測試\\\U0001F600");
}

TEST(FromUtf8, TheEndsOfEachLengthConvert) {
    using namespace std::string_view_literals;
    expectConverted("\0\x7F"sv, u"\0\x7F"sv);
    expectConverted("\xC2\x80\xDF\xBF", u"\x80\x7FF");
    expectConverted("\xE0\xA0\x80\xED\x9F\xBF\xEE\x80\x80\xEF\xBF\xBF", u"\x800\xD7FF\xE000\xFFFF");
    expectConverted("\xF0\x90\x80\x80\xF4\x8F\xBF\xBF", u"\U00010000\U0010FFFF");
}

TEST(FromUtf8, WhatIsNoUtf8IsRefusedWithItsPlaceAndReason) {
    const std::pair<std::string_view, std::string_view> rows[] = {
        {"\x80", "0 (0x80): continuation byte without a lead byte"},
        {"ab\xBF", "2 (0xbf): continuation byte without a lead byte"},
        {"\xC0\x80", "0 (0xc0): overlong sequence"},
        {"\xC1\xBF", "0 (0xc1): overlong sequence"},
        {"\xE0\x9F\xBF", "0 (0xe0): overlong sequence"},
        {"\xF0\x8F\xBF\xBF", "0 (0xf0): overlong sequence"},
        {"\xED\xA0\x80", "0 (0xed): surrogate"},
        {"\xED\xBF\xBF", "0 (0xed): surrogate"},
        {"\xED\xA0\xBD\xED\xB8\x80", "0 (0xed): surrogate"},
        {"\xF4\x90\x80\x80", "0 (0xf4): code point beyond U+10FFFF"},
        {"\xF7\xBF\xBF\xBF", "0 (0xf7): code point beyond U+10FFFF"},
        {"x\xF8\x88\x80\x80\x80", "1 (0xf8): invalid lead byte"},
        {"\xFF", "0 (0xff): invalid lead byte"},
        {"\xC3", "0 (0xc3): incomplete sequence"},
        {"ok\xE6\xB8", "2 (0xe6): incomplete sequence"},
        {"\xF0\x9F\x98", "0 (0xf0): incomplete sequence"},
        {"\xE6\xB8(", "0 (0xe6): incomplete sequence"},
        {"\xC3\xC3\xA9", "0 (0xc3): incomplete sequence"},
        // What would complete the sequence lies behind the text's end.
        {std::string_view("\xE6\xB8\xAC").substr(0, 2), "0 (0xe6): incomplete sequence"}};
    for (const auto& [text, description] : rows) {
        const Outcome outcome = convert(text);
        EXPECT_FALSE(outcome.converted);
        EXPECT_EQ(outcome.wide, u"before");
        EXPECT_EQ(outcome.output, "fromUtf8 conversion failed at byte " + std::string(description) + "\n");
    }
}

const test::ChildProgram g_refuseAndEnd("RefuseAndEnd", [](const auto&) -> int {
    std::u16string wide;
    std::_Exit(NS_CORE::fromUtf8("\x80", wide) ? 1 : 0);
});

TEST(FromUtf8, TheLineIsThereAtOnceWhateverEndsTheProcess) {
    test::SelfProcess child("RefuseAndEnd");
    EXPECT_TRUE(child.readAll().starts_with("fromUtf8 conversion failed at byte 0 (0x80): "));
    EXPECT_EQ(child.wait(), 0);
}

TEST(ToUtf8, EveryCodePointComesBackAsItWent) {
    for (char32_t codePoint = 0; codePoint <= 0x10FFFF; ++codePoint) {
        if (codePoint == 0xD800) codePoint = 0xE000;
        std::u16string wide;
        if (codePoint < 0x10000) {
            wide = {static_cast<char16_t>(codePoint)};
        } else {
            wide = {static_cast<char16_t>(0xD7C0 + (codePoint >> 10)),
                    static_cast<char16_t>(0xDC00 | (codePoint & 0x3FF))};
        }
        std::u16string back;
        ASSERT_TRUE(NS_CORE::fromUtf8(NS_CORE::toUtf8(wide), back)) << std::hex << uint32_t{codePoint};
        ASSERT_EQ(back, wide) << std::hex << uint32_t{codePoint};
    }
}

TEST(ToUtf8, TextsConvert) {
    EXPECT_EQ(NS_CORE::toUtf8(u""), "");
    EXPECT_EQ(NS_CORE::toUtf8(u"a é 測 \U0001F600"), "a é 測 \U0001F600");
}

TEST(ToUtf8, HalvesOfSurrogatePairsBecomeTheReplacementCharacter) {
    EXPECT_EQ(NS_CORE::toUtf8(u"\xD83D"), "\uFFFD");
    EXPECT_EQ(NS_CORE::toUtf8(u"\xD83D"
                              u"a"),
              "\uFFFD"
              "a");
    EXPECT_EQ(NS_CORE::toUtf8(u"\xDC00\xDC00\xD83D"), "\uFFFD\uFFFD\uFFFD");
    EXPECT_EQ(NS_CORE::toUtf8(u"\xD83D\xD83D\xDE00"), "\uFFFD\U0001F600");
    // The other half lies behind the text's end.
    EXPECT_EQ(NS_CORE::toUtf8(std::u16string_view(u"\xD83D\xDE00", 1)), "\uFFFD");
}

} // namespace

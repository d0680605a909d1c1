#include "core/text/core_varargs.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <limits>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <type_traits>
#include <vector>

#include "core/check/core_assert.h"
#include "tests/support/hook_recorder.h"

using test::FailedCheck;
using test::HookRecorder;

namespace NS_CORE {
namespace {

// What the hook sees when the formatter reports `message` at `line`.
FailedCheck reported(int32_t line, const std::string& message) {
    return {"CHECKF", "core_varargs", line, 0, message};
}

FailedCheck mismatch(int32_t writer, const std::string& conversion, const std::string& format) {
    return reported(15, "core_varargs:" + std::to_string(writer) + ": ch=" + conversion + " format='" + format + "'");
}

FailedCheck miscount(const std::string& format, int conversions, int arguments) {
    return reported(522, "format='" + format + "' args_in_format_string=" + std::to_string(conversions) +
                             " args_in_parameter_pack=" + std::to_string(arguments));
}

using Failures = std::vector<FailedCheck>;

// Most tests are about right formats: they must not be reported.
class Varargs : public testing::Test {
protected:
    void TearDown() override { EXPECT_EQ(m_hook.failures(), m_expected); }

    HookRecorder m_hook;
    Failures m_expected;
};

constexpr const char* kNullText = nullptr;

// What compiles.

template <class... Args>
concept Formats = requires(std::string out, const Args&... args) {
    formatString("", args...);
    formatInto(out, "", args...);
};

enum Plain { kPlain };
enum class Scoped { Value };
struct Convertible {
    operator int() const { return 1; }
    operator const char*() const { return ""; }
};

static_assert(Formats<>);
static_assert(Formats<int8_t, int16_t, int32_t, int64_t, uint8_t, uint16_t, uint32_t, uint64_t>);
static_assert(Formats<long, unsigned long, long long, unsigned long long, size_t, ptrdiff_t>);
static_assert(Formats<char, float, double, const char*, char*, char[4], const char[4], std::string, std::string_view>);
static_assert(Formats<void*, const void*, int*, const volatile int*, unsigned char*, wchar_t*, void (*)(), int[3]>);
static_assert(!Formats<bool>);
static_assert(!Formats<long double>);
static_assert(!Formats<wchar_t> && !Formats<char8_t> && !Formats<char16_t> && !Formats<char32_t>);
static_assert(!Formats<Plain> && !Formats<Scoped>);
static_assert(!Formats<std::nullptr_t>);
static_assert(!Formats<std::wstring> && !Formats<std::u16string>);
static_assert(!Formats<Convertible> && !Formats<std::vector<char>> && !Formats<int Convertible::*>);
static_assert(!Formats<int, const char*, bool>);

// Text between the conversions.

TEST_F(Varargs, CopiesTextAndPercentSigns) {
    EXPECT_EQ(formatString("") + "|" + formatString("plain") + "|" + formatString("%%"), "|plain|%");
    EXPECT_EQ(formatString("%d%%", 5), "5%");
    EXPECT_EQ(formatString("%%%%d"), "%%d");
    EXPECT_EQ(formatString("%%%d%%%%%d", 1, 2), "%1%%2");
    // A lone one at the end.
    EXPECT_EQ(formatString("100%") + "|" + formatString("%") + "|" + formatString("%%%"), "100%|%|%%");
}

// The format in memory of exactly its size, so that the sanitizer sees a read behind it.
template <class... Args>
std::string formatExact(std::string_view format, const Args&... args) {
    const auto exact = std::make_unique<char[]>(format.size() + 1);
    std::copy(format.begin(), format.end(), exact.get());
    exact[format.size()] = '\0';
    return formatString(exact.get(), args...);
}

TEST_F(Varargs, FindsConversionsAtEveryDistance) {
    for (size_t before = 0; before < 40; ++before) {
        for (size_t behind = 0; behind < 40; ++behind) {
            const std::string head(before, 'h');
            const std::string tail(behind, 't');
            EXPECT_EQ(formatExact(head + "%s" + tail, "text"), head + "text" + tail);
            EXPECT_EQ(formatExact(head + "%%" + tail), head + "%" + tail);
            EXPECT_EQ(formatExact(head + "%d" + tail + "%", 7), head + "7" + tail + "%");
        }
    }
}

TEST_F(Varargs, TextNextToAPercentSignInValueIsNotTakenForOne) {
    // All characters but the NUL and '%' itself, each as a neighbour of a conversion.
    for (int code = 1; code < 256; ++code) {
        if (code == '%') continue;
        const std::string run(9, static_cast<char>(code));
        EXPECT_EQ(formatExact(run + "%d" + run, 5), run + "5" + run);
    }
}

TEST_F(Varargs, WritesTextOfEveryLength) {
    // In memory of exactly its size as well.
    for (size_t length = 0; length < 300; ++length) {
        const std::vector<char> text(length, 't');
        const std::string_view view(text.data(), text.size());
        EXPECT_EQ(formatString("<%s>%s", view, view), "<" + std::string(view) + ">" + std::string(view));
    }
}

TEST_F(Varargs, AppendsToWhatIsThere) {
    std::string out = "before ";
    formatInto(out, "%d %s", 1, "two");
    formatInto(out, "");
    EXPECT_EQ(out, "before 1 two");
}

// Integers. What is the same as in the C library has its tests below, against that library.

TEST_F(Varargs, SignsIntegers) {
    EXPECT_EQ(formatString("%+d %+d %+d|% d|% d", 5, -5, 0, 5, -5), "+5 -5 +0| 5|-5");
    EXPECT_EQ(formatString("%+ d|% +d", 5, 5), " 5| 5");
    // Only signed conversions of signed values have one.
    EXPECT_EQ(formatString("%+d % d %+i|%+u %+x % o", 5U, 5U, uint8_t{5}, 5, 5, 5), "5 5 5|5 5 5");
}

TEST_F(Varargs, PadsIntegers) {
    EXPECT_EQ(formatString("%5d|%-5d|%5d|%-5d|", 42, 42, -42, -42), "   42|42   |  -42|-42  |");
    EXPECT_EQ(formatString("%05d|%02d|%+05d|% 05d|%2d", -42, 7, 42, 42, 12345), "-0042|07|+0042| 0042|12345");
    EXPECT_EQ(formatString("%300d|%0300d|", 1, 1), std::string(299, ' ') + "1|" + std::string(299, '0') + "1|");
    // Zeros win over left-justify, and a precision takes the width's place, with zeros.
    EXPECT_EQ(formatString("%-05d|%0-5d|", 42, 42), "00042|00042|");
    EXPECT_EQ(formatString("%.3d|%.3d|%8.3d|%-8.3d|", 7, -7, 5, 5), "007|-07|005|005|");
    EXPECT_EQ(formatString("%.0d|%.d|%5.0d|%05.0d|%5.1d", 0, 0, 5, 5, 5), "0|0|    5|00005|5");
    EXPECT_EQ(formatString("%+0#+5d|%---#5d|", 42, 42), "+0042|42   |");
}

TEST_F(Varargs, WritesOctalAndHexadecimalWithoutPrefix) {
    EXPECT_EQ(formatString("%#x %X %o %#o %x", 255, 255, 8, 8, uint64_t{0}), "ff FF 10 10 0");
    EXPECT_EQ(formatString("%o", std::numeric_limits<uint64_t>::max()), "1777777777777777777777");
}

TEST_F(Varargs, NegativeValuesCountAtTheirOwnSize) {
    EXPECT_EQ(formatString("%u %x %u %x", int8_t{-1}, int8_t{-1}, int16_t{-1}, int16_t{-1}), "255 ff 65535 ffff");
    EXPECT_EQ(formatString("%u %o %u", -1, -1, int64_t{-1}), "4294967295 37777777777 18446744073709551615");
}

TEST_F(Varargs, LengthModifiersMeanNothing) {
    EXPECT_EQ(formatString("%hhd %hd %ld %lld %jd %td %zd %Ld", 70000, 70000, 70000, 70000, 70000, 70000, 70000, 70000),
              "70000 70000 70000 70000 70000 70000 70000 70000");
    EXPECT_EQ(formatString("%u %ls %Lf", uint64_t{1} << 40, "text", 1.5), "1099511627776 text 1.500000");
}

// Characters.

TEST_F(Varargs, WritesCharacters) {
    EXPECT_EQ(formatString("%c%c%c|%3c|%-3c|%03c", 'a', 66, '%', 'a', 'b', 'a'), "aB%|  a|b  |  a");
    EXPECT_EQ(formatString("%3c|%-3c|", 97U, uint8_t{98}), "  a|b  |");
    EXPECT_EQ(formatString("[%c][%5c][%c]", '\0', '\0', 0), "[][][]");
    EXPECT_EQ(formatString("%d %i %u %o %x %X", 'A', 'A', 'A', 'A', 'z', 'z'), "65 65 65 101 7a 7A");
    EXPECT_EQ(formatString("%d %u %x", '\xff', '\xff', '\xff'), "-1 255 ff");
}

// Text.

TEST_F(Varargs, PadsAndLimitsText) {
    EXPECT_EQ(formatString("%5s|%-5s|%05s|%1s|%5s|%-5s|", "ab", "ab", "ab", "ab", "", ""),
              "   ab|ab   |   ab|ab|     |     |");
    // A precision of 0 is no limit.
    EXPECT_EQ(formatString("%.2s|%.9s|%.0s|%.s|%5.2s|%-5.2s|", "abc", "abc", "abc", "abc", "abc", "abc"),
              "ab|abc|abc|abc|   ab|ab   |");
    // Beyond the greatest number; as a precision, because a width of that size would be written.
    EXPECT_EQ(formatString("%.4294967298s|%.99999999999999999999999s", "abc", "abc"), "abc|abc");
}

TEST_F(Varargs, TakesEveryKindOfText) {
    char array[8] = "array";
    char* pointer = array;
    const std::string text = "string";
    EXPECT_EQ(formatString("%s %s %s %s %s", array, pointer, text, std::string_view("view!").substr(0, 4), "literal"),
              "array array string view literal");
    EXPECT_EQ(formatString("[%s][%s]", std::string_view(), std::string("a\0b", 3)), std::string("[][a\0b]", 7));
    EXPECT_EQ(formatString("%s|%8s|%-8s|%.3s|%5S", kNullText, kNullText, kNullText, kNullText, kNullText),
              "(null)|  (null)|(null)  |(nu|(n...");
}

TEST_F(Varargs, TruncatingTextEndsInDotsAndIsNotPadded) {
    EXPECT_EQ(formatString("%6S|%4S|%-6S|%6S", "abcdefgh", "abcdefgh", "abcdefgh", std::string("abcdefgh")),
              "abc...|a...|abc...|abc...");
    EXPECT_EQ(formatString("%6S|%6S|%S|%.2S|%6.2S|", "ab", "abcdef", "abcdef", "abcdef", "abcdef"),
              "ab|abcdef|abcdef|ab|ab|");
    // The whole text counts against the width, whatever the precision.
    EXPECT_EQ(formatString("%5.2S|", "abcdef"), "ab...|");
}

TEST_F(Varargs, TruncatingWithoutRoomForDotsIsAnAssertionOfLevelOne) {
    EXPECT_EQ(formatString("%2S|%1S|%3S", "abcdefgh", "abcdefgh", "abcdefgh"), "ab|a|abc");
    m_expected = Failures(3, {"false", "core_varargs", 64, 1, ""});
    EXPECT_EQ(m_hook.failures(), m_expected);
    Assert::setLevel(0);
    EXPECT_EQ(formatString("%2S", "abcdefgh"), "ab");
    Assert::setLevel(1);
}

// Pointers.

template <class T>
T* pointerTo(uintptr_t address) {
    return reinterpret_cast<T*>(address);
}

TEST_F(Varargs, WritesPointers) {
    EXPECT_EQ(
        formatString("%p %p %p", pointerTo<void>(0x2a), pointerTo<const volatile int>(0xab), pointerTo<void()>(0x2a)),
        "0x2a 0xab 0x2a");
    const char* const text = "text";
    EXPECT_EQ(formatString("%p", text), formatString("%p", static_cast<const void*>(text)));
    EXPECT_EQ(formatString("%p", pointerTo<void>(std::numeric_limits<uintptr_t>::max())),
              "0x" + std::string(sizeof(void*) * 2, 'f'));
    // The width goes to the digits.
    void* const place = pointerTo<void>(0x2a);
    EXPECT_EQ(formatString("%8p|%-8p|%08p|%.6p|%1p|%+p|", place, place, place, place, place, place),
              "0x    2a|0x2a    |0x00002a|0x00002a|0x2a|0x2a|");
    // Null is padded as text.
    void* const nothing = nullptr;
    EXPECT_EQ(formatString("%p|%8p|%-8p|%08p|%.3p|%p", nothing, nothing, nothing, nothing, nothing, kNullText),
              "(nil)|   (nil)|(nil)   |   (nil)|(ni|(nil)");
}

// Floating point.

TEST_F(Varargs, WritesFloatingPoint) {
    EXPECT_EQ(formatString("%f|%.1f|%8.1f|%-8.1f|", 1.5, 1.5, 1.5, 1.5F), "1.500000|1.5|     1.5|1.5     |");
    EXPECT_EQ(formatString("%.0f %.f|%g %G %.3e %.3E", 1.75, 1.75, 0.5, 1e-10, 1.5, -1.5),
              "2 2|0.5 1E-10 1.500e+00 -1.500E+00");
    // No other flags apply.
    EXPECT_EQ(formatString("%08.1f|%+.1f|% .1f|%#.0f|", 1.5, 1.5, 1.5, 2.0), "     1.5|1.5|1.5|2|");
}

TEST_F(Varargs, FloatingPointTakesAnyPrecision) {
    const std::string zeros(21, '0');
    EXPECT_EQ(formatString("%f", 1e300).size(), 23U);
    EXPECT_EQ(formatString("%.2147483647f|%.2147483647e|%.99999999999g", 1.0, 0.5, 0.5),
              "1." + zeros + "|5." + zeros + "|0.5");
}

// Repairs.

// One wrong format with one argument: the report names `writer`, and `written` stands for the argument.
template <class T>
void expectRepaired(int32_t writer, const std::string& conversion, const T& argument, const std::string& written,
                    const Failures& further = {}) {
    HookRecorder hook;
    const std::string format = "<%" + conversion + ">";
    EXPECT_EQ(formatString(format.c_str(), argument), "<" + written + ">");
    Failures expected = {mismatch(writer, conversion.substr(conversion.size() - 1), format)};
    expected.insert(expected.end(), further.begin(), further.end());
    EXPECT_EQ(hook.failures(), expected);
}

TEST(VarargsRepair, WritesANeutralValueForAnUnsuitableArgument) {
    int value = 1;
    for (const char* conversion : {"d", "i", "u", "o", "x", "X"}) {
        expectRepaired(261, conversion, "text", "0");
        expectRepaired(261, conversion, std::string("text"), "0");
        expectRepaired(261, conversion, kNullText, "0");
        expectRepaired(327, conversion, &value, "0");
        expectRepaired(500, conversion, 1.5F, "0");
    }
    for (const char* conversion : {"f", "F", "e", "E", "g", "G", "a", "A"}) {
        const std::string zero = formatString((std::string("%") + conversion).c_str(), 0.0);
        expectRepaired(261, conversion, std::string_view("text"), zero);
        expectRepaired(327, conversion, static_cast<void*>(nullptr), zero);
        expectRepaired(332, conversion, 5, zero);
        expectRepaired(367, conversion, 'a', zero);
    }
    expectRepaired(261, "c", "text", "?");
    expectRepaired(327, "c", &value, "?");
    expectRepaired(500, "c", 1.5, "?");
    expectRepaired(261, "p", std::string("text"), "(nil)");
    expectRepaired(261, "p", std::string_view("text"), "(nil)");
    expectRepaired(332, "p", 5, "(nil)");
    expectRepaired(367, "p", 'a', "(nil)");
    expectRepaired(500, "p", 1.5, "(nil)");
    expectRepaired(327, "s", &value, "");
    expectRepaired(332, "s", 5U, "");
    expectRepaired(332, "s", int64_t{5}, "");
    expectRepaired(367, "s", 'a', "");
    expectRepaired(500, "s", 1.5, "");
}

TEST(VarargsRepair, NeutralValuesTakeWidthAndFlags) {
    expectRepaired(261, "5d", "text", "    0");
    expectRepaired(261, "-5d", "text", "0    ");
    expectRepaired(261, "+d", "text", "+0");
    expectRepaired(261, ".3x", "text", "000");
    expectRepaired(261, "5.1f", "text", "  0.0");
    expectRepaired(261, "3c", "text", "  ?");
    expectRepaired(332, "8p", 5, "   (nil)");
    expectRepaired(332, "5s", 5, "");
}

TEST(VarargsRepair, UnknownConversionIsWrittenAndReportedTwice) {
    expectRepaired(332, "y", 5, "y", {reported(34, "y")});
    expectRepaired(261, "y", "text", "y", {reported(34, "y")});
    expectRepaired(332, "5y", 5, "y", {reported(34, "y")});
    expectRepaired(332, "S", 5, "S", {reported(34, "S")});
    expectRepaired(367, "*", 'a', "*", {reported(34, "*")});
    expectRepaired(500, "n", 1.5, "n", {reported(34, "n")});
    expectRepaired(261, "\xe9", "text", "\xe9", {reported(34, "\xe9")});
    expectRepaired(332, "5%", 5, "%", {reported(34, "%")});
}

TEST(VarargsRepair, FormatThatEndsInsideAConversion) {
    for (const char* format : {"text %5", "text %-", "text %.", "text %.3", "text %l", "text %hh", "text %z"}) {
        HookRecorder hook;
        EXPECT_EQ(formatExact(format, 5), "text ");
        EXPECT_EQ(hook.failures(), (Failures{mismatch(332, "", format), reported(34, "")}));
    }
}

TEST(VarargsRepair, ConversionsWithoutArgumentAreZeroAndCounted) {
    HookRecorder hook;
    const std::string format = "%d %s|%f|%p|%c|%y|%03x|%%|end";
    EXPECT_EQ(formatString(format.c_str(), 5), "5 |0.000000|(nil)|?|y|000|%|end");
    Failures expected;
    for (const char* const conversion : {"s", "f", "p", "c", "y"})
        expected.push_back(mismatch(540, conversion, format));
    expected.insert(expected.end(), {reported(34, "y"), mismatch(540, "x", format), miscount(format, 7, 1)});
    EXPECT_EQ(hook.failures(), expected);
}

TEST(VarargsRepair, ArgumentsWithoutConversionAreCounted) {
    HookRecorder hook;
    EXPECT_EQ(formatString("%d end", 1, "two", 3.0), "1 end");
    EXPECT_EQ(formatString("", 1), "");
    EXPECT_EQ(formatString("100%", 1), "100%");
    EXPECT_EQ(hook.failures(), (Failures{miscount("%d end", 1, 3), miscount("", 0, 1), miscount("100%", 0, 1)}));
}

TEST(VarargsRepair, WhatElseTheTextHoldsStays) {
    HookRecorder hook;
    std::string out = "kept ";
    const char* format = "failed to load image=%s module=%d base_addr=%d, size=%d";
    formatInto(out, format, "image.dll", "module", 4096, 8192);
    EXPECT_EQ(out, "kept failed to load image=image.dll module=0 base_addr=4096, size=8192");
    EXPECT_EQ(hook.single(), mismatch(261, "d", format));
}

TEST(VarargsRepair, ReportsAtAssertionLevelZeroToo) {
    HookRecorder hook;
    Assert::setLevel(0);
    EXPECT_EQ(formatString("%d", "text"), "0");
    Assert::setLevel(1);
    EXPECT_EQ(hook.single(), mismatch(261, "d", "%d"));
}

TEST(VarargsRepair, FormatsInReportsAreNotReadAsFormats) {
    HookRecorder hook;
    const std::string format = "%s %n %d %%";
    EXPECT_EQ(formatString(format.c_str(), "a", 1, 2), "a n 2 %");
    EXPECT_EQ(hook.failures(), (Failures{mismatch(332, "n", format), reported(34, "n")}));
}

// A handler whose own format is wrong, which is reported to the handler.
int g_calls = 0;
std::string g_innerText;

bool formatWrongly(const char*, std::string_view, int32_t, int32_t, const std::string&) {
    // Another thread may go as deep again.
    if (++g_calls == 4) std::thread([] { static_cast<void>(formatString("%d", "text")); }).join();
    g_innerText = formatString("%d", "text");
    return false;
}

TEST(VarargsRepair, HandlerWithAWrongFormatDoesNotRecurseForEver) {
    Assert::installFailureHandler(&formatWrongly);
    for (int round = 1; round <= 2; ++round) {
        g_calls = 0;
        EXPECT_EQ(formatString("%d!", "text"), "0!");
        EXPECT_EQ(g_calls, 8);
        EXPECT_EQ(g_innerText, "0");
    }
}

TEST(VarargsRepairDeathTest, FatalAnswerStopsTheProcess) {
    HookRecorder hook;
    hook.answerStop(true);
    EXPECT_DEATH(static_cast<void>(formatString("%d", "text")), "");
    EXPECT_DEATH(static_cast<void>(formatString("%2S", "text")), "");
}

// Reservation. A text that grew behind its reservation would have another capacity.

TEST_F(Varargs, ReservesElevenTenthsOfTheEstimateOnce) {
    const std::string text(100, 't');
    EXPECT_EQ(formatString("%s", text).capacity(), 102U + 10U);
    EXPECT_EQ(formatString("%s", text.c_str()).capacity(), 102U + 10U);
    EXPECT_EQ(formatString("123456789012345678%s", kNullText).capacity(), 20U + 6U + 2U);
    EXPECT_EQ(formatString("%d%u", 1, uint64_t{1}).capacity(), 4U + 32U + 3U);
    const std::string longer(4000, 't');
    EXPECT_EQ(formatString("%s %d%s", longer, 1, longer).capacity(), 8023U + 802U);
    EXPECT_EQ(formatString("%s %d", text, std::numeric_limits<int32_t>::min()).capacity(), 5U + 116U + 12U);
}

TEST_F(Varargs, GrowsBeyondTheEstimate) {
    EXPECT_EQ(formatString("%s%200d%s%s", "a", 1, "b", "c"), "a" + std::string(199, ' ') + "1bc");
    EXPECT_EQ(formatString("%100s%100s%1000s|", "a", "b", "c"),
              std::string(99, ' ') + "a" + std::string(99, ' ') + "b" + std::string(999, ' ') + "c|");
    const std::string tail(5000, 't');
    EXPECT_EQ(formatString(("%6000d" + tail + "%s").c_str(), 1, tail), std::string(5999, ' ') + "1" + tail + tail);
}

// The C library as the judge, wherever it means the same.

template <class... Args>
std::string library(const std::string& format, Args... args) {
    char buffer[500];
    return {buffer, static_cast<size_t>(std::snprintf(buffer, sizeof buffer, format.c_str(), args...))};
}

constexpr const char* kWidths[] = {"", "1", "2", "5", "11", "12", "20", "21", "30"};
constexpr const char* kPrecisions[] = {"", ".1", ".2", ".5", ".17"};

template <class T>
void compareIntegers() {
    using Limits = std::numeric_limits<T>;
    // Each number of digits in each base, and the ends of the range.
    std::vector<T> values = {0, 1, Limits::max(), Limits::max() - 1, Limits::min(), Limits::min() + 1};
    for (const uint64_t base : {2U, 10U}) {
        for (uint64_t power = base; power != 0 && power <= uint64_t{Limits::max()}; power *= base) {
            values.push_back(static_cast<T>(power - 1));
            values.push_back(static_cast<T>(0 - power));
            values.push_back(static_cast<T>(power));
            if (power > std::numeric_limits<uint64_t>::max() / base) break;
        }
    }
    for (const std::string flags : {"", "-", "0", "+", " ", "-+", "0 "}) {
        for (const std::string width : kWidths) {
            for (const char letter : {'d', 'i', 'u', 'o', 'x', 'X'}) {
                const bool isSigned = letter == 'd' || letter == 'i';
                const bool hasSign = flags.find_first_of("+ ") != std::string::npos;
                if (hasSign && (!isSigned || std::is_unsigned_v<T>)) continue; // has no sign here
                for (const T value : values) {
                    // The library knows no signed conversion of such a value.
                    if (isSigned && std::is_unsigned_v<T> && value > Limits::max() / 2) continue;
                    const std::string begin = "<%" + flags + width;
                    const std::string expected =
                        isSigned ? library(begin + "ll" + letter + ">", static_cast<long long>(value))
                                 : library(begin + "ll" + letter + ">",
                                           static_cast<unsigned long long>(std::make_unsigned_t<T>(value)));
                    ASSERT_EQ(formatString((begin + letter + ">").c_str(), value), expected) << begin << letter;
                }
            }
        }
    }
}

TEST_F(Varargs, IntegersAreTheLibrarys) {
    compareIntegers<int8_t>();
    compareIntegers<uint8_t>();
    compareIntegers<int16_t>();
    compareIntegers<uint16_t>();
    compareIntegers<int32_t>();
    compareIntegers<uint32_t>();
    compareIntegers<int64_t>();
    compareIntegers<uint64_t>();
}

TEST_F(Varargs, CharactersAndTextAreTheLibrarys) {
    for (const std::string flag : {"", "-"}) {
        for (const std::string width : kWidths) {
            const std::string begin = "<%" + flag + width;
            for (int code = 1; code < 256; ++code) {
                const std::string expected = library(begin + "c>", static_cast<char>(code));
                ASSERT_EQ(formatString((begin + "c>").c_str(), static_cast<char>(code)), expected);
                ASSERT_EQ(formatString((begin + "c>").c_str(), code), expected);
            }
            for (const std::string precision : kPrecisions) {
                const std::string format = begin + precision + "s>";
                for (size_t length = 0; length < 40; ++length) {
                    const std::string text = std::string("abcdefghijklmnopqrstuvwxyz0123456789ABCD").substr(0, length);
                    const std::string expected = library(format, text.c_str());
                    ASSERT_EQ(formatString(format.c_str(), text), expected) << format;
                    ASSERT_EQ(formatString(format.c_str(), text.c_str()), expected) << format;
                }
            }
        }
    }
}

TEST_F(Varargs, FloatingPointIsTheLibrarysCutTo23Characters) {
    constexpr double kInfinite = std::numeric_limits<double>::infinity();
    for (const double value : {0.0, 1.0, -1.5, 0.1, 123456.789, -9.99e-7, 1e22, 3.25e-300, kInfinite, -kInfinite}) {
        for (const char letter : {'f', 'F', 'e', 'E', 'g', 'G', 'a', 'A'}) {
            for (const std::string precision : kPrecisions) {
                const std::string whole = library("%" + precision + letter, value);
                for (const std::string width : {"", "9", "-9", "30"}) {
                    const std::string format = "<%" + width + precision + letter + ">";
                    const std::string cut = whole.substr(0, 23);
                    ASSERT_EQ(formatString(format.c_str(), value), library("<%" + width + "s>", cut.c_str())) << format;
                    const auto narrow = static_cast<float>(value);
                    ASSERT_EQ(formatString(format.c_str(), narrow),
                              formatString(format.c_str(), static_cast<double>(narrow)));
                }
            }
        }
    }
}

} // namespace
} // namespace NS_CORE

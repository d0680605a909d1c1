#include "core/text/core_varargs.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <limits>
#include <memory>
#include <random>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "core/check/core_assert.h"
#include "tests/support/hook_recorder.h"

using NS_CORE::Assert;
using NS_CORE::formatInto;
using NS_CORE::formatString;
using test::FailedCheck;
using test::HookRecorder;

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
    EXPECT_EQ(formatString(""), "");
    EXPECT_EQ(formatString("plain"), "plain");
    EXPECT_EQ(formatString("%d%%", 5), "5%");
    EXPECT_EQ(formatString("%%"), "%");
    EXPECT_EQ(formatString("%%%%d"), "%%d");
    EXPECT_EQ(formatString("%%%d%%%%%d", 1, 2), "%1%%2");
}

TEST_F(Varargs, LonePercentAtTheEndIsWritten) {
    EXPECT_EQ(formatString("100%"), "100%");
    EXPECT_EQ(formatString("%"), "%");
    EXPECT_EQ(formatString("%%%"), "%%");
    EXPECT_EQ(formatString("%d%", 5), "5%");
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

TEST_F(Varargs, AppendsToWhatIsThere) {
    std::string out = "before ";
    formatInto(out, "%d %s", 1, "two");
    EXPECT_EQ(out, "before 1 two");
    formatInto(out, "");
    EXPECT_EQ(out, "before 1 two");
}

// Integers.

TEST_F(Varargs, WritesSignedIntegers) {
    EXPECT_EQ(formatString("%d %i", 0, -7), "0 -7");
    EXPECT_EQ(formatString("%+d %+d %+d", 5, -5, 0), "+5 -5 +0");
    EXPECT_EQ(formatString("% d|% d", 5, -5), " 5|-5");
    EXPECT_EQ(formatString("%d", std::numeric_limits<int64_t>::min()), "-9223372036854775808");
    EXPECT_EQ(formatString("%d", std::numeric_limits<int64_t>::max()), "9223372036854775807");
    EXPECT_EQ(formatString("%d", std::numeric_limits<int32_t>::min()), "-2147483648");
}

TEST_F(Varargs, BlankSignWinsOverPlus) {
    EXPECT_EQ(formatString("%+ d", 5), " 5");
    EXPECT_EQ(formatString("% +d", 5), " 5");
}

TEST_F(Varargs, OnlySignedConversionsOfSignedValuesGetASign) {
    EXPECT_EQ(formatString("%+d % d %+i", 5U, 5U, uint8_t{5}), "5 5 5");
    EXPECT_EQ(formatString("%+u %+x % o", 5, 5, 5), "5 5 5");
}

TEST_F(Varargs, PadsIntegers) {
    EXPECT_EQ(formatString("%5d|%-5d|", 42, 42), "   42|42   |");
    EXPECT_EQ(formatString("%5d|%-5d|", -42, -42), "  -42|-42  |");
    EXPECT_EQ(formatString("%05d", -42), "-0042");
    EXPECT_EQ(formatString("%02d", 7), "07");
    EXPECT_EQ(formatString("%+05d % 05d", 42, 42), "+0042  0042");
    EXPECT_EQ(formatString("%2d", 12345), "12345");
    EXPECT_EQ(formatString("%300d|", 1), std::string(299, ' ') + "1|");
    EXPECT_EQ(formatString("%0300d|", 1), std::string(299, '0') + "1|");
}

TEST_F(Varargs, ZeroPaddingWinsOverLeftJustify) {
    EXPECT_EQ(formatString("%-05d|", 42), "00042|");
    EXPECT_EQ(formatString("%0-5d|", 42), "00042|");
}

TEST_F(Varargs, PrecisionOfAnIntegerTakesTheWidthsPlaceWithZeros) {
    EXPECT_EQ(formatString("%.3d", 7), "007");
    EXPECT_EQ(formatString("%.3d", -7), "-07");
    EXPECT_EQ(formatString("%8.3d", 5), "005");
    EXPECT_EQ(formatString("%-8.3d|", 5), "005|");
    EXPECT_EQ(formatString("%.0d|%.d|%5.0d", 0, 0, 5), "0|0|    5");
}

TEST_F(Varargs, WritesOctalAndHexadecimalWithoutPrefix) {
    EXPECT_EQ(formatString("%#x", 255), "ff");
    EXPECT_EQ(formatString("%X", 255), "FF");
    EXPECT_EQ(formatString("%o %#o", 8, 8), "10 10");
    EXPECT_EQ(formatString("%x %o", uint64_t{0}, 0), "0 0");
    EXPECT_EQ(formatString("%o", std::numeric_limits<uint64_t>::max()), "1777777777777777777777");
    EXPECT_EQ(formatString("%X", std::numeric_limits<uint64_t>::max()), "FFFFFFFFFFFFFFFF");
}

TEST_F(Varargs, NegativeValuesCountAtTheirOwnSize) {
    EXPECT_EQ(formatString("%u %x", int8_t{-1}, int8_t{-1}), "255 ff");
    EXPECT_EQ(formatString("%u %x", int16_t{-1}, int16_t{-1}), "65535 ffff");
    EXPECT_EQ(formatString("%u %o", -1, -1), "4294967295 37777777777");
    EXPECT_EQ(formatString("%u", int64_t{-1}), "18446744073709551615");
}

TEST_F(Varargs, LengthModifiersMeanNothing) {
    EXPECT_EQ(formatString("%hhd %hd %ld %lld %jd %td %zd %Ld", 70000, 70000, 70000, 70000, 70000, 70000, 70000, 70000),
              "70000 70000 70000 70000 70000 70000 70000 70000");
    EXPECT_EQ(formatString("%u %s %Lf", uint64_t{1} << 40, "text", 1.5), "1099511627776 text 1.500000");
    EXPECT_EQ(formatString("%ls", "text"), "text");
}

TEST_F(Varargs, FlagsMayStandInAnyOrderAndNumber) {
    EXPECT_EQ(formatString("%+0#+5d", 42), "+0042");
    EXPECT_EQ(formatString("%---#5d|", 42), "42   |");
}

// Characters.

TEST_F(Varargs, WritesCharacters) {
    EXPECT_EQ(formatString("%c%c", 'a', 66), "aB");
    EXPECT_EQ(formatString("%3c|%-3c|", 'a', 'b'), "  a|b  |");
    EXPECT_EQ(formatString("%03c", 'a'), "  a");
    EXPECT_EQ(formatString("%3c|%-3c|", 97U, uint8_t{98}), "  a|b  |");
    EXPECT_EQ(formatString("%c", '%'), "%");
}

TEST_F(Varargs, NulCharacterWritesNothing) {
    EXPECT_EQ(formatString("[%c]", '\0'), "[]");
    EXPECT_EQ(formatString("[%5c]", '\0'), "[]");
    EXPECT_EQ(formatString("[%c]", 0), "[]");
}

TEST_F(Varargs, WritesACharactersCode) {
    EXPECT_EQ(formatString("%d %i %u %o %x %X", 'A', 'A', 'A', 'A', 'z', 'z'), "65 65 65 101 7a 7A");
    EXPECT_EQ(formatString("%d %u %x", '\xff', '\xff', '\xff'), "-1 255 ff");
}

// Text.

TEST_F(Varargs, PadsText) {
    EXPECT_EQ(formatString("%5s", "ab"), "   ab");
    EXPECT_EQ(formatString("%-5s|", "ab"), "ab   |");
    EXPECT_EQ(formatString("%05s", "ab"), "   ab");
    EXPECT_EQ(formatString("%1s", "ab"), "ab");
    EXPECT_EQ(formatString("%5s|%-5s|", "", ""), "     |     |");
}

TEST_F(Varargs, PrecisionLimitsTextButZeroDoesNot) {
    EXPECT_EQ(formatString("%.2s", "abc"), "ab");
    EXPECT_EQ(formatString("%.0s", "abc"), "abc");
    EXPECT_EQ(formatString("%.s", "abc"), "abc");
    EXPECT_EQ(formatString("%5.2s|%-5.2s|", "abc", "abc"), "   ab|ab   |");
    EXPECT_EQ(formatString("%.9s", "abc"), "abc");
}

TEST_F(Varargs, TakesEveryKindOfText) {
    char array[8] = "array";
    char* pointer = array;
    const std::string text = "string";
    EXPECT_EQ(formatString("%s %s %s %s %s", array, pointer, text, std::string_view("view!").substr(0, 4), "literal"),
              "array array string view literal");
    EXPECT_EQ(formatString("[%s]", std::string_view()), "[]");
    EXPECT_EQ(formatString("[%s]", std::string("a\0b", 3)), std::string("[a\0b]", 5));
}

TEST_F(Varargs, NullTextIsWrittenAsSuch) {
    EXPECT_EQ(formatString("%s", kNullText), "(null)");
    EXPECT_EQ(formatString("%8s|%-8s|", kNullText, kNullText), "  (null)|(null)  |");
    EXPECT_EQ(formatString("%.3s", kNullText), "(nu");
    EXPECT_EQ(formatString("%5S", kNullText), "(n...");
}

TEST_F(Varargs, TruncatingTextEndsInDots) {
    EXPECT_EQ(formatString("%6S", "abcdefgh"), "abc...");
    EXPECT_EQ(formatString("%4S", "abcdefgh"), "a...");
    EXPECT_EQ(formatString("%-6S|", "abcdefgh"), "abc...|");
    EXPECT_EQ(formatString("%6S", std::string("abcdefgh")), "abc...");
}

TEST_F(Varargs, TruncatingTextIsNotPadded) {
    EXPECT_EQ(formatString("%6S|", "ab"), "ab|");
    EXPECT_EQ(formatString("%6S|", "abcdef"), "abcdef|");
    EXPECT_EQ(formatString("%S|", "abcdef"), "abcdef|");
    EXPECT_EQ(formatString("%.2S|%6.2S|", "abcdef", "abcdef"), "ab|ab|");
    // The whole text counts against the width, whatever the precision.
    EXPECT_EQ(formatString("%5.2S|", "abcdef"), "ab...|");
}

TEST_F(Varargs, TruncatingWithoutRoomForDotsIsAnAssertionOfLevelOne) {
    EXPECT_EQ(formatString("%2S", "abcdefgh"), "ab");
    EXPECT_EQ(formatString("%1S", "abcdefgh"), "a");
    EXPECT_EQ(formatString("%3S", "abcdefgh"), "abc");
    m_expected = Failures(3, {"false", "core_varargs", 64, 1, ""});
    EXPECT_EQ(m_hook.failures(), m_expected);

    m_hook.clear();
    m_expected.clear();
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
    EXPECT_EQ(formatString("%p", pointerTo<void>(0x2a)), "0x2a");
    EXPECT_EQ(formatString("%p", pointerTo<const volatile int>(0xabcdef)), "0xabcdef");
    const char* const text = "text";
    EXPECT_EQ(formatString("%p", text), formatString("%p", static_cast<const void*>(text)));
    EXPECT_EQ(formatString("%p", pointerTo<void()>(0x2a)), "0x2a");
    EXPECT_EQ(formatString("%p", pointerTo<void>(std::numeric_limits<uintptr_t>::max())),
              "0x" + std::string(sizeof(void*) * 2, 'f'));
}

TEST_F(Varargs, WidthOfAPointerGoesToItsDigits) {
    EXPECT_EQ(formatString("%8p|", pointerTo<void>(0x2a)), "0x    2a|");
    EXPECT_EQ(formatString("%-8p|", pointerTo<void>(0x2a)), "0x2a    |");
    EXPECT_EQ(formatString("%08p|", pointerTo<void>(0x2a)), "0x00002a|");
    EXPECT_EQ(formatString("%.6p|", pointerTo<void>(0x2a)), "0x00002a|");
    EXPECT_EQ(formatString("%1p|%+p|", pointerTo<void>(0x2a), pointerTo<void>(0x2a)), "0x2a|0x2a|");
}

TEST_F(Varargs, NullPointerIsPaddedAsText) {
    void* const nothing = nullptr;
    EXPECT_EQ(formatString("%p", nothing), "(nil)");
    EXPECT_EQ(formatString("%8p|%-8p|%08p|", nothing, nothing, nothing), "   (nil)|(nil)   |   (nil)|");
    EXPECT_EQ(formatString("%.3p", nothing), "(ni");
    EXPECT_EQ(formatString("%p", kNullText), "(nil)");
}

// Floating point.

TEST_F(Varargs, WritesFloatingPoint) {
    EXPECT_EQ(formatString("%f", 1.5), "1.500000");
    EXPECT_EQ(formatString("%.1f", 1.5), "1.5");
    EXPECT_EQ(formatString("%8.1f", 1.5), "     1.5");
    EXPECT_EQ(formatString("%-8.1f|", 1.5F), "1.5     |");
    EXPECT_EQ(formatString("%.0f %.f", 1.75, 1.75), "2 2");
    EXPECT_EQ(formatString("%g %G %.3e %.3E", 0.5, 1e-10, 1.5, -1.5), "0.5 1E-10 1.500e+00 -1.500E+00");
}

TEST_F(Varargs, OnlyLeftJustifyAndWidthApplyToFloatingPoint) {
    EXPECT_EQ(formatString("%08.1f|%+.1f|% .1f|%#.0f|", 1.5, 1.5, 1.5, 2.0), "     1.5|1.5|1.5|2|");
}

TEST_F(Varargs, FloatingPointIsCutTo23Characters) {
    EXPECT_EQ(formatString("%f", 1e22), "10000000000000000000000");
    EXPECT_EQ(formatString("%f", 1e300).size(), 23U);
    EXPECT_EQ(formatString("%.30f", 1.0), "1." + std::string(21, '0'));
    EXPECT_EQ(formatString("%30.30f", 1.0), "       1." + std::string(21, '0'));
    EXPECT_EQ(formatString("%.2147483647f", 1.0), "1." + std::string(21, '0'));
    EXPECT_EQ(formatString("%.2147483647e", 0.5), "5." + std::string(21, '0'));
    EXPECT_EQ(formatString("%.99999999999g", 0.5), "0.5");
}

TEST_F(Varargs, NumbersThatDoNotFitTheirFieldStopAtTheGreatest) {
    // As a precision, because a width of that size would be written.
    EXPECT_EQ(formatString("%.4294967298s", "abc"), "abc");
    EXPECT_EQ(formatString("%.99999999999999999999999s", "abc"), "abc");
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

TEST(VarargsRepair, TextForOtherConversions) {
    for (const char* conversion : {"d", "i", "u", "o", "x", "X"}) {
        expectRepaired(261, conversion, "text", "0");
        expectRepaired(261, conversion, std::string("text"), "0");
        expectRepaired(261, conversion, std::string_view("text"), "0");
        expectRepaired(261, conversion, kNullText, "0");
    }
    expectRepaired(261, "f", "text", "0.000000");
    expectRepaired(261, "c", "text", "?");
    expectRepaired(261, "p", std::string("text"), "(nil)");
    expectRepaired(261, "p", std::string_view("text"), "(nil)");
}

TEST(VarargsRepair, PointerForOtherConversions) {
    int value = 1;
    expectRepaired(327, "d", &value, "0");
    expectRepaired(327, "s", &value, "");
    expectRepaired(327, "c", static_cast<void*>(nullptr), "?");
    expectRepaired(327, "e", &value, formatString("%e", 0.0));
}

TEST(VarargsRepair, IntegerForOtherConversions) {
    expectRepaired(332, "s", 5, "");
    expectRepaired(332, "s", 5U, "");
    expectRepaired(332, "s", int64_t{5}, "");
    expectRepaired(332, "p", 5, "(nil)");
    for (const char* conversion : {"f", "F", "e", "E", "g", "G", "a", "A"}) {
        const std::string alone = std::string("%") + conversion;
        expectRepaired(332, conversion, 5, formatString(alone.c_str(), 0.0));
    }
}

TEST(VarargsRepair, CharacterForOtherConversions) {
    expectRepaired(367, "s", 'a', "");
    expectRepaired(367, "f", 'a', "0.000000");
    expectRepaired(367, "p", 'a', "(nil)");
}

TEST(VarargsRepair, FloatingPointForOtherConversions) {
    expectRepaired(500, "d", 1.5, "0");
    expectRepaired(500, "s", 1.5F, "");
    expectRepaired(500, "c", 1.5, "?");
    expectRepaired(500, "p", 1.5, "(nil)");
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
}

TEST(VarargsRepair, PercentBehindFlagsIsAnUnknownConversion) {
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
    EXPECT_EQ(formatString("%d %d", 5), "5 0");
    EXPECT_EQ(hook.failures(), (Failures{mismatch(540, "d", "%d %d"), miscount("%d %d", 2, 1)}));
    hook.clear();

    EXPECT_EQ(formatString("%s|%f|%p|%c|%y|%03x|%%|end"), "|0.000000|(nil)|?|y|000|%|end");
    const std::string format = "%s|%f|%p|%c|%y|%03x|%%|end";
    EXPECT_EQ(hook.failures(),
              (Failures{mismatch(540, "s", format), mismatch(540, "f", format), mismatch(540, "p", format),
                        mismatch(540, "c", format), mismatch(540, "y", format), reported(34, "y"),
                        mismatch(540, "x", format), miscount(format, 6, 0)}));
}

TEST(VarargsRepair, ArgumentsWithoutConversionAreCounted) {
    HookRecorder hook;
    EXPECT_EQ(formatString("%d end", 1, "two", 3.0), "1 end");
    EXPECT_EQ(hook.failures(), (Failures{miscount("%d end", 1, 3)}));
    hook.clear();
    EXPECT_EQ(formatString("", 1), "");
    EXPECT_EQ(hook.failures(), (Failures{miscount("", 0, 1)}));
    hook.clear();
    EXPECT_EQ(formatString("100%", 1), "100%");
    EXPECT_EQ(hook.failures(), (Failures{miscount("100%", 0, 1)}));
}

TEST(VarargsRepair, TheOtherArgumentsAreWrittenAsUsual) {
    HookRecorder hook;
    const char* format = "failed to load image=%s module=%d base_addr=%d, size=%d";
    EXPECT_EQ(formatString(format, "image.dll", "module", 4096, 8192),
              "failed to load image=image.dll module=0 base_addr=4096, size=8192");
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

TEST(VarargsRepair, AppendedTextKeepsWhatWasThere) {
    HookRecorder hook;
    std::string out = "kept ";
    formatInto(out, "%d", "text");
    EXPECT_EQ(out, "kept 0");
    EXPECT_EQ(hook.single(), mismatch(261, "d", "%d"));
}

// A handler whose own format is wrong, which is reported to the handler.
int g_calls = 0;
std::string g_innerText;

bool formatWrongly(const char*, std::string_view, int32_t, int32_t, const std::string&) {
    ++g_calls;
    g_innerText = formatString("%d", "text");
    return false;
}

TEST(VarargsRepair, HandlerWithAWrongFormatDoesNotRecurseForEver) {
    Assert::installFailureHandler(&formatWrongly);
    for (int round = 1; round <= 2; ++round) {
        g_calls = 0;
        EXPECT_EQ(formatString("%d!", "text"), "0!");
        EXPECT_EQ(g_calls, NS_CORE::varargs::kMaxNestedReports);
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
    EXPECT_EQ(formatString("%s", std::string_view(text)).capacity(), 102U + 10U);
    EXPECT_EQ(formatString("%s", text.c_str()).capacity(), 102U + 10U);
    EXPECT_EQ(formatString("123456789012345678%s", kNullText).capacity(), 20U + 6U + 2U);
    EXPECT_EQ(formatString("%d%u", 1, uint64_t{1}).capacity(), 4U + 32U + 3U);
    EXPECT_EQ(formatString("%s %d", text, std::numeric_limits<int32_t>::min()).capacity(), 5U + 116U + 12U);
}

TEST_F(Varargs, AppendsWithinACapacityThatDoes) {
    std::string out;
    out.reserve(500);
    const char* const place = out.data();
    formatInto(out, "%s: %d", std::string(100, 't'), 5);
    formatInto(out, "%s", std::string(100, 'u'));
    EXPECT_EQ(out.data(), place);
    EXPECT_EQ(out, std::string(100, 't') + ": 5" + std::string(100, 'u'));
}

TEST_F(Varargs, GrowsBeyondTheEstimate) {
    EXPECT_EQ(formatString("%s%200d%s%s", "a", 1, "b", "c"), "a" + std::string(199, ' ') + "1bc");
    EXPECT_EQ(formatString("%100s%100s%1000s|", "a", "b", "c"),
              std::string(99, ' ') + "a" + std::string(99, ' ') + "b" + std::string(999, ' ') + "c|");
    const std::string tail(5000, 't');
    EXPECT_EQ(formatString(("%6000d" + tail).c_str(), 1), std::string(5999, ' ') + "1" + tail);
}

// The C library as the judge, over random inputs, wherever it means the same.

struct Conversion {
    std::string flags;
    std::string width;
    std::string precision; // with its '.'
    char letter;

    bool has(char flag) const { return flags.find(flag) != std::string::npos; }
    size_t widthValue() const { return width.empty() ? 0 : std::stoul(width); }
    size_t precisionValue() const { return precision.size() < 2 ? 0 : std::stoul(precision.substr(1)); }
    std::string format(std::string_view length) const {
        return "<%" + flags + width + precision + std::string(length) + letter + ">";
    }
};

class AgainstTheLibrary : public testing::Test {
protected:
    // The modifiers, which mean nothing here, come from the same dice.
    std::string anyLength() {
        constexpr std::string_view kLengths[] = {"", "hh", "h", "l", "ll", "j", "z", "t", "L"};
        return std::string(kLengths[below(std::size(kLengths))]);
    }

    size_t below(size_t end) { return std::uniform_int_distribution<size_t>(0, end - 1)(m_random); }

    Conversion conversion(std::string_view letters, std::string_view flags) {
        Conversion conversion;
        for (size_t i = below(3); i > 0 && !flags.empty(); --i) conversion.flags += flags[below(flags.size())];
        if (below(2) == 0) conversion.width = std::to_string(1 + below(30));
        if (below(2) == 0) conversion.precision = "." + (below(5) == 0 ? "" : std::to_string(below(20)));
        conversion.letter = letters[below(letters.size())];
        return conversion;
    }

    template <class T>
    T integer() {
        // Short and long ones alike, and the ends of the range.
        const auto bits = static_cast<uint64_t>(m_random()) >> below(64);
        switch (below(8)) {
            case 0:
                return 0;
            case 1:
                return std::numeric_limits<T>::min();
            case 2:
                return std::numeric_limits<T>::max();
            default:
                return static_cast<T>(below(2) == 0 ? bits : 0 - bits);
        }
    }

    template <class... Args>
    static std::string library(const std::string& format, Args... args) {
        char buffer[2000];
        const int length = std::snprintf(buffer, sizeof buffer, format.c_str(), args...);
        return {buffer, static_cast<size_t>(length)};
    }

    template <class T>
    void compareIntegers();

    std::mt19937_64 m_random{20191120};
    size_t m_compared = 0;
    HookRecorder m_hook;
};

// Where the library's rules for an integer's flags, width and precision and ours lead to the same.
template <class T>
bool agreeOnInteger(const Conversion& conversion, T value) {
    const bool isSigned = conversion.letter == 'd' || conversion.letter == 'i';
    if (isSigned && std::is_unsigned_v<T>) {
        // The library knows no signed conversion of an unsigned value.
        if (value > std::numeric_limits<T>::max() / 2 || conversion.has('+') || conversion.has(' ')) return false;
    }
    if (conversion.has('+') && conversion.has(' ')) return false;
    // Signs mean nothing in the other conversions, but not every library keeps to that.
    if (!isSigned && (conversion.has('+') || conversion.has(' '))) return false;
    if (conversion.precision.empty()) return !(conversion.has('-') && conversion.has('0'));
    if (conversion.precisionValue() == 0) return value != 0 && !conversion.has('0');

    const bool sign = isSigned && (value < T{0} || conversion.has('+') || conversion.has(' '));
    const size_t digits =
        formatString((std::string("%") + conversion.letter).c_str(), value).size() - (isSigned && value < T{0} ? 1 : 0);
    if (sign && digits < conversion.precisionValue()) return false;
    return conversion.widthValue() <= std::max(digits, conversion.precisionValue()) + (sign ? 1 : 0);
}

template <class T>
void AgainstTheLibrary::compareIntegers() {
    for (int i = 0; i < 20000; ++i) {
        const Conversion random = conversion("diuoxX", "-0+ ");
        const T value = integer<T>();
        if (!agreeOnInteger(random, value)) continue;
        ++m_compared;
        const bool isSigned = random.letter == 'd' || random.letter == 'i';
        const std::string expected =
            isSigned ? library(random.format("ll"), static_cast<long long>(value))
                     : library(random.format("ll"), static_cast<unsigned long long>(std::make_unsigned_t<T>(value)));
        const std::string format = random.format(anyLength());
        ASSERT_EQ(formatString(format.c_str(), value), expected) << format << " of " << +value;
    }
    EXPECT_GT(m_compared, 5000U);
    EXPECT_EQ(m_hook.failures(), Failures());
}

TEST_F(AgainstTheLibrary, Int8) {
    compareIntegers<int8_t>();
}
TEST_F(AgainstTheLibrary, Uint8) {
    compareIntegers<uint8_t>();
}
TEST_F(AgainstTheLibrary, Int16) {
    compareIntegers<int16_t>();
}
TEST_F(AgainstTheLibrary, Uint16) {
    compareIntegers<uint16_t>();
}
TEST_F(AgainstTheLibrary, Int32) {
    compareIntegers<int32_t>();
}
TEST_F(AgainstTheLibrary, Uint32) {
    compareIntegers<uint32_t>();
}
TEST_F(AgainstTheLibrary, Int64) {
    compareIntegers<int64_t>();
}
TEST_F(AgainstTheLibrary, Uint64) {
    compareIntegers<uint64_t>();
}

TEST_F(AgainstTheLibrary, Characters) {
    for (int i = 0; i < 20000; ++i) {
        Conversion random = conversion("c", "-");
        random.precision.clear();
        const char value = static_cast<char>(1 + below(255));
        const std::string format = random.format("");
        const std::string expected = library(format, value);
        ASSERT_EQ(formatString(format.c_str(), value), expected);
        ASSERT_EQ(formatString(format.c_str(), static_cast<int>(value)), expected);
    }
    EXPECT_EQ(m_hook.failures(), Failures());
}

TEST_F(AgainstTheLibrary, Text) {
    for (int i = 0; i < 20000; ++i) {
        const Conversion random = conversion("s", "-");
        if (!random.precision.empty() && random.precisionValue() == 0) continue;
        const std::string value(below(40), static_cast<char>('a' + below(26)));
        const std::string expected = library(random.format(""), value.c_str());
        const std::string format = random.format(anyLength());
        ASSERT_EQ(formatString(format.c_str(), value), expected) << format;
        ASSERT_EQ(formatString(format.c_str(), value.c_str()), expected) << format;
        ASSERT_EQ(formatString(format.c_str(), std::string_view(value)), expected) << format;
    }
    EXPECT_EQ(m_hook.failures(), Failures());
}

TEST_F(AgainstTheLibrary, Pointers) {
    for (int i = 0; i < 20000; ++i) {
        // The library's own %p is its maker's choice; an address in hexadecimal with its prefix is not.
        Conversion random = conversion("p", "-0");
        random.precision.clear();
        const bool left = random.has('-');
        const bool zero = random.has('0');
        if (left == zero && !random.width.empty()) continue;
        const uintptr_t value = std::max<uintptr_t>(integer<uintptr_t>(), 1);
        Conversion hexadecimal = random;
        hexadecimal.flags += '#';
        hexadecimal.letter = 'x';
        const std::string expected = library(hexadecimal.format("ll"), static_cast<unsigned long long>(value));
        ASSERT_EQ(formatString(random.format(anyLength()).c_str(), pointerTo<void>(value)), expected);
        ++m_compared;
    }
    EXPECT_GT(m_compared, 5000U);
    EXPECT_EQ(m_hook.failures(), Failures());
}

TEST_F(AgainstTheLibrary, FloatingPoint) {
    for (int i = 0; i < 40000; ++i) {
        const Conversion random = conversion("fFeEgGaA", "-");
        double value =
            std::ldexp(static_cast<double>(static_cast<int64_t>(m_random())), static_cast<int>(below(140)) - 130);
        if (below(20) == 0) value = 0.0;
        if (below(50) == 0) value = std::numeric_limits<double>::infinity();
        if (below(50) == 0) value = -std::numeric_limits<double>::infinity();
        Conversion bare = random;
        bare.flags.clear();
        bare.width.clear();
        const std::string format = random.format(anyLength());
        const std::string whole = library(bare.format(""), value);
        if (whole.size() <= 2 + 23) {
            ++m_compared;
            ASSERT_EQ(formatString(format.c_str(), value), library(random.format(""), value)) << format;
        } else {
            ASSERT_EQ(formatString(bare.format("").c_str(), value), whole.substr(0, 1 + 23) + ">") << format;
        }
        const auto narrow = static_cast<float>(value);
        ASSERT_EQ(formatString(format.c_str(), narrow), formatString(format.c_str(), static_cast<double>(narrow)));
    }
    EXPECT_GT(m_compared, 5000U);
    EXPECT_EQ(m_hook.failures(), Failures());
}

} // namespace

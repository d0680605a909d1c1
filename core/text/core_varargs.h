#pragma once

#include <array>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <type_traits>

namespace NS_CORE {

// The system's printf: a format and arguments whose types are known where the call is written. A conversion that
// does not suit its argument, or a wrong number of arguments, is reported as a failed check and repaired; it never
// reads a wrong stack slot. Nothing depends on a locale, except the decimal point of the floating conversions.
//
//     formatString("%s: %d of %d", name, done, total)
//
// formatString returns the text; formatInto appends it to `out`. Both reserve once, for the format and all arguments
// together, so a message without wide padding costs one allocation. Any thread may call. They throw only
// std::bad_alloc or std::length_error, when there is no memory for the text; `out` is then unspecified.
//
// format  NUL-terminated, not null. Need not be a literal.
// args    of the types in the table below. Anything else does not compile, including bool, enumerations, long double,
//         wide characters and nullptr: cast it to what is to be written. A character pointer or array is
//         NUL-terminated or null, for %p as well; text arguments of formatInto must not lie in `out`.
//
// A conversion is  % flags width .precision length conversion
//   flags      - left-justify, 0 zero-pad, + plus sign, blank: blank sign, # ignored; any number, any order
//   width      decimal digits; no '*'
//   precision  '.' and decimal digits; a '.' without digits means 0
//   length     one of L j t z h hh l ll; ignored, because the argument's type says it
// Width and precision stop at 2147483647. %% writes one %. A lone % at the end of the format writes %.
//
//   argument                  conversions
//   signed/unsigned integer   d i u o x X c   (8 to 64 bits; u o x X write a negative value as unsigned of its size)
//   char                      c d i u o x X   (a number from -128 to 127, as in the C library)
//   float, double             f F e E g G a A
//   char pointer or array     s S p
//   std::string, string_view  s S             (a NUL inside is written like any byte)
//   any other pointer         p               (function pointers too)
//
//   %d %i   5 -> "5"      -5 -> "-5"     int8_t -1 with %u -> "255"; with %x -> "ff"
//   %+d     5 -> "+5"     5u -> "5"      only %d and %i of signed values have a sign
//   %+ d    5 -> " 5"                    the blank wins over the plus
//   %5d     42 -> "   42"                %-5d  42 -> "42   "
//   %05d    -42 -> "-0042"               %-05d 42 -> "00042": zeros win over left-justify
//   %.3d    7 -> "007"    -7 -> "-07"    %8.3d 5 -> "005": a precision above 0 takes the width's place, with zeros
//   %.0d    0 -> "0"
//   %#x     255 -> "ff"                  %X 255 -> "FF"    %o 8 -> "10"    no prefixes
//   %c      'a' -> "a"    65 -> "A"      %3c 'a' -> "  a"  %-3c 'a' -> "a  "    '\0' -> "" with any width
//   %f      1.5 -> "1.500000"            %8.1f -> "     1.5"
//   %08.1f  1.5 -> "     1.5"            of the flags only - counts; blanks fill the width
//   %f      1e22 -> "10000000000000000000000": longer texts are cut to 23 characters
//   %s      "ab" -> "ab"  null -> "(null)"   %.2s "abc" -> "ab"   %.0s "abc" -> "abc": 0 is no limit
//   %5s     "ab" -> "   ab"              %-5s "ab" -> "ab   "
//   %6S     "abcdefgh" -> "abc..."       "ab" -> "ab": S cuts to the width and does not pad; lengths are bytes
//   %2S     "abcdefgh" -> "ab"           no room for dots: an assertion of level 1 fails at core_varargs:64
//   %p      0x2a -> "0x2a"               null -> "(nil)"
//   %8p     0x2a -> "0x    2a"           width less 2, flags and precision apply to the digits: %08p -> "0x00002a"
//
// Repairs. All failed checks are CHECKFs of "core_varargs"; the rest of the text is then written as usual.
//   a conversion that does not accept its argument, or has no argument left:
//     line 15, "core_varargs:LINE: ch=CHARACTER format='FORMAT'", where LINE says what kind of argument: 261 text, 327
//     pointer, 332 integer, 367 char, 500 floating, 540 none left. A neutral value is written with the conversion's
//     own flags and width:
//       d i u o x X -> 0      f F e E g G a A -> 0      c -> ?      p -> (nil)      s -> nothing at all
//       any other character -> itself, after one more failed check: line 34, message the character
//     A format that ends inside a conversion, such as "%5", has the character NUL there, which writes nothing.
//   more or fewer conversions than arguments:
//     line 522, "format='FORMAT' args_in_format_string=N args_in_parameter_pack=N"
// A failure handler may use the formatter. If the handler's own formats are wrong as well, reports on one thread nest
// no deeper than kMaxNestedReports; the formatter still repairs what it no longer reports.

namespace varargs {

inline constexpr int kMaxNestedReports = 4;

enum class Kind : uint8_t { Signed, Unsigned, Character, Floating, CString, Text, Pointer };

// One argument without its type. CString and Text borrow the caller's characters for the call.
struct Argument {
    union {
        uint64_t integer; // Signed and Character sign-extended; Pointer its address
        double floating;
        const char* text; // null for a null CString
    };
    size_t length; // of a text in characters; of anything else what is reserved for it
    Kind kind;
    uint8_t size; // of an integer's type in bytes
};

inline constexpr std::string_view kNullText = "(null)";
inline constexpr size_t kNumberLength = 16;
inline constexpr size_t kMaxFloatingLength = 23; // longer texts are cut

// What an argument is after arrays and functions have become pointers.
template <class T>
using Plain = std::decay_t<const T&>;

template <class T, class... Others>
concept OneOf = (std::same_as<T, Others> || ...);

template <class T>
concept SignedInteger = OneOf<T, signed char, short, int, long, long long>;

template <class T>
concept UnsignedInteger = OneOf<T, unsigned char, unsigned short, unsigned int, unsigned long, unsigned long long>;

template <class T>
concept Accepted = SignedInteger<Plain<T>> || UnsignedInteger<Plain<T>> || std::is_pointer_v<Plain<T>> ||
                   OneOf<Plain<T>, char, float, double, std::string, std::string_view>;

inline Argument cStringArgument(const char* text) {
    return {{.text = text}, text ? std::string_view(text).size() : kNullText.size(), Kind::CString, 0};
}

template <Accepted T>
Argument argument(const T& value) {
    using P = Plain<T>;
    if constexpr (SignedInteger<P>) {
        return {{.integer = static_cast<uint64_t>(int64_t{value})}, kNumberLength, Kind::Signed, sizeof(P)};
    } else if constexpr (UnsignedInteger<P>) {
        return {{.integer = value}, kNumberLength, Kind::Unsigned, sizeof(P)};
    } else if constexpr (OneOf<P, char>) {
        return {{.integer = static_cast<uint64_t>(static_cast<signed char>(value))}, kNumberLength, Kind::Character, 1};
    } else if constexpr (OneOf<P, float, double>) {
        return {{.floating = value}, kMaxFloatingLength, Kind::Floating, 0};
    } else if constexpr (OneOf<P, char*, const char*>) {
        return cStringArgument(value);
    } else if constexpr (OneOf<P, std::string, std::string_view>) {
        return {{.text = value.data()}, value.size(), Kind::Text, 0};
    } else {
        return {{.integer = reinterpret_cast<uintptr_t>(static_cast<P>(value))}, kNumberLength, Kind::Pointer, 0};
    }
}

// How many characters are reserved for a message: eleven tenths of the lengths of the format and all arguments.
size_t reservation(std::string_view format, const Argument* args, size_t count);

// The formatter itself, one for all argument lists. `format` is followed by a NUL.
std::string formatPack(std::string_view format, const Argument* args, size_t count);
void formatPackInto(std::string& out, std::string_view format, const Argument* args, size_t count);

} // namespace varargs

template <varargs::Accepted... Args>
void formatInto(std::string& out, const char* format, const Args&... args) {
    const std::array<varargs::Argument, sizeof...(Args)> pack{varargs::argument(args)...};
    varargs::formatPackInto(out, format, pack.data(), pack.size());
}

template <varargs::Accepted... Args>
[[nodiscard]] std::string formatString(const char* format, const Args&... args) {
    const std::array<varargs::Argument, sizeof...(Args)> pack{varargs::argument(args)...};
    return varargs::formatPack(format, pack.data(), pack.size());
}

} // namespace NS_CORE

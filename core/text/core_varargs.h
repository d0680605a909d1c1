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
// does not suit its argument, or a count that differs, is reported as a failed check and repaired; it never reads a
// wrong stack slot. Nothing depends on a locale, but for the decimal point of the floating conversions.
//
//     formatString("%s: %d of %d", name, done, total)
//
// formatString answers the text; formatInto appends it to `out`. Both reserve once, for the format and all arguments
// together, so that a message without wide padding costs one allocation. May be called from any thread. Throws only
// std::bad_alloc or std::length_error, when memory for the text cannot be had; `out` is then unspecified.
//
// format  NUL-terminated, not null. Need not be a literal.
// args    of the types in the table below; anything else, bool, enumerations, long double, wide characters and
//         nullptr included, does not compile: cast to what is to be written. A character pointer, or array, is
//         NUL-terminated or null, for %p as well; text arguments of formatInto must not lie in `out`.
//
// A conversion is  % flags width .precision length conversion
//   flags      - left-justify, 0 zero-pad, + plus sign, blank: blank sign, # ignored; any number, any order
//   width      decimal digits; no '*'
//   precision  '.' and decimal digits; none after the '.' count as 0
//   length     L j t z h hh l ll, one, ignored: the argument's type says it
// Width and precision stop at 2147483647. %% writes one %. A lone % at the format's end writes % and ends there.
//
//   argument                  conversions
//   signed/unsigned integer   d i u o x X c   (8 to 64 bits; a negative value counts in u o x X at its own size)
//   char                      c d i u o x X   (a number from -128 to 127, as in the C library)
//   float, double             f F e E g G a A
//   char pointer or array     s S p
//   std::string, string_view  s S             (a NUL inside is written like any byte)
//   any other pointer         p               (function pointers too)
//
//   %d %i   5 -> "5"      -5 -> "-5"     int8_t -1 with %u -> "255"; with %x -> "ff"
//   %+d     5 -> "+5"     5u -> "5"      a sign is for signed values in %d and %i only
//   %+ d    5 -> " 5"                    the blank wins over the plus
//   %5d     42 -> "   42"                %-5d  42 -> "42   "
//   %05d    -42 -> "-0042"               %-05d 42 -> "00042": zeros win over left-justify
//   %.3d    7 -> "007"    -7 -> "-07"    %8.3d 5 -> "005": a precision above 0 takes the width's place, with zeros
//   %.0d    0 -> "0"
//   %#x     255 -> "ff"                  %X 255 -> "FF"    %o 8 -> "10"    no prefixes
//   %c      'a' -> "a"    65 -> "A"      %3c 'a' -> "  a"  %-3c 'a' -> "a  "    '\0' -> "" with any width
//   %f      1.5 -> "1.500000"            %8.1f -> "     1.5"
//   %08.1f  1.5 -> "     1.5"            of the flags, only - counts; the width is filled up with blanks
//   %f      1e22 -> "10000000000000000000000": cut to 23 characters where it would be longer
//   %s      "ab" -> "ab"  null -> "(null)"   %.2s "abc" -> "ab"   %.0s "abc" -> "abc": 0 is no limit
//   %5s     "ab" -> "   ab"              %-5s "ab" -> "ab   "
//   %6S     "abcdefgh" -> "abc..."       "ab" -> "ab": S cuts to the width and does not pad; lengths are bytes
//   %2S     "abcdefgh" -> "ab"           without room for dots; a failed assertion of level 1 at core_varargs:64
//   %p      0x2a -> "0x2a"               null -> "(nil)"
//   %8p     0x2a -> "0x    2a"           width less 2, flags and precision go to the digits: %08p -> "0x00002a"
//
// Repairs. All failed checks are CHECKFs of "core_varargs"; afterwards the text goes on as if nothing had been.
//   conversion that the argument does not accept, or that has none left:
//     line 15, "core_varargs:LINE: ch=CHARACTER format='FORMAT'", where LINE tells the argument: 261 text, 327
//     pointer, 332 integer, 367 char, 500 floating, 540 none left. It is then written with its own flags and width as
//       d i u o x X -> 0      f F e E g G a A -> 0      c -> ?      p -> (nil)      s -> nothing at all
//       any other character -> itself, after one more failed check: line 34, message the character
//     A format that ends inside a conversion, such as "%5", counts as one of the character NUL, which writes nothing.
//   conversions and arguments differ in number:
//     line 522, "format='FORMAT' args_in_format_string=N args_in_parameter_pack=N"
// A failure handler may use the formatter. Where the handler's own formats are wrong, too, nested reports end at a
// depth of kMaxNestedReports on each thread; the repairs go on without them.

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
    size_t length; // of Text in characters, of Signed in bytes; otherwise set during the call or unused
    Kind kind;
};

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

template <Accepted T>
Argument argument(const T& value) {
    using P = Plain<T>;
    if constexpr (SignedInteger<P>) {
        return {{.integer = static_cast<uint64_t>(static_cast<int64_t>(value))}, sizeof(P), Kind::Signed};
    } else if constexpr (UnsignedInteger<P>) {
        return {{.integer = value}, 0, Kind::Unsigned};
    } else if constexpr (OneOf<P, char>) {
        return {{.integer = static_cast<uint64_t>(static_cast<signed char>(value))}, sizeof(P), Kind::Character};
    } else if constexpr (OneOf<P, float, double>) {
        return {{.floating = value}, 0, Kind::Floating};
    } else if constexpr (OneOf<P, char*, const char*>) {
        return {{.text = value}, 0, Kind::CString};
    } else if constexpr (OneOf<P, std::string, std::string_view>) {
        return {{.text = value.data()}, value.size(), Kind::Text};
    } else {
        return {{.integer = reinterpret_cast<uintptr_t>(static_cast<P>(value))}, 0, Kind::Pointer};
    }
}

// The formatter itself, one for all argument lists. `format` is followed by a NUL. They fill in the lengths of `args`.
std::string formatPack(std::string_view format, Argument* args, size_t count);
void formatPackInto(std::string& out, std::string_view format, Argument* args, size_t count);

} // namespace varargs

template <varargs::Accepted... Args>
void formatInto(std::string& out, const char* format, const Args&... args) {
    std::array<varargs::Argument, sizeof...(Args)> pack{varargs::argument(args)...};
    varargs::formatPackInto(out, format, pack.data(), pack.size());
}

template <varargs::Accepted... Args>
[[nodiscard]] std::string formatString(const char* format, const Args&... args) {
    std::array<varargs::Argument, sizeof...(Args)> pack{varargs::argument(args)...};
    return varargs::formatPack(format, pack.data(), pack.size());
}

} // namespace NS_CORE

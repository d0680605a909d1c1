#include "core/core_varargs.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <limits>

#include "core/core_assert.h"

namespace NS_CORE {
namespace varargs {
namespace {

enum Flag : uint32_t { kLeftJustify = 1U << 0, kZeroPad = 1U << 1, kPlusSign = 1U << 2, kBlankSign = 1U << 3 };

// Published places of the reports.
constexpr int32_t kMismatchLine = 15;
constexpr int32_t kUnknownConversionLine = 34;
constexpr int32_t kCountLine = 522;

// Published numbers of the writers, told in a mismatch report.
constexpr int32_t kTextWriter = 261;
constexpr int32_t kPointerWriter = 327;
constexpr int32_t kIntegerWriter = 332;
constexpr int32_t kCharacterWriter = 367;
constexpr int32_t kFloatingWriter = 500;
constexpr int32_t kNoArgumentLeft = 540;

constexpr std::string_view kNullText = "(null)";
constexpr std::string_view kNullPointer = "(nil)";

// One parsed conversion.
struct FormatSpec {
    const char* format; // the whole format, for reports
    int32_t conversion = 0;
    uint32_t flags = 0;
    int32_t width = 0;
    int32_t precision = -1;

    bool has(Flag flag) const { return (flags & flag) != 0; }
};

// Appends to a string through a cursor into its characters, which spares the string's own bookkeeping for every
// piece. The string has the right length again when the Output is gone.
class Output {
public:
    Output(std::string& out, size_t room) : m_out(out) { makeRoom(out.size(), room); }
    ~Output() { m_out.resize(used()); }
    Output(const Output&) = delete;
    Output& operator=(const Output&) = delete;

    void append(const char* text, size_t length) {
        ensure(length);
        std::memcpy(m_cursor, text, length);
        m_cursor += length;
    }

    void append(char character) {
        ensure(1);
        *m_cursor++ = character;
    }

    void fill(size_t count, char character) {
        ensure(count);
        std::memset(m_cursor, character, count);
        m_cursor += count;
    }

private:
    size_t used() const { return static_cast<size_t>(m_cursor - m_out.data()); }

    void ensure(size_t length) {
        if (static_cast<size_t>(m_end - m_cursor) < length) [[unlikely]]
            makeRoom(used(), std::max(length, used()));
    }

    void makeRoom(size_t usedLength, size_t room) {
        m_out.resize(usedLength + room);
        m_cursor = m_out.data() + usedLength;
        m_end = m_cursor + room;
    }

    std::string& m_out;
    char* m_cursor;
    char* m_end;
};

// Reports.

thread_local int g_nestedReports = 0;

void report(int32_t line, const std::string& message) {
    if (g_nestedReports == kMaxNestedReports) return;
    ++g_nestedReports;
    Assert::fail("CHECKF", {"core_varargs", line}, /*level=*/0, message);
    --g_nestedReports;
}

void reportMismatch(const FormatSpec& spec, int32_t writer) {
    report(kMismatchLine,
           formatString("core_varargs:%d: ch=%c format='%s'", writer, static_cast<char>(spec.conversion), spec.format));
}

void reportCount(const char* format, size_t conversions, size_t arguments) {
    report(kCountLine, formatString("format='%s' args_in_format_string=%d args_in_parameter_pack=%d", format,
                                    conversions, arguments));
}

// Writers.

void writePadded(Output& out, const FormatSpec& spec, const char* text, size_t length) {
    const size_t width = static_cast<size_t>(spec.width);
    const size_t padding = width > length ? width - length : 0;
    if (padding != 0 && !spec.has(kLeftJustify)) out.fill(padding, ' ');
    out.append(text, length);
    if (padding != 0 && spec.has(kLeftJustify)) out.fill(padding, ' ');
}

// The text is longer than the width, which is at least 1.
void writeTruncated(Output& out, size_t width, const char* text) {
    constexpr std::string_view kDots = "...";
    if (width <= kDots.size()) {
        GASSERT_AT("core_varargs", 64, 1, false);
        out.append(text, width);
        return;
    }
    out.append(text, width - kDots.size());
    out.append(kDots.data(), kDots.size());
}

void writeText(Output& out, const FormatSpec& spec, const char* text, size_t fullLength) {
    size_t length = fullLength;
    if (spec.precision > 0) length = std::min(length, static_cast<size_t>(spec.precision));
    if (spec.conversion != 'S') {
        writePadded(out, spec, text, length);
    } else if (spec.width >= 1 && fullLength > static_cast<size_t>(spec.width)) {
        writeTruncated(out, static_cast<size_t>(spec.width), text);
    } else {
        out.append(text, length);
    }
}

void writeCharacter(Output& out, const FormatSpec& spec, char character) {
    if (character != '\0') writePadded(out, spec, &character, 1);
}

// Room for 64 bits in octal.
constexpr size_t kMaxDigits = 22;

constexpr char kDigitPairs[] =
    "00010203040506070809"
    "10111213141516171819"
    "20212223242526272829"
    "30313233343536373839"
    "40414243444546474849"
    "50515253545556575859"
    "60616263646566676869"
    "70717273747576777879"
    "80818283848586878889"
    "90919293949596979899";

// These write the digits of `value` so that they end at `end`, and answer where they begin.

template <class Unsigned>
char* decimalDigits(Unsigned value, char* end) {
    while (value >= 100) {
        end -= 2;
        std::memcpy(end, kDigitPairs + value % 100 * 2, 2);
        value /= 100;
    }
    if (value >= 10) {
        end -= 2;
        std::memcpy(end, kDigitPairs + value * 2, 2);
        return end;
    }
    *--end = static_cast<char>('0' + value);
    return end;
}

char* binaryDigits(uint64_t value, uint32_t bitsPerDigit, const char* digits, char* end) {
    const uint64_t mask = (uint64_t{1} << bitsPerDigit) - 1;
    do {
        *--end = digits[value & mask];
        value >>= bitsPerDigit;
    } while (value != 0);
    return end;
}

char* digitsOf(uint64_t value, int32_t conversion, char* end) {
    switch (conversion) {
        case 'o':
            return binaryDigits(value, 3, "01234567", end);
        case 'x':
            return binaryDigits(value, 4, "0123456789abcdef", end);
        case 'X':
            return binaryDigits(value, 4, "0123456789ABCDEF", end);
        default:
            // Dividing 64 bits is a library call on a 32-bit processor.
            return value <= std::numeric_limits<uint32_t>::max() ? decimalDigits(static_cast<uint32_t>(value), end)
                                                                 : decimalDigits(value, end);
    }
}

// A sign and digits. sign  NUL for none.
void writeNumber(Output& out, const FormatSpec& spec, char sign, uint64_t value) {
    char buffer[1 + kMaxDigits];
    char* const end = buffer + sizeof buffer;
    char* first = digitsOf(value, spec.conversion, end);

    const size_t signLength = sign == '\0' ? 0 : 1;
    const bool zeroPad = spec.precision > 0 || spec.has(kZeroPad);
    if (zeroPad) {
        const size_t width = static_cast<size_t>(spec.precision > 0 ? spec.precision : spec.width);
        const size_t length = static_cast<size_t>(end - first) + signLength;
        if (sign != '\0') out.append(sign);
        if (width > length) out.fill(width - length, '0');
        out.append(first, static_cast<size_t>(end - first));
        return;
    }
    if (sign != '\0') *--first = sign;
    writePadded(out, spec, first, static_cast<size_t>(end - first));
}

char signOf(const FormatSpec& spec, int64_t value) {
    if (value < 0) return '-';
    if (spec.has(kBlankSign)) return ' ';
    return spec.has(kPlusSign) ? '+' : '\0';
}

// value  sign-extended; size  of its type, in bytes.
void writeSigned(Output& out, const FormatSpec& spec, uint64_t value, size_t size) {
    if (spec.conversion == 'd' || spec.conversion == 'i') {
        const bool negative = static_cast<int64_t>(value) < 0;
        writeNumber(out, spec, signOf(spec, static_cast<int64_t>(value)), negative ? 0 - value : value);
        return;
    }
    writeNumber(out, spec, '\0', value & (~uint64_t{0} >> (64 - 8 * size)));
}

void writePointer(Output& out, const FormatSpec& spec, uint64_t address) {
    if (address == 0) {
        writeText(out, spec, kNullPointer.data(), kNullPointer.size());
        return;
    }
    out.append("0x", 2);
    FormatSpec digits = spec;
    digits.conversion = 'x';
    digits.width = std::max(spec.width - 2, 0);
    writeNumber(out, digits, '\0', address);
}

void writeFloating(Output& out, const FormatSpec& spec, double value) {
    // Every digit of every double is out by then, so that a greater precision only adds zeros, far behind what the
    // buffer holds. Without the limit it would cost the runtime library the memory and time for them.
    constexpr int32_t kMaxPrecision = 1100;
    // A negative precision is none.
    const char conversion[] = {'%', '.', '*', static_cast<char>(spec.conversion), '\0'};
    char buffer[24];
    const int length = std::snprintf(buffer, sizeof buffer, conversion, std::min(spec.precision, kMaxPrecision), value);
    if (length <= 0) return;
    FormatSpec text = spec;
    text.precision = -1;
    writeText(out, text, buffer, std::min(static_cast<size_t>(length), sizeof buffer - 1));
}

// A conversion that has no argument which suits it, written from a neutral value.
void writeNeutral(Output& out, const FormatSpec& spec) {
    switch (spec.conversion) {
        case 'd':
        case 'i':
        case 'u':
        case 'o':
        case 'x':
        case 'X':
            writeSigned(out, spec, 0, sizeof(int));
            break;
        case 'f':
        case 'F':
        case 'e':
        case 'E':
        case 'g':
        case 'G':
        case 'a':
        case 'A':
            writeFloating(out, spec, 0);
            break;
        case 'c':
            writeCharacter(out, spec, '?');
            break;
        case 'p':
            writePointer(out, spec, 0);
            break;
        case 's':
            break;
        default: {
            const std::string character = formatString("%c", static_cast<char>(spec.conversion));
            out.append(character.data(), character.size());
            report(kUnknownConversionLine, character);
        }
    }
}

void writeMismatch(Output& out, const FormatSpec& spec, int32_t writer) {
    reportMismatch(spec, writer);
    writeNeutral(out, spec);
}

bool isIntegerConversion(int32_t conversion) {
    switch (conversion) {
        case 'd':
        case 'i':
        case 'u':
        case 'o':
        case 'x':
        case 'X':
            return true;
        default:
            return false;
    }
}

bool isFloatingConversion(int32_t conversion) {
    switch (conversion) {
        case 'f':
        case 'F':
        case 'e':
        case 'E':
        case 'g':
        case 'G':
        case 'a':
        case 'A':
            return true;
        default:
            return false;
    }
}

void writeIntegerArgument(Output& out, const FormatSpec& spec, const Argument& argument, int32_t writer) {
    if (spec.conversion == 'c') {
        writeCharacter(out, spec, static_cast<char>(argument.integer));
    } else if (!isIntegerConversion(spec.conversion)) {
        writeMismatch(out, spec, writer);
    } else if (argument.kind == Kind::Unsigned) {
        writeNumber(out, spec, '\0', argument.integer);
    } else {
        writeSigned(out, spec, argument.integer, argument.length);
    }
}

void writeTextArgument(Output& out, const FormatSpec& spec, const Argument& argument) {
    if (spec.conversion == 's' || spec.conversion == 'S') {
        writeText(out, spec, argument.text ? argument.text : kNullText.data(), argument.length);
    } else if (spec.conversion == 'p' && argument.kind == Kind::CString) {
        writePointer(out, spec, reinterpret_cast<uintptr_t>(argument.text));
    } else {
        writeMismatch(out, spec, kTextWriter);
    }
}

void writeArgument(Output& out, const FormatSpec& spec, const Argument& argument) {
    switch (argument.kind) {
        case Kind::Signed:
        case Kind::Unsigned:
            writeIntegerArgument(out, spec, argument, kIntegerWriter);
            break;
        case Kind::Character:
            writeIntegerArgument(out, spec, argument, kCharacterWriter);
            break;
        case Kind::Floating:
            if (isFloatingConversion(spec.conversion))
                writeFloating(out, spec, argument.floating);
            else
                writeMismatch(out, spec, kFloatingWriter);
            break;
        case Kind::CString:
        case Kind::Text:
            writeTextArgument(out, spec, argument);
            break;
        case Kind::Pointer:
            if (spec.conversion == 'p')
                writePointer(out, spec, argument.integer);
            else
                writeMismatch(out, spec, kPointerWriter);
            break;
    }
}

// Goes through a format, conversion by conversion.
class Walk {
public:
    Walk(Output& out, std::string_view format)
        : m_out(out), m_format(format.data()), m_cursor(format.data()), m_end(format.data() + format.size()) {}

    // Copies up to the next conversion and parses it; false when the format ends first.
    bool next(FormatSpec& spec) {
        while (const char* percent = findPercent()) {
            switch (percent[1]) {
                case '%':
                    copyUpTo(percent + 1);
                    m_cursor = percent + 2;
                    break;
                case '\0':
                    copyUpTo(percent + 1);
                    return false;
                default:
                    copyUpTo(percent);
                    m_cursor = percent + 1;
                    spec = parse();
                    ++m_conversions;
                    return true;
            }
        }
        copyUpTo(m_end);
        return false;
    }

    size_t conversions() const { return m_conversions; }

private:
    const char* findPercent() const {
        return static_cast<const char*>(std::memchr(m_cursor, '%', static_cast<size_t>(m_end - m_cursor)));
    }

    void copyUpTo(const char* end) {
        m_out.append(m_cursor, static_cast<size_t>(end - m_cursor));
        m_cursor = end;
    }

    FormatSpec parse() {
        FormatSpec spec{m_format};
        // All letters, and therefore most conversions, come after the characters of flags, width and precision.
        if (*m_cursor < 'A') {
            while (takeFlag(spec)) ++m_cursor;
            spec.width = takeNumber();
            if (*m_cursor == '.') {
                ++m_cursor;
                spec.precision = takeNumber();
            }
        }
        skipLength();
        spec.conversion = static_cast<unsigned char>(*m_cursor);
        // The NUL of a format that ends here stays the end.
        if (m_cursor != m_end) ++m_cursor;
        return spec;
    }

    bool takeFlag(FormatSpec& spec) const {
        switch (*m_cursor) {
            case '-':
                spec.flags |= kLeftJustify;
                return true;
            case '0':
                spec.flags |= kZeroPad;
                return true;
            case '+':
                spec.flags |= kPlusSign;
                return true;
            case ' ':
                spec.flags |= kBlankSign;
                return true;
            case '#':
                return true;
            default:
                return false;
        }
    }

    int32_t takeNumber() {
        constexpr int64_t kMax = std::numeric_limits<int32_t>::max();
        int64_t number = 0;
        for (; *m_cursor >= '0' && *m_cursor <= '9'; ++m_cursor)
            number = std::min(number * 10 + (*m_cursor - '0'), kMax);
        return static_cast<int32_t>(number);
    }

    void skipLength() {
        switch (*m_cursor) {
            case 'h':
            case 'l':
                if (m_cursor[1] == m_cursor[0]) ++m_cursor;
                [[fallthrough]];
            case 'L':
            case 'j':
            case 't':
            case 'z':
                ++m_cursor;
                break;
            default:
                break;
        }
    }

    Output& m_out;
    const char* m_format;
    const char* m_cursor;
    const char* m_end;
    size_t m_conversions = 0;
};

// How long the argument's text may well become; sets the length of C strings.
size_t estimate(Argument& argument) {
    switch (argument.kind) {
        case Kind::CString:
            argument.length = argument.text ? std::strlen(argument.text) : kNullText.size();
            return argument.length;
        case Kind::Text:
            return argument.length;
        case Kind::Floating:
            return 23; // all that the writer keeps
        default:
            return 16;
    }
}

} // namespace

void formatInto(std::string& out, std::string_view format, Argument* args, size_t count) {
    size_t room = format.size();
    for (size_t i = 0; i < count; ++i) room += estimate(args[i]);

    Output output(out, room + room / 10);
    Walk walk(output, format);
    FormatSpec spec{format.data()};
    for (size_t i = 0; i < count && walk.next(spec); ++i) writeArgument(output, spec, args[i]);
    while (walk.next(spec)) writeMismatch(output, spec, kNoArgumentLeft);
    if (walk.conversions() != count) reportCount(format.data(), walk.conversions(), count);
}

} // namespace varargs
} // namespace NS_CORE

#include "core/text/core_varargs.h"

#include <algorithm>
#include <bit>
#include <cstdio>
#include <cstring>
#include <limits>
#include <utility>

#include "core/check/core_assert.h"

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

using Word = size_t;

static_assert(std::endian::native == std::endian::little, "the first character of a Word is its lowest byte");

Word loadWord(const char* text) {
    Word word;
    std::memcpy(&word, text, sizeof word);
    return word;
}

// How many characters of `word` come before its first '%', or `otherwise` when it has none.
size_t lengthBeforePercent(Word word, size_t otherwise) {
    constexpr Word kEveryByte = ~Word{0} / 0xff;
    // Marks the lowest byte that is zero with its top bit, and possibly others above it.
    const Word others = word ^ (kEveryByte * '%');
    const Word marks = (others - kEveryByte) & ~others & (kEveryByte * 0x80);
    return marks == 0 ? otherwise : static_cast<size_t>(std::countr_zero(marks)) / 8;
}

// Appends to a string through a cursor into its characters, which spares the string's own bookkeeping for every
// piece. Until finish() the string is longer than its text.
class Output {
public:
    // Writes from `length` on. What `out` holds behind that is room, and more is made when it does not do.
    // format  the text that will be given to appendUntilPercent, piece by piece.
    Output(std::string& out, size_t length, std::string_view format)
        : m_out(out), m_format(format.data()), m_formatEnd(format.data() + format.size()) {
        moveTo(length);
    }
    Output(const Output&) = delete;
    Output& operator=(const Output&) = delete;
    ~Output() = default;

    void append(const char* text, size_t length) { std::memcpy(claim(length), text, length); }

    void append(char character) { *claim(1) = character; }

    // The place of the next `count` characters, which the caller writes.
    char* claim(size_t count) {
        if (count > room()) [[unlikely]]
            makeRoom(count);
        return std::exchange(m_cursor, m_cursor + count);
    }

    // Appends what the format has from `text` to its next '%' or its end, and answers where that is.
    const char* appendUntilPercent(const char* text) {
        const size_t length = static_cast<size_t>(m_formatEnd - text);
        if (length > room()) [[unlikely]]
            makeRoom(length);
        return copyUntilPercent(text);
    }

    void finish() { m_out.resize(used()); }

private:
    size_t used() const { return static_cast<size_t>(m_cursor - m_out.data()); }
    size_t room() const { return static_cast<size_t>(m_end - m_cursor); }

    void moveTo(size_t length) {
        m_cursor = m_out.data() + length;
        m_end = m_out.data() + m_out.size();
    }

    [[gnu::noinline]] void makeRoom(size_t room) {
        const size_t length = used();
        m_out.resize(length + std::max(room, length));
        moveTo(length);
    }

    // There is room for all that is left of the format. A Word at a time is copied before it is looked at: what
    // comes behind a '%' will be overwritten.
    const char* copyUntilPercent(const char* text) {
        // A local cursor, because the compiler has to assume that characters are written over the member.
        char* to = m_cursor;
        size_t left = static_cast<size_t>(m_formatEnd - text);
        for (; left >= sizeof(Word); left -= sizeof(Word)) {
            const Word word = loadWord(text);
            std::memcpy(to, &word, sizeof word);
            const size_t length = lengthBeforePercent(word, sizeof word);
            text += length;
            to += length;
            if (length != sizeof word) {
                m_cursor = to;
                return text;
            }
        }
        m_cursor = to;
        return left == 0 ? text : copyRest(text, left);
    }

    // left  less than a Word.
    const char* copyRest(const char* text, size_t left) {
        size_t length = 0;
        if (static_cast<size_t>(m_formatEnd - m_format) >= sizeof(Word) && room() >= sizeof(Word)) {
            // The format's last Word, without the characters that come before `text`.
            const Word word = loadWord(m_formatEnd - sizeof(Word)) >> ((sizeof(Word) - left) * 8);
            std::memcpy(m_cursor, &word, sizeof word);
            length = lengthBeforePercent(word, left);
        } else {
            for (; length != left && text[length] != '%'; ++length) m_cursor[length] = text[length];
        }
        m_cursor += length;
        return text + length;
    }

    std::string& m_out;
    const char* m_format;
    const char* m_formatEnd;
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
    const size_t width = std::max(static_cast<size_t>(spec.width), length);
    char* const to = out.claim(width);
    const size_t padding = width - length;
    const size_t before = spec.has(kLeftJustify) ? 0 : padding;
    if (padding != 0) std::memset(before == 0 ? to + length : to, ' ', padding);
    std::memcpy(to + before, text, length);
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

size_t decimalLength(uint32_t value) {
    size_t length = 1;
    for (;; value /= 10000, length += 4) {
        if (value < 10) return length;
        if (value < 100) return length + 1;
        if (value < 1000) return length + 2;
        if (value < 10000) return length + 3;
    }
}

// With zeros before the digits when these are fewer than minLength.
void appendDecimal(Output& out, uint32_t value, size_t minLength) {
    const size_t length = std::max(decimalLength(value), minLength);
    char* const to = out.claim(length);
    for (char* first = decimalDigits(value, to + length); first != to;) *--first = '0';
}

void writeZeroPadded(Output& out, size_t width, char sign, const char* digits, size_t length) {
    const size_t signLength = sign == '\0' ? 0 : 1;
    const size_t zeros = width > length + signLength ? width - length - signLength : 0;
    char* to = out.claim(signLength + zeros + length);
    if (signLength != 0) *to++ = sign;
    if (zeros != 0) std::memset(to, '0', zeros);
    std::memcpy(to + zeros, digits, length);
}

// A sign and digits. sign  NUL for none.
void writeNumber(Output& out, const FormatSpec& spec, char sign, uint64_t value) {
    char buffer[1 + kMaxDigits];
    char* const end = buffer + sizeof buffer;
    char* first = digitsOf(value, spec.conversion, end);

    if (spec.precision > 0 || spec.has(kZeroPad)) {
        const size_t width = static_cast<size_t>(spec.precision > 0 ? spec.precision : spec.width);
        writeZeroPadded(out, width, sign, first, static_cast<size_t>(end - first));
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

// A conversion that has no argument which suits it, written from a neutral value.
void writeNeutral(Output& out, const FormatSpec& spec) {
    if (isIntegerConversion(spec.conversion)) {
        writeSigned(out, spec, 0, sizeof(int));
        return;
    }
    if (isFloatingConversion(spec.conversion)) {
        writeFloating(out, spec, 0);
        return;
    }
    switch (spec.conversion) {
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

// argument  null when there is none left.
void writeConversion(Output& out, const FormatSpec& spec, const Argument* argument) {
    if (argument)
        writeArgument(out, spec, *argument);
    else
        writeMismatch(out, spec, kNoArgumentLeft);
}

// Whether the argument under this conversion is what appendDecimal writes: neither negative nor of more than 32 bits.
bool isShortDecimal(char conversion, const Argument& argument) {
    if (conversion != 'd' && conversion != 'i' && conversion != 'u') return false;
    if (argument.kind != Kind::Unsigned && argument.kind != Kind::Signed) return false;
    return argument.integer <= std::numeric_limits<uint32_t>::max();
}

// Writes the conversions that most messages are made of: text for a bare %s, decimal digits for a bare %d, %i or %u,
// and for these with zeros to a width of one digit, as %02d. Answers how many characters of the format that took;
// leaves all others alone, and answers 0.
size_t writeCommon(Output& out, const char* conversion, const Argument& argument) {
    switch (*conversion) {
        case 's':
            if ((argument.kind != Kind::Text && argument.kind != Kind::CString) || !argument.text) return 0;
            out.append(argument.text, argument.length);
            return 1;
        case 'd':
        case 'i':
        case 'u':
            if (!isShortDecimal(*conversion, argument)) return 0;
            appendDecimal(out, static_cast<uint32_t>(argument.integer), /*minLength=*/1);
            return 1;
        case '0': {
            const char width = conversion[1];
            if (width < '1' || width > '9' || !isShortDecimal(conversion[2], argument)) return 0;
            appendDecimal(out, static_cast<uint32_t>(argument.integer), static_cast<size_t>(width - '0'));
            return 3;
        }
        default:
            return 0;
    }
}

// Reads what stands between a '%' and the character behind its conversion. A format that ends inside the conversion
// has the NUL for its character, and the cursor stays on it.
class Parser {
public:
    explicit Parser(const char* cursor) : m_cursor(cursor) {}

    FormatSpec parse(const char* format) {
        FormatSpec spec{format};
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
        if (*m_cursor != '\0') ++m_cursor;
        return spec;
    }

    const char* cursor() const { return m_cursor; }

private:
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

    const char* m_cursor;
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

// What is reserved for the whole text; sets the lengths of C strings.
size_t roomFor(std::string_view format, Argument* args, size_t count) {
    size_t room = format.size();
    for (size_t i = 0; i < count; ++i) room += estimate(args[i]);
    return room + room / 10;
}

void walk(Output& out, std::string_view format, const Argument* args, size_t count) {
    const char* cursor = format.data();
    const char* const end = cursor + format.size();
    size_t conversions = 0;
    for (;;) {
        cursor = out.appendUntilPercent(cursor);
        if (cursor == end) break;
        ++cursor;
        if (cursor == end || *cursor == '%') {
            out.append('%');
            if (cursor == end) break;
            ++cursor;
            continue;
        }
        const Argument* const argument = conversions < count ? &args[conversions] : nullptr;
        ++conversions;
        if (const size_t taken = argument ? writeCommon(out, cursor, *argument) : 0; taken != 0) {
            cursor += taken;
            continue;
        }
        Parser parser(cursor);
        writeConversion(out, parser.parse(format.data()), argument);
        cursor = parser.cursor();
    }
    out.finish();
    if (conversions != count) reportCount(format.data(), conversions, count);
}

} // namespace

std::string formatPack(std::string_view format, Argument* args, size_t count) {
    std::string text(roomFor(format, args, count), '\0');
    Output out(text, 0, format);
    walk(out, format, args, count);
    return text;
}

void formatPackInto(std::string& text, std::string_view format, Argument* args, size_t count) {
    const size_t length = text.size();
    text.resize(length + roomFor(format, args, count));
    Output out(text, length, format);
    walk(out, format, args, count);
}

} // namespace varargs
} // namespace NS_CORE

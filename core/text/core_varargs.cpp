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

// Published numbers of the writers, which a mismatch report contains.
constexpr int32_t kTextWriter = 261;
constexpr int32_t kPointerWriter = 327;
constexpr int32_t kIntegerWriter = 332;
constexpr int32_t kCharacterWriter = 367;
constexpr int32_t kFloatingWriter = 500;
constexpr int32_t kNoArgumentLeft = 540;

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

void storeWord(char* text, Word word) {
    std::memcpy(text, &word, sizeof word);
}

// How many characters of `word` come before its first '%', sizeof word when it has none.
size_t lengthBeforePercent(Word word) {
    constexpr Word kEveryByte = ~Word{0} / 0xff;
    // Marks the lowest byte that is zero with its top bit, and possibly others above it.
    const Word others = word ^ (kEveryByte * '%');
    const Word marks = (others - kEveryByte) & ~others & (kEveryByte * 0x80);
    return static_cast<size_t>(std::countr_zero(marks)) / 8;
}

// memcpy for the short texts that messages are made of: the real one is a call into the runtime library's module, which
// on 32-bit Windows costs more than copying such a text.
void copyText(char* to, const char* from, size_t length) {
    // Measured on both platforms: the call pays earlier in the 64-bit build. Three Words, where the loop below takes
    // its second step, cost no more there than two.
    constexpr size_t kWorthACall = sizeof(Word) == 4 ? 64 : 24;
    if (length > kWorthACall) {
        std::memcpy(to, from, length);
    } else if (length >= sizeof(Word)) {
        // The last Word overlaps the one before it.
        const char* const lastFrom = from + length - sizeof(Word);
        char* const lastTo = to + length - sizeof(Word);
        for (; to < lastTo; to += sizeof(Word), from += sizeof(Word)) storeWord(to, loadWord(from));
        storeWord(lastTo, loadWord(lastFrom));
    } else {
        for (; length != 0; --length) *to++ = *from++;
    }
}

// Appends to a string through a cursor into its characters, which avoids a call for every piece. Free room, filled with
// zeros, follows the cursor, so the string is longer than its text until finish() cuts it.
class Output {
public:
    // How much free room is made ahead. Filling it takes time, so a longer text is appended without it.
    static constexpr size_t kMaxRoom = 256;

    // out  its last `room` characters are free room.
    Output(std::string& out, size_t room)
        : m_out(out), m_cursor(out.data() + out.size() - room), m_end(m_cursor + room) {}
    Output(const Output&) = delete;
    Output& operator=(const Output&) = delete;
    ~Output() = default;

    void append(const char* text, size_t length) {
        if (length <= room())
            copyText(std::exchange(m_cursor, m_cursor + length), text, length);
        else
            appendLong(text, length);
    }

    void append(char character) { *claim(1) = character; }

    // Returns the place of the next `count` characters, which the caller writes.
    char* claim(size_t count) {
        if (count > room()) [[unlikely]]
            makeRoom(count);
        return std::exchange(m_cursor, m_cursor + count);
    }

    // Appends `text`, a part of the format that ends at `end`, up to its first '%', and returns where it stopped.
    const char* appendUntilPercent(const char* text, const char* end) {
        if (text == end || *text == '%') return text;
        size_t left = static_cast<size_t>(end - text);
        if (left > room()) [[unlikely]]
            makeRoom(left);
        // A local copy, because the compiler has to assume that writing characters changes the member.
        char* to = m_cursor;
        // Copies a Word before it looks for a '%' in it; later characters overwrite what was copied too much.
        for (; left >= sizeof(Word); left -= sizeof(Word)) {
            const Word word = loadWord(text);
            storeWord(to, word);
            const size_t length = lengthBeforePercent(word);
            text += length;
            to += length;
            if (length != sizeof(Word)) {
                m_cursor = to;
                return text;
            }
        }
        while (text != end && *text != '%') *to++ = *text++;
        m_cursor = to;
        return text;
    }

    void finish() { m_out.resize(used()); }

private:
    size_t used() const { return static_cast<size_t>(m_cursor - m_out.data()); }
    size_t room() const { return static_cast<size_t>(m_end - m_cursor); }

    [[gnu::noinline]] void makeRoom(size_t room) {
        const size_t length = used();
        m_out.resize(std::max(length + room, std::min(length + kMaxRoom, m_out.capacity())));
        m_cursor = m_out.data() + length;
        m_end = m_out.data() + m_out.size();
    }

    [[gnu::noinline]] void appendLong(const char* text, size_t length) {
        m_out.resize(used());
        m_out.append(text, length);
        m_cursor = m_end = m_out.data() + m_out.size();
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
    const size_t width = std::max(static_cast<size_t>(spec.width), length);
    char* const to = out.claim(width);
    const size_t padding = width - length;
    const size_t before = spec.has(kLeftJustify) ? 0 : padding;
    if (padding != 0) std::memset(before == 0 ? to + length : to, ' ', padding);
    copyText(to + before, text, length);
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

// These write digits so that they end at `end`, and return where they begin.

// pair  0 to 99.
char* digitPair(uint32_t pair, char* end) {
    std::memcpy(end - 2, &kDigitPairs[size_t{pair} * 2], 2);
    return end - 2;
}

char* decimalDigits(uint32_t value, char* end) {
    for (; value >= 100; value /= 100) end = digitPair(value % 100, end);
    if (value >= 10) return digitPair(value, end);
    *--end = static_cast<char>('0' + value);
    return end;
}

char* decimalDigits(uint64_t value, char* end) {
    // On a 32-bit processor a 64-bit division is a library call, so divide once for nine digits.
    constexpr uint32_t kNineDigits = 1'000'000'000;
    while (value > std::numeric_limits<uint32_t>::max()) {
        char* const first = end - 9;
        const auto low = static_cast<uint32_t>(value % kNineDigits);
        value /= kNineDigits;
        for (end = decimalDigits(low, end); end != first;) *--end = '0';
    }
    return decimalDigits(static_cast<uint32_t>(value), end);
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
            return decimalDigits(value, end);
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

void writeZeroPadded(Output& out, size_t width, char sign, const char* digits, size_t length) {
    const size_t signLength = sign == '\0' ? 0 : 1;
    const size_t zeros = width > length + signLength ? width - length - signLength : 0;
    char* to = out.claim(signLength + zeros + length);
    if (signLength != 0) *to++ = sign;
    if (zeros != 0) std::memset(to, '0', zeros);
    copyText(to + zeros, digits, length);
}

// Writes a sign and digits. sign  NUL for none.
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
        const char sign = signOf(spec, static_cast<int64_t>(value));
        writeNumber(out, spec, sign, sign == '-' ? 0 - value : value);
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
    // A greater precision only adds zeros, far beyond what the buffer holds, and the runtime library would spend
    // memory and time on them.
    constexpr int32_t kMaxPrecision = 1100;
    // A negative precision means none.
    const char conversion[] = {'%', '.', '*', static_cast<char>(spec.conversion), '\0'};
    char buffer[kMaxFloatingLength + 1];
    const int length = std::snprintf(buffer, sizeof buffer, conversion, std::min(spec.precision, kMaxPrecision), value);
    if (length <= 0) return;
    writePadded(out, spec, buffer, std::min(static_cast<size_t>(length), kMaxFloatingLength));
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

// Writes a neutral value for a conversion without a suitable argument.
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
        writeSigned(out, spec, argument.integer, argument.size);
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

// Parses a conversion, from behind its '%'. Where the format ends inside it, the conversion character is the NUL, and
// the cursor stays there.
class Parser {
public:
    explicit Parser(const char* cursor) : m_cursor(cursor) {}

    FormatSpec parse(const char* format) {
        FormatSpec spec{format};
        // A letter means no flags, width or precision, as in most conversions.
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

// Writes what most messages are made of, without parsing: a bare %s of a text, and a bare %d, %i or %u of an integer
// from 0 to 4,294,967,295. Returns false, with nothing written, for everything else.
bool writeCommon(Output& out, char conversion, const Argument& argument) {
    switch (conversion) {
        case 's':
            if ((argument.kind != Kind::Text && argument.kind != Kind::CString) || !argument.text) return false;
            out.append(argument.text, argument.length);
            return true;
        case 'd':
        case 'i':
        case 'u': {
            if (argument.kind != Kind::Unsigned && argument.kind != Kind::Signed) return false;
            if (argument.integer > std::numeric_limits<uint32_t>::max()) return false;
            const auto value = static_cast<uint32_t>(argument.integer);
            const size_t length = decimalLength(value);
            decimalDigits(value, out.claim(length) + length);
            return true;
        }
        default:
            return false;
    }
}

void walk(Output& out, std::string_view format, const Argument* args, size_t count) {
    const char* cursor = format.data();
    const char* const end = cursor + format.size();
    size_t conversions = 0;
    for (;;) {
        cursor = out.appendUntilPercent(cursor, end);
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
        if (argument && writeCommon(out, *cursor, *argument)) {
            ++cursor;
            continue;
        }
        Parser parser(cursor);
        writeConversion(out, parser.parse(format.data()), argument);
        cursor = parser.cursor();
    }
    out.finish();
    if (conversions != count) reportCount(format.data(), conversions, count);
}

// The free room that is made before a text of about `reserved` characters is written.
size_t roomAhead(size_t reserved) {
    return reserved > Output::kMaxRoom ? 0 : reserved;
}

} // namespace

size_t reservation(std::string_view format, const Argument* args, size_t count) {
    size_t length = format.size();
    for (size_t i = 0; i < count; ++i) length += args[i].length;
    return length + length / 10;
}

std::string formatPack(std::string_view format, const Argument* args, size_t count) {
    const size_t reserved = reservation(format, args, count);
    const size_t room = roomAhead(reserved);
    std::string text(room, '\0');
    if (room == 0) text.reserve(reserved);
    Output out(text, room);
    walk(out, format, args, count);
    return text;
}

void formatPackInto(std::string& text, std::string_view format, const Argument* args, size_t count) {
    const size_t reserved = reservation(format, args, count);
    const size_t room = roomAhead(reserved);
    text.reserve(text.size() + reserved);
    text.resize(text.size() + room);
    Output out(text, room);
    walk(out, format, args, count);
}

} // namespace varargs
} // namespace NS_CORE

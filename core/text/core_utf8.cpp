#include "core/text/core_utf8.h"

#include <cstdint>
#include <cstdio>

#include "absl/strings/str_cat.h"

namespace NS_CORE {
namespace {

constexpr char32_t kLastCodePoint = 0x10FFFF;
constexpr char32_t kReplacement = 0xFFFD;
constexpr char32_t kFirstSupplementary = 0x10000;

// By the length of a sequence in bytes: the smallest code point that needs it. A smaller one makes it overlong.
constexpr char32_t kSmallestOfLength[] = {0, 0, 0x80, 0x800, 0x10000};

bool isHighSurrogate(char32_t unit) {
    return unit >= 0xD800 && unit <= 0xDBFF;
}
bool isLowSurrogate(char32_t unit) {
    return unit >= 0xDC00 && unit <= 0xDFFF;
}
bool isContinuation(uint8_t byte) {
    return (byte & 0xC0) == 0x80;
}

// One code point out of a text.
struct Decoded {
    char32_t codePoint = 0;
    uint32_t length = 0;         // bytes taken
    const char* error = nullptr; // what is wrong, or null
};

// The length of the sequence that a lead byte begins; 0 for a byte that is not a lead byte.
uint32_t announcedLength(uint8_t lead) {
    if (lead < 0x80) return 1;
    if (lead < 0xC0) return 0;
    if (lead < 0xE0) return 2;
    if (lead < 0xF0) return 3;
    return lead < 0xF8 ? 4 : 0;
}

const char* errorIn(char32_t codePoint, uint32_t length) {
    if (codePoint < kSmallestOfLength[length]) return "overlong sequence";
    if (isHighSurrogate(codePoint) || isLowSurrogate(codePoint)) return "surrogate";
    return codePoint > kLastCodePoint ? "code point beyond U+10FFFF" : nullptr;
}

// Decodes the sequence at the start of `text`, which is not empty.
Decoded decodeFirst(std::string_view text) {
    const auto lead = static_cast<uint8_t>(text.front());
    Decoded result;
    result.length = announcedLength(lead);
    if (result.length == 0) {
        result.error = isContinuation(lead) ? "continuation byte without a lead byte" : "invalid lead byte";
        return result;
    }
    result.codePoint = result.length == 1 ? lead : lead & (0x7FU >> result.length);
    for (uint32_t i = 1; i < result.length; ++i) {
        if (i >= text.size() || !isContinuation(static_cast<uint8_t>(text[i]))) {
            result.error = "incomplete sequence";
            return result;
        }
        result.codePoint = result.codePoint << 6 | (static_cast<uint8_t>(text[i]) & 0x3FU);
    }
    result.error = errorIn(result.codePoint, result.length);
    return result;
}

void appendUtf16(std::u16string& out, char32_t codePoint) {
    if (codePoint < kFirstSupplementary) {
        out += static_cast<char16_t>(codePoint);
        return;
    }
    const char32_t offset = codePoint - kFirstSupplementary;
    out += static_cast<char16_t>(0xD800 + (offset >> 10));
    out += static_cast<char16_t>(0xDC00 + (offset & 0x3FF));
}

void appendUtf8(std::string& out, char32_t codePoint) {
    const auto continuation = [codePoint](uint32_t shift) {
        return static_cast<char>(0x80 | (codePoint >> shift & 0x3F));
    };
    if (codePoint < 0x80) {
        out += static_cast<char>(codePoint);
    } else if (codePoint < 0x800) {
        out += {static_cast<char>(0xC0 | codePoint >> 6), continuation(0)};
    } else if (codePoint < kFirstSupplementary) {
        out += {static_cast<char>(0xE0 | codePoint >> 12), continuation(6), continuation(0)};
    } else {
        out += {static_cast<char>(0xF0 | codePoint >> 18), continuation(12), continuation(6), continuation(0)};
    }
}

// Writes to standard output, not to the log: the logger itself needs conversions to open its file.
void report(std::string_view text, size_t position, const char* error) {
    const auto byte = static_cast<uint8_t>(text[position]);
    const std::string line = absl::StrCat("fromUtf8 conversion failed at byte ", position, " (0x",
                                          absl::Hex(byte, absl::kZeroPad2), "): ", error, "\n");
    std::fwrite(line.data(), 1, line.size(), stdout);
    std::fflush(stdout);
}

} // namespace

bool fromUtf8(std::string_view text, std::u16string& wideOut) {
    std::u16string wide;
    wide.reserve(text.size());
    for (size_t position = 0; position < text.size();) {
        const Decoded next = decodeFirst(text.substr(position));
        if (next.error != nullptr) {
            report(text, position, next.error);
            return false;
        }
        appendUtf16(wide, next.codePoint);
        position += next.length;
    }
    wideOut = std::move(wide);
    return true;
}

std::string toUtf8(std::u16string_view wide) {
    std::string text;
    text.reserve(wide.size());
    for (size_t i = 0; i < wide.size(); ++i) {
        char32_t codePoint = wide[i];
        if (isHighSurrogate(codePoint) && i + 1 < wide.size() && isLowSurrogate(wide[i + 1])) {
            codePoint = kFirstSupplementary + ((codePoint - 0xD800) << 10) + (wide[++i] - 0xDC00U);
        } else if (isHighSurrogate(codePoint) || isLowSurrogate(codePoint)) {
            codePoint = kReplacement;
        }
        appendUtf8(text, codePoint);
    }
    return text;
}

} // namespace NS_CORE

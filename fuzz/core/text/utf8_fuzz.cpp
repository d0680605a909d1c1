// The UTF-8 conversion against the C library's iconv: what is refused, and what comes out.
#include <iconv.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/text/core_utf8.h"
#include "fuzz/require.h"

namespace {

// `text` converted by the C library; nothing where it refuses.
std::optional<std::string> byIconv(iconv_t converter, std::string_view text) {
    std::vector<char> in(text.begin(), text.end());
    std::vector<char> out(text.size() * 2 + 4);
    char* from = in.data();
    char* to = out.data();
    size_t fromLeft = in.size();
    size_t toLeft = out.size();
    ::iconv(converter, nullptr, nullptr, nullptr, nullptr);
    if (::iconv(converter, &from, &fromLeft, &to, &toLeft) == static_cast<size_t>(-1)) return std::nullopt;
    return std::string(out.data(), to);
}

std::string bytesOf(std::u16string_view wide) {
    std::string bytes(wide.size() * 2, '\0');
    std::memcpy(bytes.data(), wide.data(), bytes.size());
    return bytes;
}

void checkFromUtf8(std::string_view text) {
    static const iconv_t converter = ::iconv_open("UTF-16LE", "UTF-8");
    const std::u16string before = u"before";
    std::u16string wide = before;
    const bool converted = NS_CORE::fromUtf8(text, wide);
    const std::optional<std::string> expected = byIconv(converter, text);
    require(converted == expected.has_value(), "accepted what iconv refuses, or refused what it accepts");
    require(converted ? bytesOf(wide) == *expected : wide == before, "another result than iconv's");
    if (converted) require(NS_CORE::toUtf8(wide) == text, "did not come back as it went");
}

// The same bytes taken as UTF-16.
void checkToUtf8(std::string_view bytes) {
    static const iconv_t converter = ::iconv_open("UTF-8", "UTF-16LE");
    std::u16string wide(bytes.size() / 2, u'\0');
    if (!wide.empty()) std::memcpy(wide.data(), bytes.data(), wide.size() * 2);
    const std::string text = NS_CORE::toUtf8(wide);
    if (const std::optional<std::string> expected = byIconv(converter, bytesOf(wide))) {
        require(text == *expected, "another UTF-8 than iconv's");
        return;
    }
    std::u16string back;
    require(NS_CORE::fromUtf8(text, back) && back.size() == wide.size(), "no UTF-8 in place of half a surrogate pair");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // A copy of its own, so that reading on behind the text is seen.
    const std::vector<char> copy(data, data + size);
    const std::string_view text(copy.data(), copy.size());
    checkFromUtf8(text);
    checkToUtf8(text);
    return 0;
}

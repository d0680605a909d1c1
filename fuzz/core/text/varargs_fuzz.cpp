// Any format with any arguments: the formatter stays within its memory, reports at its published places only, counts
// right, and appends what it would return.

#include <fuzzer/FuzzedDataProvider.h>

#include <cctype>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "core/check/core_assert.h"
#include "core/text/core_varargs.h"
#include "fuzz/require.h"

namespace {

using NS_CORE::varargs::Argument;
using NS_CORE::varargs::argument;

std::vector<int32_t> g_reports;

bool record(const char* expression, std::string_view file, int32_t line, int32_t level, const std::string& message) {
    require(file == "core_varargs");
    switch (line) {
        case 15:
            require(message.starts_with("core_varargs:"));
            break;
        case 34:
            require(message.size() <= 1);
            break;
        case 64:
            require(std::string_view(expression) == "false" && message.empty() && level == 1);
            break;
        case 522:
            require(message.starts_with("format='"));
            break;
        default:
            std::abort();
    }
    g_reports.push_back(line);
    return false;
}

// Memory of exactly the text's size, so that the sanitizer sees a read behind it.
class Exact {
public:
    Exact(std::string_view text, bool terminated)
        : m_size(text.size()), m_text(new char[m_size + (terminated ? 1 : 0)]) {
        if (m_size != 0) std::memcpy(m_text.get(), text.data(), m_size);
        if (terminated) m_text[m_size] = '\0';
    }

    const char* c_str() const { return m_text.get(); }
    std::string_view view() const { return {m_text.get(), m_size}; }

private:
    size_t m_size;
    std::unique_ptr<char[]> m_text;
};

// A NUL ends the format, and widths stay below 1000: greater ones are legal, but only cost memory.
std::string usableFormat(const std::string& input) {
    std::string format;
    size_t digits = 0;
    for (const char character : input) {
        if (character == '\0') break;
        digits = std::isdigit(static_cast<unsigned char>(character)) != 0 ? digits + 1 : 0;
        if (digits <= 3) format += character;
    }
    return format;
}

Argument anyArgument(FuzzedDataProvider& data, std::vector<Exact>& texts) {
    switch (data.ConsumeIntegralInRange<int>(0, 12)) {
        case 0:
            return argument(data.ConsumeIntegral<int8_t>());
        case 1:
            return argument(data.ConsumeIntegral<uint8_t>());
        case 2:
            return argument(data.ConsumeIntegral<int32_t>());
        case 3:
            return argument(data.ConsumeIntegral<uint32_t>());
        case 4:
            return argument(data.ConsumeIntegral<int64_t>());
        case 5:
            return argument(data.ConsumeIntegral<uint64_t>());
        case 6:
            return argument(data.ConsumeIntegral<char>());
        case 7:
            return argument(data.ConsumeFloatingPoint<double>());
        case 8:
            return argument(static_cast<const char*>(nullptr));
        case 9:
            texts.emplace_back(std::string(data.ConsumeRandomLengthString(80).c_str()), /*terminated=*/true);
            return argument(texts.back().c_str());
        case 10:
            texts.emplace_back(data.ConsumeRandomLengthString(80), /*terminated=*/false);
            return argument(texts.back().view());
        case 11:
            return argument(reinterpret_cast<void*>(data.ConsumeIntegral<uintptr_t>()));
        default:
            return argument(std::string_view());
    }
}

// One conversion that the formatter and the C library understand alike: see core_varargs.h for where they differ on
// purpose.
void compareWithTheLibrary(FuzzedDataProvider& data) {
    std::string format = "<%";
    const bool isLeft = data.ConsumeBool();
    const int width = data.ConsumeIntegralInRange<int>(0, 30);
    if (isLeft) format += '-';
    const auto compare = [&](const std::string& conversion, auto... arguments) {
        const std::string whole = format + conversion + '>';
        char expected[512];
        const int length = std::snprintf(expected, sizeof(expected), whole.c_str(), arguments...);
        require(NS_CORE::formatString(whole.c_str(), arguments...) ==
                    std::string_view(expected, static_cast<size_t>(length)),
                "another text than the C library's");
    };
    const bool isZeroed = !isLeft && data.ConsumeBool();
    const std::string widths = width == 0 ? "" : std::to_string(width);
    const std::string zeroedWidths = (isZeroed && width != 0 ? "0" : "") + widths;
    const auto integer = data.ConsumeIntegral<int64_t>();
    switch (data.ConsumeIntegralInRange<int>(0, 7)) {
        case 0:
            compare(zeroedWidths + "lld", static_cast<long long>(integer));
            break;
        case 1:
            compare(zeroedWidths + data.PickValueInArray({"u", "x", "X", "o"}), static_cast<uint32_t>(integer));
            break;
        case 2:
            compare(zeroedWidths + "llu", static_cast<unsigned long long>(integer));
            break;
        case 3:
            compare(zeroedWidths + "d", static_cast<int32_t>(integer));
            break;
        case 4: {
            const std::string text = std::string(data.ConsumeRandomLengthString(60).c_str());
            const int precision = data.ConsumeIntegralInRange<int>(0, 40); // 0 is no limit here
            compare(widths + (precision == 0 ? "" : '.' + std::to_string(precision)) + "s", text.c_str());
            break;
        }
        case 5:
            compare(widths + "c", data.ConsumeIntegralInRange<int>(1, 127));
            break;
        default: {
            // Of at most 23 characters, to which the formatter cuts.
            const double value = data.ConsumeFloatingPointInRange<double>(-1e9, 1e9);
            compare(widths + '.' + std::to_string(data.ConsumeIntegralInRange<int>(0, 9)) +
                        data.PickValueInArray({"f", "e", "E", "g", "G"}),
                    value);
        }
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    NS_CORE::Assert::installFailureHandler(&record);
    FuzzedDataProvider data(bytes, size);
    std::vector<Exact> texts;
    std::vector<Argument> arguments(data.ConsumeIntegralInRange<size_t>(0, 6));
    for (Argument& one : arguments) one = anyArgument(data, texts);
    const Exact format(usableFormat(data.ConsumeRemainingBytesAsString()), /*terminated=*/true);

    g_reports.clear();
    const std::string text = NS_CORE::varargs::formatPack(format.view(), arguments.data(), arguments.size());
    const std::vector<int32_t> reports = std::move(g_reports);

    g_reports.clear();
    std::string appended = "before";
    NS_CORE::varargs::formatPackInto(appended, format.view(), arguments.data(), arguments.size());
    require(appended == "before" + text);
    require(g_reports == reports);

    {
        FuzzedDataProvider again(bytes, size);
        g_reports.clear();
        compareWithTheLibrary(again);
        require(g_reports.empty(), "a failed check where nothing is wrong");
    }

    // Without a conversion there is nothing to misunderstand but the count.
    if (format.view().find('%') == std::string_view::npos) {
        require(text == format.view());
        require(reports == (arguments.empty() ? std::vector<int32_t>{} : std::vector<int32_t>{522}));
    }
    return 0;
}

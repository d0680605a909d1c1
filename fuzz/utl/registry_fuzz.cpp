// Values of any type and any bytes, written down as a registry export by this second, writing view of the format, and
// read through the registry's interface: only text is handed out, less one NUL.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "core/check/core_assert.h"
#include "core/text/core_utf8.h"
#include "fuzz/memory_dir.h"
#include "fuzz/require.h"
#include "utl/utl_registry.h"

namespace {

namespace fs = std::filesystem;

// The system's numbers of types.
namespace RegType {
constexpr uint32_t Sz = 1;
constexpr uint32_t ExpandSz = 2;
constexpr uint32_t Binary = 3;
constexpr uint32_t MultiSz = 7;
} // namespace RegType

// Bytes that are text in UTF-8; of others what is ASCII.
std::string anyText(FuzzedDataProvider& input) {
    std::string text = input.ConsumeRandomLengthString(60);
    std::u16string wide;
    if (!NS_CORE::fromUtf8(text, wide)) std::erase_if(text, [](char byte) { return (byte & 0x80) != 0; });
    return text;
}

std::u16string wideOf(const std::string& text) {
    std::u16string wide;
    require(NS_CORE::fromUtf8(text, wide), "no text");
    return wide;
}

std::string bytesOf(const std::u16string& wide) {
    std::string bytes;
    for (const char16_t unit : wide) {
        bytes += static_cast<char>(unit & 0xff);
        bytes += static_cast<char>(unit >> 8);
    }
    return bytes;
}

std::string hexOf(const std::string& bytes) {
    constexpr const char* kDigits = "0123456789abcdef";
    std::string list;
    for (const char byte : bytes) {
        if (!list.empty()) list += ',';
        list += kDigits[static_cast<uint8_t>(byte) >> 4];
        list += kDigits[byte & 15];
    }
    return list;
}

std::string inQuotes(const std::string& text) {
    std::string out = "\"";
    for (const char character : text) {
        if (character == '"' || character == '\\') out += '\\';
        out += character;
    }
    return out + '"';
}

struct Value {
    uint32_t type;
    std::string bytes; // what the registry holds; UTF-8 where it is text
};

// The value behind the '='. A text without a NUL may stand in quotes, which store a terminator.
std::string writtenDown(FuzzedDataProvider& input, Value& value) {
    const bool isText = value.type == RegType::Sz || value.type == RegType::ExpandSz || value.type == RegType::MultiSz;
    value.bytes = isText ? anyText(input) : input.ConsumeRandomLengthString(60);
    if (value.type == RegType::Sz && value.bytes.find('\0') == std::string::npos && input.ConsumeBool()) {
        std::erase(value.bytes, '\r'); // line ends in a text are for another day
        const std::string text = inQuotes(value.bytes);
        value.bytes += '\0';
        return text;
    }
    return "hex(" + std::to_string(value.type) + "):" + hexOf(isText ? bytesOf(wideOf(value.bytes)) : value.bytes);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const MemoryDir directory;
    static const bool isSettled = fs::create_directories(directory.path() / "settings");
    if (isSettled) fs::current_path(directory.path());
    NS_CORE::Assert::installFailureHandler(nullptr);
    FuzzedDataProvider input(data, size);
    const bool isWide = input.ConsumeBool();
    const char* const lineEnd = input.PickValueInArray({"\n", "\r\n"});
    std::string file =
        std::string("Windows Registry Editor Version 5.00") + lineEnd + lineEnd + "[HKEY_LOCAL_MACHINE\\K]" + lineEnd;
    std::vector<Value> values(input.ConsumeIntegralInRange<size_t>(1, 4));
    for (size_t number = 0; number < values.size(); ++number) {
        values[number].type =
            input.PickValueInArray({RegType::Sz, RegType::ExpandSz, RegType::MultiSz, RegType::Binary});
        file += "\"v" + std::to_string(number) + "\"=" + writtenDown(input, values[number]) + lineEnd;
    }
    std::ofstream("settings/registry.reg", std::ios::binary | std::ios::trunc)
        << (isWide ? "\xff\xfe" + bytesOf(wideOf(file)) : file);

    NS_UTL::RegistryKey key;
    require(key.open("K"), "not a registry export");
    for (size_t number = 0; number < values.size(); ++number) {
        std::string expected = values[number].bytes;
        const bool isReadable = values[number].type == RegType::Sz && !expected.empty();
        if (!expected.empty() && expected.back() == '\0') expected.pop_back();
        std::string text = "before";
        require(key.getValue("V" + std::to_string(number), text) == isReadable, "another type, or no bytes");
        require(text == (isReadable ? expected : "before"), "another text");
    }
    return 0;
}

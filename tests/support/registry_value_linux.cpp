#include <gtest/gtest.h>

#include "core/text/core_utf8.h"
#include "core/text/core_varargs.h"
#include "tests/support/registry_value.h"
#include "tests/support/temp_dir.h"

namespace test {
namespace {

constexpr const char* kHeader = "Windows Registry Editor Version 5.00\r\n\r\n";

bool isText(uint32_t type) {
    return type == 1 || type == 2 || type == 7;
}

std::string utf16Bytes(const std::string& text) {
    std::u16string wide;
    EXPECT_TRUE(NS_CORE::fromUtf8(text, wide));
    std::string bytes;
    for (const char16_t unit : wide) {
        bytes += static_cast<char>(unit & 0xff);
        bytes += static_cast<char>(unit >> 8);
    }
    return bytes;
}

} // namespace

struct RegistryValue::Impl {
    std::filesystem::path file;
    std::string subKey;
    std::string name;

    void write(const std::string& value) const {
        std::filesystem::create_directories(file.parent_path());
        writeFile(file, kHeader + ("[HKEY_LOCAL_MACHINE\\" + subKey + "]\r\n") + value);
    }
};

RegistryValue::RegistryValue(const std::string& subKey, const std::string& name, const std::filesystem::path& root)
    : m_impl(std::make_unique<Impl>(Impl{root / "settings" / "registry.reg", subKey, name})) {}

RegistryValue::~RegistryValue() {
    std::filesystem::remove(m_impl->file);
}

void RegistryValue::set(uint32_t type, const std::string& bytes) {
    std::string line = NS_CORE::formatString("\"%s\"=hex(%x):", m_impl->name, type);
    for (const char byte : isText(type) ? utf16Bytes(bytes) : bytes)
        NS_CORE::formatInto(line, "%02x,", static_cast<uint8_t>(byte));
    m_impl->write(line + "\r\n");
}

void RegistryValue::removeValue() {
    m_impl->write("");
}

void RegistryValue::removeKey() {
    std::filesystem::create_directories(m_impl->file.parent_path());
    writeFile(m_impl->file, kHeader);
}

} // namespace test

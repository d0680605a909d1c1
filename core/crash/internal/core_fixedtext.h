#pragma once

#include <algorithm>
#include <array>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace NS_CORE {

// A text in memory of its own, for code that must not allocate. What does not fit is cut off.
class FixedText {
public:
    static constexpr size_t kCapacity = 1024; // with the terminator

    FixedText& operator<<(std::string_view text) {
        const size_t count = std::min(text.size(), kCapacity - 1 - m_size);
        std::memcpy(m_bytes.data() + m_size, text.data(), count);
        m_size += count;
        m_bytes[m_size] = '\0';
        return *this;
    }
    FixedText& operator<<(uintptr_t number) {
        std::array<char, 2 * sizeof(number)> digits;
        const auto [end, error] = std::to_chars(digits.data(), digits.data() + digits.size(), number, 16);
        return *this << "0x" << std::string_view(digits.data(), static_cast<size_t>(end - digits.data()));
    }

    const char* c_str() const { return m_bytes.data(); }
    std::string_view view() const { return {m_bytes.data(), m_size}; }
    void replace(char before, char after) { std::replace(m_bytes.data(), m_bytes.data() + m_size, before, after); }

private:
    std::array<char, kCapacity> m_bytes{};
    size_t m_size = 0;
};

} // namespace NS_CORE

#pragma once

#include <utility>

namespace NS_CORE {

// Owns one resource of the operating system and closes it once. Traits says what kind:
//
//     struct FindHandleTraits {
//         using Value = HANDLE;
//         static Value empty() { return INVALID_HANDLE_VALUE; }   // the value that owns nothing
//         static void close(Value value) { ::FindClose(value); }  // never called with empty()
//     };
//
// Movable, not copyable; one thread at a time.
template <class Traits>
class ScopedHandle {
public:
    using Value = typename Traits::Value;

    ScopedHandle() = default;
    explicit ScopedHandle(Value value) : m_value(value) {}
    ScopedHandle(ScopedHandle&& other) noexcept : m_value(other.release()) {}
    ScopedHandle& operator=(ScopedHandle&& other) noexcept {
        reset(other.release());
        return *this;
    }
    ScopedHandle(const ScopedHandle&) = delete;
    ScopedHandle& operator=(const ScopedHandle&) = delete;
    ~ScopedHandle() { reset(); }

    explicit operator bool() const { return m_value != Traits::empty(); }

    // Borrowed: stays owned here.
    Value get() const { return m_value; }

    // Gives the value up to the caller, who closes it.
    [[nodiscard]] Value release() { return std::exchange(m_value, Traits::empty()); }

    // Closes what is owned and takes `value` instead, which must be another one.
    void reset(Value value = Traits::empty()) {
        const Value old = std::exchange(m_value, value);
        if (old != Traits::empty()) Traits::close(old);
    }

private:
    Value m_value = Traits::empty();
};

} // namespace NS_CORE

#pragma once

#include <utility>

namespace NS_CORE {

// Holds process state that must stay usable while static destructors of other units still run: constructed like any
// other (at compile time where T can be), never destroyed. What it owns stays reachable, so leak checkers report
// nothing.
template <class T>
union NeverDestroyed {
    template <class... Args>
    constexpr explicit(sizeof...(Args) == 1) NeverDestroyed(Args&&... args) : value(std::forward<Args>(args)...) {}
    // Empty on purpose: the union does not destroy its member.
    constexpr ~NeverDestroyed() {} // NOLINT(modernize-use-equals-default): a defaulted one would be deleted
    NeverDestroyed(const NeverDestroyed&) = delete;
    NeverDestroyed& operator=(const NeverDestroyed&) = delete;

    T* operator->() { return &value; }
    T& operator*() { return value; }
    const T& operator*() const { return value; }

    T value;
};

} // namespace NS_CORE

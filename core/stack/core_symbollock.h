#pragma once

#include <cstdint>

namespace NS_CORE {

// The system's symbol library, which walks stacks and writes dumps, serves one caller at a time. Whoever uses it holds
// a turn meanwhile. A thread that has one may take another, so that a fault inside the library can still be reported.
//
// Nobody waits for ever: the one whose turn it is may itself wait for something that the caller has, or be broken.
class SymbolTurn {
public:
    // How long traces and dumps wait for another thread's trace.
    static constexpr uint32_t kTracePatienceMs = 5000;

    // Waits that long at most. True: the same thread has to give it back.
    [[nodiscard]] static bool take(uint32_t patienceMs);
    static void giveBack();

    // A turn for a scope, if it can be had in time.
    explicit SymbolTurn(uint32_t patienceMs) : m_isHeld(take(patienceMs)) {}
    ~SymbolTurn() {
        if (m_isHeld) giveBack();
    }
    SymbolTurn(const SymbolTurn&) = delete;
    SymbolTurn& operator=(const SymbolTurn&) = delete;

private:
    bool m_isHeld;
};

} // namespace NS_CORE

#include "core/memory/core_threadword.h"

#include "core/memory/core_threadword_platform.h"

namespace NS_CORE {

uint32_t ThreadWord::slot() const {
    uint32_t slot = m_slot.load(std::memory_order_acquire);
    if (slot != kNoSlot || !threadword_platform::allocate(&slot)) return slot;
    uint32_t other = kNoSlot;
    if (m_slot.compare_exchange_strong(other, slot)) return slot;
    threadword_platform::release(slot);
    return other;
}

uintptr_t ThreadWord::get() const {
    const uint32_t at = slot();
    return at == kNoSlot ? 0 : threadword_platform::get(at);
}

void ThreadWord::set(uintptr_t value) {
    const uint32_t at = slot();
    if (at != kNoSlot) threadword_platform::set(at, value);
}

} // namespace NS_CORE

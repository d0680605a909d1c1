#include "core/memory/core_guniquebuf.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <new>
#include <stdexcept>
#include <utility>

#include "core/text/core_checkf.h"

namespace NS_CORE {
namespace {

// Whether the 32-bit fields can hold this many bytes. Callers add in 64 bits, so that a sum does not wrap.
bool canCount(uint64_t bytes) {
    return bytes <= std::numeric_limits<uint32_t>::max();
}

[[noreturn]] void failGrowing(uint64_t bytes) {
    static_cast<void>(CHECKF_AT("core_guniquebuf", 402, false, "%u", bytes));
    throw std::bad_alloc();
}

[[noreturn]] void failAdjusting() {
    throw std::out_of_range("GUniqueBuf:adjust");
}

} // namespace

GUniqueBuf::GUniqueBuf(int32_t size, uint32_t headRoom, uint32_t tailRoom) {
    const uint64_t total = uint64_t{static_cast<uint32_t>(size)} + headRoom + tailRoom;
    if (total == 0) return;
    auto* const base =
        size >= 0 && canCount(total) ? static_cast<uint8_t*>(std::malloc(static_cast<size_t>(total))) : nullptr;
    // This check is published under a unit name of its own.
    if (!CHECKF_AT("core_guniquebuf_inline", 31, base != nullptr, "failed mallocing%u bytes", total))
        throw std::bad_alloc();
    m_base = base;
    m_capacity = static_cast<uint32_t>(total);
    m_data = base + headRoom;
    m_size = size;
}

GUniqueBuf::GUniqueBuf(GUniqueBuf&& other) noexcept
    : m_base(std::exchange(other.m_base, nullptr)),
      m_capacity(std::exchange(other.m_capacity, 0)),
      m_data(std::exchange(other.m_data, nullptr)),
      m_size(std::exchange(other.m_size, 0)) {}

GUniqueBuf& GUniqueBuf::operator=(GUniqueBuf&& other) noexcept {
    GUniqueBuf taken(std::move(other));
    std::swap(m_base, taken.m_base);
    std::swap(m_capacity, taken.m_capacity);
    std::swap(m_data, taken.m_data);
    std::swap(m_size, taken.m_size);
    return *this;
}

GUniqueBuf::~GUniqueBuf() {
    std::free(m_base);
}

void GUniqueBuf::reserve(uint32_t headRoom, uint32_t tailRoom) {
    if (headRoom > this->headRoom()) {
        growAtFront(headRoom, std::max(tailRoom, this->tailRoom()));
    } else if (tailRoom > this->tailRoom()) {
        growAtBack(tailRoom - this->tailRoom());
    }
}

// realloc cannot move the data back within the allocation, so room at the front needs a new one.
void GUniqueBuf::growAtFront(uint32_t headRoom, uint32_t tailRoom) {
    GUniqueBuf larger(m_size, headRoom, tailRoom);
    if (m_base != nullptr) std::memcpy(larger.m_base + (headRoom - this->headRoom()), m_base, m_capacity);
    *this = std::move(larger);
}

void GUniqueBuf::growAtBack(uint32_t shortfall) {
    const uint32_t head = headRoom();
    const uint64_t total = uint64_t{m_capacity} + shortfall;
    void* const base = canCount(total) ? std::realloc(m_base, static_cast<size_t>(total)) : nullptr;
    if (base == nullptr) failGrowing(total);
    m_base = static_cast<uint8_t*>(base);
    m_capacity = static_cast<uint32_t>(total);
    m_data = m_base + head;
}

void GUniqueBuf::adjust(int32_t deltaFront, int32_t deltaBack) {
    if (m_base == nullptr) {
        if (!CHECKF_AT("core_guniquebuf", 143, deltaBack >= 0, "%d,%d", deltaFront, deltaBack)) failAdjusting();
        *this = GUniqueBuf(deltaBack);
        return;
    }
    const int64_t newSize = int64_t{m_size} + deltaFront + deltaBack;
    if (!CHECKF_AT("core_guniquebuf", 157, newSize >= 0, "%s, delta=%d,%d", toText(), deltaFront, deltaBack)) {
        failAdjusting();
    }
    if (newSize > std::numeric_limits<int32_t>::max()) failGrowing(static_cast<uint64_t>(newSize));
    reserve(static_cast<uint32_t>(std::max(deltaFront, 0)), static_cast<uint32_t>(std::max(deltaBack, 0)));
    m_data -= deltaFront;
    m_size = static_cast<int32_t>(newSize);
}

const uint8_t* GUniqueBuf::dataAt(int32_t offset) const {
    if (m_size <= offset) {
        static_cast<void>(CHECKF_AT("core_guniquebuf", 46, false, "%d,%d", m_size, offset));
        if (m_size < offset) throw std::out_of_range("GUniqueBuf:dataAt");
    }
    if (!CHECKF_AT("core_guniquebuf", 54, m_base != nullptr, "")) return nullptr;
    // Integer arithmetic: a negative offset may leave the allocation, where pointer arithmetic is undefined.
    return reinterpret_cast<const uint8_t*>(reinterpret_cast<uintptr_t>(m_data) + static_cast<uintptr_t>(offset));
}

std::string GUniqueBuf::toText() const {
    if (m_base == nullptr) return "nullptr";
    // As untyped pointers: these are addresses, not texts.
    const void* const base = m_base;
    const void* const data = m_data;
    if (headRoom() == 0 && tailRoom() == 0) return formatString("%p:%d", data, m_size);
    return formatString("%p:%d (%p:%d+%d+%d)", data, m_size, base, headRoom(), m_size, tailRoom());
}

} // namespace NS_CORE

#include "core/log/core_loglevels.h"

#include <algorithm>

namespace NS_CORE {

void LevelMask::set(uint32_t level, bool on) {
    std::atomic<uint8_t>& byte = m_bytes[level / 8];
    const auto bit = static_cast<uint8_t>(1U << (level % 8));
    if (on)
        byte.fetch_or(bit, std::memory_order_relaxed);
    else
        byte.fetch_and(static_cast<uint8_t>(~bit), std::memory_order_relaxed);
}

constinit std::array<LevelTable::Row, LevelTable::kPredefinedCount> LevelTable::g_predefined{
    Row("LOG2STRING", "", 0, 0), Row("CRIT", "1;31", LevelEntry::Console, 1),
    Row("WARN", "1;34", 0, 2),   Row("INFO", "1", 0, 4),
    Row("NORM", "", 0, 0),
};
constinit std::array<LevelTable::Row, LevelMask::kLevelCount - LevelTable::kPredefinedCount> LevelTable::g_others{};
constinit std::atomic<uint32_t> LevelTable::g_count{kPredefinedCount};

LevelTable::Row& LevelTable::row(uint32_t level) {
    return level < kPredefinedCount ? g_predefined[level] : g_others[level - kPredefinedCount];
}

const LevelTable::Row& LevelTable::row(uint32_t level) const {
    return level < kPredefinedCount ? g_predefined[level] : g_others[level - kPredefinedCount];
}

bool LevelTable::isRegistered(uint32_t level) const {
    return row(level).registered.load(std::memory_order_acquire);
}

uint32_t LevelTable::count() const {
    return g_count.load(std::memory_order_relaxed);
}

LevelEntry LevelTable::entry(uint32_t level) const {
    const Row& from = row(level);
    LevelEntry entry{};
    if (isRegistered(level)) {
        std::ranges::copy(from.name, entry.name);
        std::ranges::copy(from.colour, entry.colour);
    }
    entry.flags = from.flags.load(std::memory_order_relaxed);
    entry.implementationBits = from.implementationBits.load(std::memory_order_relaxed);
    return entry;
}

void LevelTable::define(uint32_t level, std::string_view name, std::string_view colour, uint8_t implementationBits) {
    Row& to = row(level);
    std::ranges::copy(name, to.name);
    std::ranges::copy(colour, to.colour);
    to.registered = true;
    g_count.fetch_add(1, std::memory_order_relaxed);
    setImplementationBits(level, implementationBits);
}

void LevelTable::disable(uint32_t level) {
    row(level).flags.fetch_and(static_cast<uint8_t>(~LevelEntry::Enabled), std::memory_order_relaxed);
}

void LevelTable::setFlags(uint32_t level, uint8_t flags) {
    Row& to = row(level);
    to.flags.store(effectiveFlags(flags, to.implementationBits.load(std::memory_order_relaxed)),
                   std::memory_order_relaxed);
}

void LevelTable::setImplementationBits(uint32_t level, uint8_t implementationBits) {
    Row& to = row(level);
    to.implementationBits.store(implementationBits, std::memory_order_relaxed);
    setFlags(level, to.flags.load(std::memory_order_relaxed));
}

} // namespace NS_CORE

#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <string_view>

namespace NS_CORE {

// The predefined levels. Others, below LevelMask::kLevelCount, may be registered by number.
namespace LogLevel {
inline constexpr uint32_t Log2String = 0; // "LOG2STRING": feeds the process's captures, never filtered
inline constexpr uint32_t Crit = 1;
inline constexpr uint32_t Warn = 2;
inline constexpr uint32_t Info = 3;
inline constexpr uint32_t Norm = 4; // off at start
} // namespace LogLevel

// One level, as implementations and observers see it.
struct LevelEntry {
    // Bits of `flags`.
    enum Flag : uint8_t {
        Enabled = 1 << 0,          // mirrored in the level mask; derived, not set by hand
        ToImplementation = 1 << 1, // derived likewise
        Console = 1 << 2,
        Observers = 1 << 3,
        History = 1 << 4,
    };
    char name[16];  // NUL-terminated
    char colour[6]; // ANSI attribute, NUL-terminated
    uint8_t flags;
    uint8_t implementationBits; // handed to the implementation with every message; nonzero routes to it
};

// Which levels are on. Every call site reads it, without a lock. Constant-initialised with CRIT, WARN and INFO on, so
// that static initialisers of any unit may log.
class LevelMask {
public:
    static constexpr uint32_t kLevelCount = 1024;

    constexpr LevelMask() : m_bytes{1U << LogLevel::Crit | 1U << LogLevel::Warn | 1U << LogLevel::Info} {}

    // One load, one branch when `level` is a constant.
    bool isOn(uint32_t level) const {
        return level == 0 ||
               (level < kLevelCount && (m_bytes[level / 8].load(std::memory_order_relaxed) >> (level % 8) & 1) != 0);
    }

    // `level` is below kLevelCount. One thread at a time.
    void set(uint32_t level, bool on);

private:
    std::array<std::atomic<uint8_t>, kLevelCount / 8> m_bytes;
};

// The level table behind MasterLogger, which checks the arguments: every `level` here is below
// LevelMask::kLevelCount. Read without locks on any thread; changed by one thread at a time.
class LevelTable {
public:
    // The rows are static, so all objects share one table. At start the five predefined levels have their values; all
    // others are not registered and zero-filled.
    constexpr LevelTable() = default;

    bool isRegistered(uint32_t level) const;

    // How many levels are registered; 5 at start.
    uint32_t count() const;

    // A copy of the row; zero-filled name and colour while the level is not registered.
    LevelEntry entry(uint32_t level) const;

    // Registers the level under this name and sets its implementation bits. The level must not be registered yet:
    // readers hold no lock, so a published name never changes. `name` has at most 15 characters, `colour` at most 5.
    void define(uint32_t level, std::string_view name, std::string_view colour, uint8_t implementationBits);

    // Clears the Enabled flag until one of the next two is called.
    void disable(uint32_t level);

    // Replace the settable part of the flags (console, observers, history) or the implementation bits; the derived
    // flags follow.
    void setFlags(uint32_t level, uint8_t flags);
    void setImplementationBits(uint32_t level, uint8_t implementationBits);

    // Bits 0 and 1 derived from the others: implementation bits, observers or history enable the level and route it
    // to the implementation step; the console bit alone only enables it.
    static constexpr uint8_t effectiveFlags(uint8_t flags, uint8_t implementationBits) {
        const auto kept =
            static_cast<uint8_t>(flags & (LevelEntry::Console | LevelEntry::Observers | LevelEntry::History));
        if (implementationBits != 0 || (kept & (LevelEntry::Observers | LevelEntry::History)) != 0)
            return kept | LevelEntry::Enabled | LevelEntry::ToImplementation;
        if (kept != 0) return kept | LevelEntry::Enabled;
        return kept;
    }

private:
    struct Row {
        constexpr Row() = default;
        constexpr Row(std::string_view levelName, std::string_view levelColour, uint8_t setFlags, uint8_t bits)
            : registered(true), flags(effectiveFlags(setFlags, bits)), implementationBits(bits) {
            for (size_t i = 0; i < levelName.size(); ++i) name[i] = levelName[i];
            for (size_t i = 0; i < levelColour.size(); ++i) colour[i] = levelColour[i];
        }
        // Published last, so that a reader who sees it sees the name as well.
        std::atomic<bool> registered{false};
        char name[sizeof(LevelEntry::name)] = {};
        char colour[sizeof(LevelEntry::colour)] = {};
        std::atomic<uint8_t> flags{0};
        std::atomic<uint8_t> implementationBits{0};
    };
    static constexpr uint32_t kPredefinedCount = LogLevel::Norm + 1;

    Row& row(uint32_t level);
    const Row& row(uint32_t level) const;

    // Only the predefined rows hold anything in the executable's file; the other thousand cost it nothing.
    static std::array<Row, kPredefinedCount> g_predefined;
    static std::array<Row, LevelMask::kLevelCount - kPredefinedCount> g_others;
    static std::atomic<uint32_t> g_count;
};

} // namespace NS_CORE

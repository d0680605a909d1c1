#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "core/core_varargs.h"

namespace NS_CORE {

// The predefined levels. Others, up to kLevelCount, may be registered by number.
namespace LogLevel {
inline constexpr uint32_t Log2String = 0; // "LOG2STRING": feeds the calling process's captures, never filtered
inline constexpr uint32_t Crit = 1;
inline constexpr uint32_t Warn = 2;
inline constexpr uint32_t Info = 3;
inline constexpr uint32_t Norm = 4; // off at start
} // namespace LogLevel

// One row of the level table.
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

// Where the records of the levels that have implementation bits go. Served under the logger's lock, one call at a
// time, on the logging thread: an implementation must not wait for another thread that may log. What it logs
// itself goes to standard error instead of to itself.
class LogImpl {
public:
    virtual ~LogImpl() = default;
    // text  the composed record, `textLength` bytes, valid during the call only.
    virtual void log(uint32_t level, uint32_t threadNumber, const LevelEntry& levelEntry, uint8_t implementationBits,
                     const char* text, size_t textLength) = 0;
};

// The calling side of the level mask: constant-initialised, read without a lock by every call site.
class LevelMask {
public:
    static constexpr uint32_t kLevelCount = 1024;

    // One load, one branch when `level` is a constant.
    bool isOn(uint32_t level) const {
        return level == 0 || (level < kLevelCount && (m_bytes[level / 8].load(std::memory_order_relaxed) >> (level % 8) & 1) != 0);
    }

private:
    friend class MasterLogger;
    std::array<std::atomic<uint8_t>, kLevelCount / 8> m_bytes;
};

// (interface in the brief; its owner completes this header)
class MasterLogger {
public:
    static bool isOn(uint32_t level);

    template <class... Args>
    static void log(uint32_t level, std::string_view function, const char* format, const Args&... args);

    // A finished text, without a function name.
    static void logText(uint32_t level, std::string_view text);

    // A location record: "Log at %s:%d (%s) - %s"; `function` and `message` may be empty.
    static void logAt(uint32_t level, std::string_view file, int32_t line, std::string_view function = {}, std::string_view message = {});

    // The logger owns it from then on; the one before is destroyed.
    static void setImplementation(std::unique_ptr<LogImpl> implementation);
};

} // namespace NS_CORE

// MLOG(Warn, "UTL::Service::run", "failed to install service '%s' running '%s'", name, path): logs when the level is
// on, and evaluates nothing otherwise. The function name is given as published, not taken from the compiler.
#define MLOG(level, function, ...)                                                                                     \
    do {                                                                                                               \
        if (::NS_CORE::MasterLogger::isOn(::NS_CORE::LogLevel::level))                                                 \
            ::NS_CORE::MasterLogger::log(::NS_CORE::LogLevel::level, function, __VA_ARGS__);                           \
    } while (false)

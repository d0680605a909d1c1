#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <utility>

namespace NS_CORE {

// How often one and the same text may be logged: the period in seconds. Any number of seconds is a rate, such as
// LogRate{600}. None does not limit.
enum class LogRate : uint32_t { None = 0, Minutely = 60, Hourly = 3600, Daily = 24 * 3600 };

// Decides what becomes of rate-limited log calls (MasterLogger::logLimited). The logger calls it under a
// lock of its own, one call at a time, on the logging thread.
//
// An implementation hands the records that it lets through to `output`. It may also log records of its own, which are
// not limited. The logger logs both only after it has released the lock, so a fault in the implementation loses them.
// The implementation must not wait for another thread that may log.
class LogRImpl {
public:
    using Output = std::function<void(uint32_t level, std::string_view text)>;

    virtual ~LogRImpl() = default;

    // `rate` is not None and `level` is not 0. `text` is the composed record, valid during the call only.
    virtual void log(LogRate rate, uint32_t level, std::string_view text, const Output& output) = 0;

    // The last call before the logger destroys it: the place to report what was held back.
    virtual void finish(const Output& /*output*/) {}
};

// Collapses repetitions. It lets a new text through at once and begins a period. While the period lasts, it only counts
// further calls with the same level and text. The first call after the period begins the next one. If any were held
// back, that call comes out as "text [N times in S seconds]", where N counts it and those held back, and S is the time
// since the period began; otherwise it comes out unchanged. If the text does not come again, its count is reported in
// the same form at a later call, when its memory is needed, or at finish(). So every call is reported exactly once.
// kMaxTexts and kMaxBytes bound the memory.
class DefaultLogRImpl : public LogRImpl {
public:
    static constexpr size_t kMaxTexts = 256;
    static constexpr size_t kMaxBytes = 256 * 1024;

    // Milliseconds on a clock that never goes back.
    using Clock = std::function<uint64_t()>;

    // On the process's monotonic clock.
    DefaultLogRImpl();
    explicit DefaultLogRImpl(Clock clock);
    DefaultLogRImpl(const DefaultLogRImpl&) = delete;
    DefaultLogRImpl& operator=(const DefaultLogRImpl&) = delete;
    ~DefaultLogRImpl() override = default;

    void log(LogRate rate, uint32_t level, std::string_view text, const Output& output) override;
    void finish(const Output& output) override;

private:
    using Key = std::pair<uint32_t, std::string>; // level, text
    struct Period {
        uint64_t beginMs;
        uint64_t endMs;
        int32_t heldBack;
    };
    // A hash container would bring the C++ library's streams and locales into every unit that logs, and with them
    // a quarter of a megabyte into the exe, for a few hundred texts at the most.
    using Periods = std::map<Key, Period>;

    void reportEnded(uint64_t nowMs, const Output& output);
    void makeRoom(size_t textLength, uint64_t nowMs, const Output& output);
    void drop(Periods::iterator at, uint64_t nowMs, const Output& output);
    static void report(const Key& key, int32_t times, uint64_t beginMs, uint64_t nowMs, const Output& output);

    Clock m_clock;
    Periods m_periods;
    size_t m_bytes = 0;                 // of all texts in m_periods
    uint64_t m_firstEndMs = UINT64_MAX; // no period ends before
};

} // namespace NS_CORE

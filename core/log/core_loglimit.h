#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <utility>

namespace NS_CORE {

// How often one and the same text may be logged: the period in seconds. None does not limit.
enum class LogRate : uint32_t { None = 0, Hourly = 3600 };

// Serves rate-limited log calls (MasterLogger::logLimited). Called under the logger's second lock, one call at a time,
// on the logging thread; what it lets through it logs with MasterLogger::logText.
class LogRImpl {
public:
    virtual ~LogRImpl() = default;
    // rate is not None and level not 0; `text` is the composed record, valid during the call only.
    virtual void log(LogRate rate, uint32_t level, std::string_view text) = 0;
};

// Collapses repetitions. A text is logged at once when it is new; while its period lasts, further ones of the same
// level and text are only counted. The first after the period is logged as "text [N times in S seconds]", where N
// counts it and all that were held back and S is the time since the period began; with it the next period begins.
// Counts of texts that do not come again are reported the same way with any later call, when their place is needed, or
// when the object ends. So each call is told of exactly once. Memory is bounded by kMaxTexts and kMaxBytes.
class DefaultLogRImpl : public LogRImpl {
public:
    static constexpr size_t kMaxTexts = 256;
    static constexpr size_t kMaxBytes = 256 * 1024;

    // Milliseconds on a clock that never goes back.
    using Clock = std::function<uint64_t()>;

    // On the process's monotonic clock.
    DefaultLogRImpl();
    explicit DefaultLogRImpl(Clock clock);
    ~DefaultLogRImpl() override;
    DefaultLogRImpl(const DefaultLogRImpl&) = delete;
    DefaultLogRImpl& operator=(const DefaultLogRImpl&) = delete;

    void log(LogRate rate, uint32_t level, std::string_view text) override;

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

    void reportEnded(uint64_t nowMs);
    void makeRoom(size_t textLength, uint64_t nowMs);
    void drop(Periods::iterator at, uint64_t nowMs);
    static void report(const Key& key, int32_t times, uint64_t beginMs, uint64_t nowMs);

    Clock m_clock;
    Periods m_periods;
    size_t m_bytes = 0;                 // of all texts in m_periods
    uint64_t m_firstEndMs = UINT64_MAX; // no period ends before
};

} // namespace NS_CORE

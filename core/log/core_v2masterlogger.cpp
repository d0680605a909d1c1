#include "core/log/core_v2masterlogger.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <utility>

#include "absl/base/thread_annotations.h"
#include "absl/synchronization/mutex.h"
#include "core/memory/core_neverdestroyed.h"
#include "core/memory/core_threadword.h"
#include "core/text/core_checkf.h"
#include "core/time/core_time.h"

namespace NS_CORE {
namespace {

// Everything that the logger shares between threads. Constant-initialised and never destroyed: static initialisers
// and destructors of other units log.
struct State {
    // The first lock: held while implementation, observers and history are served.
    absl::Mutex mutex{absl::kConstInit};
    std::unique_ptr<LogImpl> implementation ABSL_GUARDED_BY(mutex);
    std::vector<std::unique_ptr<LogObserver>> observers ABSL_GUARDED_BY(mutex);
    // A ring once it is full: the oldest record is then at oldestRecord.
    std::vector<HistoryRecord> history ABSL_GUARDED_BY(mutex);
    size_t oldestRecord ABSL_GUARDED_BY(mutex) = 0;
    std::atomic<bool> settingImplementation{false};

    // The second lock: held while the rate limit is served. A thread that holds the first may take it, because what is
    // let through is logged only after its release.
    absl::Mutex rateMutex ABSL_ACQUIRED_AFTER(mutex){absl::kConstInit};
    // If it is null, the next limited call makes a DefaultLogRImpl.
    std::unique_ptr<LogRImpl> rateImplementation ABSL_GUARDED_BY(rateMutex);
    // What was let through or logged under this lock.
    std::vector<std::pair<uint32_t, std::string>> waiting ABSL_GUARDED_BY(rateMutex);

    // Held for a copy of the pointer only.
    absl::Mutex globalObserverMutex{absl::kConstInit};
    std::shared_ptr<GlobalLogObserver> globalObserver ABSL_GUARDED_BY(globalObserverMutex);
    std::atomic<bool> hasGlobalObserver{false};

    std::atomic<uint32_t> nextThreadNumber{0};
};

constinit NeverDestroyed<State> g_state;

// What the logger knows of a thread: flags in the low bits, the thread's number above them.
enum ThreadFlag : uintptr_t {
    Numbered = 1 << 0,
    InsideImplLog = 1 << 1,
    InsideGlobalObserver = 1 << 2,
    InsideRateLimit = 1 << 3,
};
constexpr unsigned kNumberShift = 4;

constinit ThreadWord g_thread;

bool isInside(ThreadFlag flag) {
    return (g_thread.get() & flag) != 0;
}

// Sets a thread's flag for a scope.
class Inside {
public:
    explicit Inside(ThreadFlag flag) : m_flag(flag) { g_thread.set(g_thread.get() | m_flag); }
    ~Inside() { g_thread.set(g_thread.get() & ~m_flag); }
    Inside(const Inside&) = delete;
    Inside& operator=(const Inside&) = delete;

private:
    uintptr_t m_flag;
};

// In one call, so that the lines of several threads do not mix; flushed, so that they outlive a crash.
void print(std::FILE* stream, const std::string& text) {
    std::fwrite(text.data(), 1, text.size(), stream);
    std::fflush(stream);
}

// An internal error of the logger. Its number is published and stays.
void printInternalError(int32_t number, std::string_view detail) {
    print(stdout, formatString("\nERROR in core_v2masterlogger:%d%s\n", number, detail));
}

std::string consoleLine(const LevelEntry& entry, std::string_view text) {
    const uint32_t number = MasterLogger::threadNumber();
    if (number == 0) return formatString("[%s] %s\n", entry.name, text);
    return formatString("[%s] {%u} %s\n", entry.name, number, text);
}

// The text that is printed for a record that the logger refuses.
std::string refusedRecord(std::string_view head, const LevelEntry& entry, std::string_view text) {
    return formatString("%s  <[%s] {%u} %s>\n", head, entry.name, MasterLogger::threadNumber(), text);
}

void keepInHistory(State& state, HistoryRecord record) ABSL_EXCLUSIVE_LOCKS_REQUIRED(state.mutex) {
    if (state.history.size() < MasterLogger::kHistoryCapacity) {
        state.history.push_back(std::move(record));
        return;
    }
    state.history[state.oldestRecord] = std::move(record);
    state.oldestRecord = (state.oldestRecord + 1) % MasterLogger::kHistoryCapacity;
}

void notifyGlobalObserver(uint32_t level, const LevelEntry& entry, std::string_view text) {
    State& state = *g_state;
    if (!state.hasGlobalObserver.load(std::memory_order_relaxed) || isInside(InsideGlobalObserver)) return;
    std::shared_ptr<GlobalLogObserver> observer;
    {
        const absl::MutexLock lock(&state.globalObserverMutex);
        observer = state.globalObserver;
    }
    if (!observer) return;
    const Inside inside(InsideGlobalObserver);
    observer->notify(level, MasterLogger::threadNumber(), entry, entry.implementationBits, text.data(), text.size());
}

void implLog(uint32_t level, const LevelEntry& entry, std::string_view text) {
    State& state = *g_state;
    if (isInside(InsideImplLog)) {
        print(stderr, refusedRecord("MasterLogger:implLog - called recursively!\n", entry, text));
        return;
    }
    if (state.settingImplementation.load()) {
        print(stdout, refusedRecord("MasterLogger:implLog - log while setting impl\n", entry, text));
        return;
    }
    const uint32_t number = MasterLogger::threadNumber();
    const Inside inside(InsideImplLog);
    // One hold of the lock for all three, so that they see the records in the same order.
    const absl::MutexLock lock(&state.mutex);
    if (entry.implementationBits != 0 && state.implementation) {
        state.implementation->log(level, number, entry, entry.implementationBits, text.data(), text.size());
    }
    if ((entry.flags & LevelEntry::Observers) != 0) {
        for (const std::unique_ptr<LogObserver>& observer : state.observers) {
            if (observer->accepts(level))
                observer->deliver(level, number, entry, entry.implementationBits, text.data(), text.size());
        }
    }
    if ((entry.flags & LevelEntry::History) != 0) {
        keepInHistory(state, {systemNow().seconds, entry.name, std::string(text)});
    }
}

// False on a thread that already holds the first lock and would wait for itself, and on one that holds the rate
// limit's, because the first must be taken before it.
bool mayTakeLock() {
    return CHECKF(!isInside(InsideImplLog) && !isInside(InsideRateLimit), "logger changed while it serves a record");
}

// Keeps a record until its thread releases the lock of the rate limit.
void logLater(uint32_t level, std::string_view text) {
    g_state->rateMutex.AssertHeld();
    g_state->waiting.emplace_back(level, text);
}

// Calls `action` with the rate limit's implementation under its lock, and logs what was to be logged meanwhile after
// its release.
template <class Action>
void serveRateLimit(Action&& action) {
    std::vector<std::pair<uint32_t, std::string>> records;
    {
        const Inside inside(InsideRateLimit);
        const absl::MutexLock lock(&g_state->rateMutex);
        action(g_state->rateImplementation, LogRImpl::Output(&logLater));
        records.swap(g_state->waiting);
    }
    for (const auto& [level, text] : records) MasterLogger::logText(level, text);
}

// For programs without Globals of their own. Made during static initialisation, whose thread becomes the main one, and
// destroyed during static destruction.
const DefaultGlobals g_processGlobals;

} // namespace

void DefaultLogImpl::log(uint32_t /*level*/, uint32_t /*threadNumber*/, const LevelEntry& /*levelEntry*/,
                         uint8_t /*implementationBits*/, const char* /*text*/, size_t /*textLength*/) {}

void LogObserver::deliver(uint32_t level, uint32_t threadNumber, const LevelEntry& levelEntry,
                          uint8_t implementationBits, const char* text, size_t textLength) {
    if (m_inside) {
        printInternalError(830, " - observer is inside its own call");
        return;
    }
    m_inside = true;
    notify(level, threadNumber, levelEntry, implementationBits, text, textLength);
    m_inside = false;
}

void MasterLogger::logText(uint32_t level, std::string_view text) {
    if (isOn(level)) output(level, text);
}

void MasterLogger::logAt(uint32_t level, std::string_view file, int32_t line, std::string_view function,
                         std::string_view message) {
    if (!isOn(level)) return;
    if (!function.empty() && !message.empty())
        output(level, formatString("Log at %s:%d (%s) - %s", file, line, function, message));
    else if (!function.empty())
        output(level, formatString("Log at %s:%d (%s)", file, line, function));
    else if (!message.empty())
        output(level, formatString("Log at %s:%d - %s", file, line, message));
    else
        output(level, formatString("Log at %s:%d", file, line));
}

std::string MasterLogger::compose(std::string_view function, const char* format, varargs::Argument* args,
                                  size_t count) {
    constexpr std::string_view kBetween = " - ";
    std::string text;
    // With the message's own reservation, so that the record is one allocation.
    text.reserve(function.size() + kBetween.size() + varargs::reservation(format, args, count));
    text += function;
    text += kBetween;
    varargs::formatPackInto(text, format, args, count);
    const size_t start = function.size() + kBetween.size();
    const bool joinsDirectly =
        text.size() == start || std::string_view("(:-").find(text[start]) != std::string_view::npos;
    if (joinsDirectly) text.erase(function.size(), kBetween.size());
    return text;
}

void MasterLogger::output(uint32_t level, std::string_view text) {
    if (level == LogLevel::Log2String) {
        LogCapture::append(text);
        return;
    }
    if (!g_levels.isRegistered(level)) {
        printInternalError(394, formatString("[%u??] %s", level, text));
        return;
    }
    if (isInside(InsideRateLimit)) {
        logLater(level, text);
        return;
    }
    const LevelEntry entry = g_levels.entry(level);
    if ((entry.flags & LevelEntry::Console) != 0) print(stdout, consoleLine(entry, text));
    notifyGlobalObserver(level, entry, text);
    if ((entry.flags & LevelEntry::ToImplementation) != 0) implLog(level, entry, text);
}

void MasterLogger::outputLimited(LogRate rate, uint32_t level, std::string_view text) {
    if (rate == LogRate::None || level == LogLevel::Log2String || isInside(InsideRateLimit)) {
        output(level, text);
        return;
    }
    serveRateLimit([&](std::unique_ptr<LogRImpl>& implementation, const LogRImpl::Output& output) {
        if (!implementation) implementation = std::make_unique<DefaultLogRImpl>();
        implementation->log(rate, level, text, output);
    });
}

void MasterLogger::setImplementation(std::unique_ptr<LogImpl> implementation) {
    if (!mayTakeLock()) return;
    const absl::MutexLock lock(&g_state->mutex);
    g_state->settingImplementation = true;
    g_state->implementation = std::move(implementation);
    g_state->settingImplementation = false;
}

void MasterLogger::setRateImplementation(std::unique_ptr<LogRImpl> implementation) {
    if (!mayTakeLock()) return;
    serveRateLimit([&](std::unique_ptr<LogRImpl>& installed, const LogRImpl::Output& output) {
        implementation.swap(installed);
        if (implementation) implementation->finish(output);
    });
}

void MasterLogger::setGlobalObserver(std::unique_ptr<GlobalLogObserver> observer) {
    // Destroyed outside of the lock.
    std::shared_ptr<GlobalLogObserver> previous = std::move(observer);
    const absl::MutexLock lock(&g_state->globalObserverMutex);
    g_state->hasGlobalObserver = previous != nullptr;
    previous.swap(g_state->globalObserver);
}

LogObserver* MasterLogger::addObserver(std::unique_ptr<LogObserver> observer) {
    if (!mayTakeLock()) return nullptr;
    const absl::MutexLock lock(&g_state->mutex);
    return g_state->observers.emplace_back(std::move(observer)).get();
}

void MasterLogger::removeObserver(const LogObserver* observer) {
    if (!mayTakeLock()) return;
    const absl::MutexLock lock(&g_state->mutex);
    std::erase_if(g_state->observers, [&](const auto& installed) { return installed.get() == observer; });
}

bool MasterLogger::mayChangeLevel(uint32_t level) {
    if (threadNumber() != 0) {
        printInternalError(654, " - log levels change on the main thread only");
        return false;
    }
    if (level == LogLevel::Log2String || level >= LevelMask::kLevelCount) {
        printInternalError(660, formatString(" - no log level %u", level));
        return false;
    }
    return true;
}

bool MasterLogger::updateMask(uint32_t level) {
    const bool isOn = (g_levels.entry(level).flags & LevelEntry::Enabled) != 0;
    g_mask.set(level, isOn);
    return isOn;
}

bool MasterLogger::registerLevel(uint32_t level, std::string_view name, std::string_view colour,
                                 uint8_t implementationBits) {
    if (!mayChangeLevel(level)) return false;
    if (!CHECKF_AT("core_v2masterlogger", 47, name.size() < sizeof(LevelEntry::name), "%s", name)) return false;
    if (!CHECKF(colour.size() < sizeof(LevelEntry::colour), "%s", colour)) return false;
    if (g_levels.isRegistered(level)) return false;
    g_levels.define(level, name, colour, implementationBits);
    updateMask(level);
    return true;
}

bool MasterLogger::setLevelOn(uint32_t level, bool on) {
    if (!mayChangeLevel(level)) return false;
    if (on)
        g_levels.setFlags(level, g_levels.entry(level).flags);
    else
        g_levels.disable(level);
    return updateMask(level) == on;
}

bool MasterLogger::setLevelFlag(uint32_t level, LevelEntry::Flag flag, bool set) {
    if (!mayChangeLevel(level)) return false;
    const uint8_t flags = g_levels.entry(level).flags;
    return setLevelFlags(level, static_cast<uint8_t>(set ? flags | flag : flags & ~flag));
}

bool MasterLogger::setLevelFlags(uint32_t level, uint8_t flags) {
    if (!mayChangeLevel(level)) return false;
    g_levels.setFlags(level, flags);
    updateMask(level);
    return true;
}

bool MasterLogger::setLevelImplementationBits(uint32_t level, uint8_t implementationBits) {
    if (!mayChangeLevel(level)) return false;
    g_levels.setImplementationBits(level, implementationBits);
    updateMask(level);
    return true;
}

LevelEntry MasterLogger::levelEntry(uint32_t level) {
    return g_levels.entry(level);
}

uint32_t MasterLogger::levelCount() {
    return g_levels.count();
}

std::vector<HistoryRecord> MasterLogger::history() {
    if (!mayTakeLock()) return {};
    const absl::MutexLock lock(&g_state->mutex);
    std::vector<HistoryRecord> records = g_state->history;
    std::rotate(records.begin(), records.begin() + static_cast<std::ptrdiff_t>(g_state->oldestRecord), records.end());
    return records;
}

uint32_t MasterLogger::threadNumber() {
    const uintptr_t known = g_thread.get();
    if ((known & Numbered) != 0) return static_cast<uint32_t>(known >> kNumberShift);
    // The first thread to come is the main one: static initialisation precedes every other thread.
    const uint32_t number = g_state->nextThreadNumber.fetch_add(1);
    g_thread.set(uintptr_t{number} << kNumberShift | known | Numbered);
    return number;
}

Globals::Globals(std::unique_ptr<LogImpl> implementation, std::unique_ptr<LogRImpl> rateImplementation) {
    static_cast<void>(MasterLogger::threadNumber());
    MasterLogger::setImplementation(std::move(implementation));
    MasterLogger::setRateImplementation(std::move(rateImplementation));
}

Globals::~Globals() {
    Assert::setFailureHandler();
    // A process that ends in the middle of a record (exit in an implementation) never releases the locks.
    if (isInside(InsideImplLog) || isInside(InsideRateLimit)) return;
    MasterLogger::setRateImplementation(nullptr);
    MasterLogger::setGlobalObserver(nullptr);
    MasterLogger::setImplementation(nullptr);
    const absl::MutexLock lock(&g_state->mutex);
    g_state->observers.clear();
    g_state->history.clear();
    g_state->oldestRecord = 0;
}

DefaultGlobals::DefaultGlobals() : Globals(std::make_unique<DefaultLogImpl>(), std::make_unique<DefaultLogRImpl>()) {}

} // namespace NS_CORE

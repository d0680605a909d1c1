#include "core/log/core_v2masterlogger.h"

#include <algorithm>
#include <atomic>
#include <cstdio>

#include "absl/base/thread_annotations.h"
#include "absl/synchronization/mutex.h"
#include "core/memory/core_neverdestroyed.h"
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
    std::vector<LogObserver*> observers ABSL_GUARDED_BY(mutex);
    // A ring once it is full: the oldest record is then at oldestRecord.
    std::vector<HistoryRecord> history ABSL_GUARDED_BY(mutex);
    size_t oldestRecord ABSL_GUARDED_BY(mutex) = 0;
    std::atomic<bool> settingImplementation{false};

    // The second lock: held while the rate limit is served, which logs and so takes the first.
    absl::Mutex rateMutex ABSL_ACQUIRED_BEFORE(mutex){absl::kConstInit};
    std::unique_ptr<LogRImpl> rateImplementation ABSL_GUARDED_BY(rateMutex);

    // Held for a copy of the pointer only.
    absl::Mutex globalObserverMutex{absl::kConstInit};
    std::shared_ptr<GlobalLogObserver> globalObserver ABSL_GUARDED_BY(globalObserverMutex);
    std::atomic<bool> hasGlobalObserver{false};

    std::atomic<bool> mainThreadKnown{false};
    std::atomic<uint32_t> nextThreadNumber{1};
};

constinit NeverDestroyed<State> g_state;

// What the logger knows of a thread. Trivial, so that it needs neither construction nor destruction and serves
// thread-local destructors too.
struct ThreadHandle {
    uint32_t number;
    bool isNumbered;
    bool insideImplLog;
    bool insideGlobalObserver;
    bool insideRateLimit;
};

constinit thread_local ThreadHandle g_thread{};

// The first thread to come is the main one: static initialisation comes before any other thread, and numbers itself
// below at the latest.
ThreadHandle& thisThread() {
    ThreadHandle& thread = g_thread;
    if (!thread.isNumbered) {
        thread.number = g_state->mainThreadKnown.exchange(true) ? g_state->nextThreadNumber.fetch_add(1) : 0;
        thread.isNumbered = true;
    }
    return thread;
}

// Sets a thread's flag for a scope.
class Inside {
public:
    explicit Inside(bool& flag) : m_flag(flag) { m_flag = true; }
    ~Inside() { m_flag = false; }
    Inside(const Inside&) = delete;
    Inside& operator=(const Inside&) = delete;

private:
    bool& m_flag;
};

// In one call, so that the lines of several threads do not mix; flushed, so that they outlive a crash.
void print(std::FILE* stream, const std::string& text) {
    std::fwrite(text.data(), 1, text.size(), stream);
    std::fflush(stream);
}

// An inner fault of the logger. Its number is published and stays.
void printInternalError(int32_t number, std::string_view detail) {
    print(stdout, formatString("\nERROR in core_v2masterlogger:%d%s\n", number, detail));
}

std::string consoleLine(const ThreadHandle& thread, const LevelEntry& entry, std::string_view text) {
    if (thread.number == 0) return formatString("[%s] %s\n", entry.name, text);
    return formatString("[%s] {%u} %s\n", entry.name, thread.number, text);
}

// A record that cannot be served where it was made.
std::string refusedRecord(std::string_view head, const ThreadHandle& thread, const LevelEntry& entry,
                          std::string_view text) {
    return formatString("%s  <[%s] {%u} %s>\n", head, entry.name, thread.number, text);
}

void keepInHistory(State& state, HistoryRecord record) ABSL_EXCLUSIVE_LOCKS_REQUIRED(state.mutex) {
    if (state.history.size() < MasterLogger::kHistoryCapacity) {
        state.history.push_back(std::move(record));
        return;
    }
    state.history[state.oldestRecord] = std::move(record);
    state.oldestRecord = (state.oldestRecord + 1) % MasterLogger::kHistoryCapacity;
}

void notifyGlobalObserver(ThreadHandle& thread, uint32_t level, const LevelEntry& entry, std::string_view text) {
    State& state = *g_state;
    if (thread.insideGlobalObserver || !state.hasGlobalObserver.load(std::memory_order_relaxed)) return;
    std::shared_ptr<GlobalLogObserver> observer;
    {
        const absl::MutexLock lock(&state.globalObserverMutex);
        observer = state.globalObserver;
    }
    if (!observer) return;
    const Inside inside(thread.insideGlobalObserver);
    observer->notify(level, thread.number, entry, entry.implementationBits, text.data(), text.size());
}

void implLog(ThreadHandle& thread, uint32_t level, const LevelEntry& entry, std::string_view text) {
    State& state = *g_state;
    if (thread.insideImplLog) {
        print(stderr, refusedRecord("MasterLogger:implLog - called recursively!\n", thread, entry, text));
        return;
    }
    if (state.settingImplementation.load()) {
        print(stdout, refusedRecord("MasterLogger:implLog - log while setting impl\n", thread, entry, text));
        return;
    }
    const Inside inside(thread.insideImplLog);
    // One hold of the lock for all three, so that they see the records in the same order.
    const absl::MutexLock lock(&state.mutex);
    if (entry.implementationBits != 0 && state.implementation) {
        state.implementation->log(level, thread.number, entry, entry.implementationBits, text.data(), text.size());
    }
    if ((entry.flags & LevelEntry::Observers) != 0) {
        for (LogObserver* observer : state.observers) {
            if (observer->accepts(level)) observer->deliver(level, thread.number, entry, text);
        }
    }
    if ((entry.flags & LevelEntry::History) != 0) {
        keepInHistory(state, {systemNow().seconds, entry.name, std::string(text)});
    }
}

// False on a thread that holds the logger's lock already and would wait for itself.
bool mayTakeLock() {
    return CHECKF(!thisThread().insideImplLog, "logger changed while it serves a record");
}

// Marks the thread of static initialisation as the main one, and winds the logger up when static destruction reaches
// this unit, for programs that have no Globals of their own.
class ProcessLife {
public:
    ProcessLife() { thisThread(); }
    ProcessLife(const ProcessLife&) = delete;
    ProcessLife& operator=(const ProcessLife&) = delete;
    ~ProcessLife();
};

const ProcessLife g_processLife;

// What ends a program's use of the logger, however often it is done.
void windUp() {
    Assert::setFailureHandler();
    const ThreadHandle& thread = thisThread();
    // A process that ends from inside a record holds the locks, and keeps what they guard.
    if (thread.insideImplLog || thread.insideRateLimit) return;
    MasterLogger::setRateImplementation(nullptr);
    MasterLogger::setGlobalObserver(nullptr);
    MasterLogger::setImplementation(nullptr);
    const absl::MutexLock lock(&g_state->mutex);
    g_state->observers.clear();
    g_state->history.clear();
    g_state->oldestRecord = 0;
}

ProcessLife::~ProcessLife() {
    windUp();
}

} // namespace

void DefaultLogImpl::log(uint32_t /*level*/, uint32_t /*threadNumber*/, const LevelEntry& /*levelEntry*/,
                         uint8_t /*implementationBits*/, const char* /*text*/, size_t /*textLength*/) {}

void LogObserver::deliver(uint32_t level, uint32_t threadNumber, const LevelEntry& levelEntry, std::string_view text) {
    if (m_inside) {
        printInternalError(830, " - observer is inside its own call");
        return;
    }
    const Inside inside(m_inside);
    notify(level, threadNumber, levelEntry, text);
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
    // Room for most messages, so that the record is one allocation.
    constexpr size_t kUsualMessage = 200;
    std::string text;
    text.reserve(function.size() + kBetween.size() + kUsualMessage);
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
    const LevelEntry entry = g_levels.entry(level);
    ThreadHandle& thread = thisThread();
    if ((entry.flags & LevelEntry::Console) != 0) print(stdout, consoleLine(thread, entry, text));
    notifyGlobalObserver(thread, level, entry, text);
    if ((entry.flags & LevelEntry::ToImplementation) != 0) implLog(thread, level, entry, text);
}

void MasterLogger::outputLimited(LogRate rate, uint32_t level, std::string_view text) {
    ThreadHandle& thread = thisThread();
    // A thread that is being served holds a lock already: waiting for the second one could wait for itself, or for a
    // thread that waits for the first.
    const bool isServed = thread.insideImplLog || thread.insideRateLimit;
    if (rate == LogRate::None || level == LogLevel::Log2String || isServed) {
        output(level, text);
        return;
    }
    const Inside inside(thread.insideRateLimit);
    const absl::MutexLock lock(&g_state->rateMutex);
    if (g_state->rateImplementation)
        g_state->rateImplementation->log(rate, level, text);
    else
        output(level, text);
}

void MasterLogger::setImplementation(std::unique_ptr<LogImpl> implementation) {
    if (!mayTakeLock()) return;
    const absl::MutexLock lock(&g_state->mutex);
    g_state->settingImplementation = true;
    g_state->implementation = std::move(implementation);
    g_state->settingImplementation = false;
}

void MasterLogger::setRateImplementation(std::unique_ptr<LogRImpl> implementation) {
    ThreadHandle& thread = thisThread();
    if (!mayTakeLock() || !CHECKF(!thread.insideRateLimit, "rate limit changed while it serves a record")) return;
    // The one before may log what it held back when it ends.
    const Inside inside(thread.insideRateLimit);
    const absl::MutexLock lock(&g_state->rateMutex);
    g_state->rateImplementation = std::move(implementation);
}

void MasterLogger::setGlobalObserver(std::shared_ptr<GlobalLogObserver> observer) {
    // Destroyed outside of the lock.
    std::shared_ptr<GlobalLogObserver> previous = std::move(observer);
    const absl::MutexLock lock(&g_state->globalObserverMutex);
    g_state->hasGlobalObserver = previous != nullptr;
    previous.swap(g_state->globalObserver);
}

void MasterLogger::addObserver(LogObserver* observer) {
    if (!mayTakeLock()) return;
    const absl::MutexLock lock(&g_state->mutex);
    g_state->observers.push_back(observer);
}

void MasterLogger::removeObserver(LogObserver* observer) {
    if (!mayTakeLock()) return;
    const absl::MutexLock lock(&g_state->mutex);
    std::erase(g_state->observers, observer);
}

bool MasterLogger::mayChangeLevel(uint32_t level) {
    if (thisThread().number != 0) {
        printInternalError(654, " - log levels change on the main thread only");
        return false;
    }
    if (level == LogLevel::Log2String || level >= LevelMask::kLevelCount) {
        printInternalError(660, formatString(" - no log level %u", level));
        return false;
    }
    return true;
}

bool MasterLogger::registerLevel(uint32_t level, std::string_view name, std::string_view colour,
                                 uint8_t implementationBits) {
    if (!mayChangeLevel(level)) return false;
    if (!CHECKF_AT("core_v2masterlogger", 47, name.size() < sizeof(LevelEntry::name), "%s", name)) return false;
    if (!CHECKF(colour.size() < sizeof(LevelEntry::colour), "%s", colour)) return false;
    if (g_levels.isRegistered(level)) return false;
    g_levels.define(level, name, colour, implementationBits);
    g_mask.set(level, (g_levels.entry(level).flags & LevelEntry::Enabled) != 0);
    return true;
}

bool MasterLogger::setLevelFlags(uint32_t level, uint8_t flags) {
    if (!mayChangeLevel(level)) return false;
    g_levels.setFlags(level, flags);
    g_mask.set(level, (g_levels.entry(level).flags & LevelEntry::Enabled) != 0);
    return true;
}

bool MasterLogger::setLevelImplementationBits(uint32_t level, uint8_t implementationBits) {
    if (!mayChangeLevel(level)) return false;
    g_levels.setImplementationBits(level, implementationBits);
    g_mask.set(level, (g_levels.entry(level).flags & LevelEntry::Enabled) != 0);
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
    return thisThread().number;
}

Globals::Globals(std::unique_ptr<LogImpl> implementation, std::unique_ptr<LogRImpl> rateImplementation) {
    MasterLogger::setImplementation(std::move(implementation));
    MasterLogger::setRateImplementation(std::move(rateImplementation));
}

Globals::~Globals() {
    windUp();
}

DefaultGlobals::DefaultGlobals() : Globals(std::make_unique<DefaultLogImpl>(), std::make_unique<DefaultLogRImpl>()) {}

} // namespace NS_CORE

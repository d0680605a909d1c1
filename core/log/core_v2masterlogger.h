#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "core/log/core_logcapture.h"
#include "core/log/core_loglevels.h"
#include "core/log/core_loglimit.h"
#include "core/text/core_varargs.h"

namespace NS_CORE {

// Receives the records of the levels that have implementation bits. The logger calls it under its lock, one call at a
// time, on the logging thread: an implementation must not wait for another thread that may log. What it logs by itself
// goes to standard error, not to itself. It must not throw.
class LogImpl {
public:
    virtual ~LogImpl() = default;
    // text  the composed record, `textLength` bytes. It and the level entry are valid during the call only.
    virtual void log(uint32_t level, uint32_t threadNumber, const LevelEntry& levelEntry, uint8_t implementationBits,
                     const char* text, size_t textLength) = 0;
};

// Writes nothing.
class DefaultLogImpl : public LogImpl {
public:
    void log(uint32_t level, uint32_t threadNumber, const LevelEntry& levelEntry, uint8_t implementationBits,
             const char* text, size_t textLength) override;
};

// Sees every record of level 1 and above, before the logger routes it. Called on the logging thread without a lock, so
// on several threads at once; it does not see what it logs by itself. The parameters are those of LogImpl::log.
// It must not throw.
class GlobalLogObserver {
public:
    virtual ~GlobalLogObserver() = default;
    virtual void notify(uint32_t level, uint32_t threadNumber, const LevelEntry& levelEntry, uint8_t implementationBits,
                        const char* text, size_t textLength) = 0;
};

// Sees the records of the levels that have the Observers flag. The rules and the parameters are those of LogImpl.
class LogObserver {
public:
    virtual ~LogObserver() = default;

    // Which levels it wants.
    virtual bool accepts(uint32_t level) const = 0;

    // Calls notify(), unless the observer is inside its own notify() already, which is an internal error.
    void deliver(uint32_t level, uint32_t threadNumber, const LevelEntry& levelEntry, uint8_t implementationBits,
                 const char* text, size_t textLength);

protected:
    virtual void notify(uint32_t level, uint32_t threadNumber, const LevelEntry& levelEntry, uint8_t implementationBits,
                        const char* text, size_t textLength) = 0;

private:
    bool m_inside = false; // under the logger's lock
};

// One record of the history.
struct HistoryRecord {
    int32_t seconds; // since 1970, UTC
    std::string levelName;
    std::string text;
};

// The process's one entry for log messages. A record whose level is on goes to standard output (Console flag), to the
// global observer, to the implementation, to the observers and into the history, as its level's entry says. A record of
// level 0 goes to the captures (core_logcapture.h) only.
//
// Any thread may log, from static initialisers on and still in static destructors. Only the main thread, which is the
// one that runs static initialisation, may change the levels. An internal error of the logger appears on standard
// output as "\nERROR in core_v2masterlogger:" and a number; nothing throws.
//
// The logger owns what is installed: implementations and observers come as a unique_ptr and are destroyed when they are
// replaced or removed, or by ~Globals. An implementation or observer that is being served must not install or remove
// any but a global observer: that fails a check and changes nothing.
class MasterLogger {
public:
    static constexpr size_t kHistoryCapacity = 400;

    // Whether a record of that level is emitted at all. Call sites ask before they evaluate an argument; the MLOG forms
    // below do.
    static bool isOn(uint32_t level) { return g_mask.isOn(level); }

    // function  the calling function's published name. The record is the name alone for an empty message, the name
    //           and the message for one that begins with '(', ':' or '-', else "name - message".
    template <class... Args>
    static void log(uint32_t level, std::string_view function, const char* format, const Args&... args) {
        if (!isOn(level)) return;
        std::array<varargs::Argument, sizeof...(Args)> pack{varargs::argument(args)...};
        output(level, compose(function, format, pack.data(), pack.size()));
    }

    // The same through the rate limit, which works from the start of the process: the installed LogRImpl decides what
    // becomes of a text that repeats. Rate None and level 0 are not limited, and neither is what the LogRImpl logs
    // itself, because it would wait for its own lock.
    template <class... Args>
    static void logLimited(LogRate rate, uint32_t level, std::string_view function, const char* format,
                           const Args&... args) {
        if (!isOn(level)) return;
        std::array<varargs::Argument, sizeof...(Args)> pack{varargs::argument(args)...};
        outputLimited(rate, level, compose(function, format, pack.data(), pack.size()));
    }

    // Logs `text` as it is, without a function name.
    static void logText(uint32_t level, std::string_view text);

    // A location record: "Log at %s:%d (%s) - %s"; `function` and `message` may be empty.
    static void logAt(uint32_t level, std::string_view file, int32_t line, std::string_view function = {},
                      std::string_view message = {});

    // The previous implementation is destroyed under the logger's lock. What any thread logs meanwhile goes to standard
    // output. Null stands for a DefaultLogImpl.
    static void setImplementation(std::unique_ptr<LogImpl> implementation);

    // Replaces what limits rates; what the previous one held back is reported first. Null stands for a DefaultLogRImpl.
    static void setRateImplementation(std::unique_ptr<LogRImpl> implementation);

    // Null removes it. Another thread may still be inside the previous one when this returns; it is destroyed when that
    // thread leaves it.
    static void setGlobalObserver(std::unique_ptr<GlobalLogObserver> observer);

    // Returns the observer, which stays the logger's: the pointer only tells removeObserver() which one is meant.
    // Inside an implementation or observer it fails a check and returns null.
    static LogObserver* addObserver(std::unique_ptr<LogObserver> observer);

    // Destroys the observer; it is not called any more. Does nothing for one that is not there.
    static void removeObserver(const LogObserver* observer);

    // Names a further level and sets its implementation bits. Returns false, with the levels as they were, when the
    // name has 16 characters or more or the colour 6 or more (both fail a check), the level is registered already, or
    // the level or the thread is refused as below. A registered level keeps its name for good.
    static bool registerLevel(uint32_t level, std::string_view name, std::string_view colour,
                              uint8_t implementationBits);

    // The calls below change one level. On any thread but the main one (internal error 654), and for a level outside 1
    // to 1023 (660), they change nothing and return false.

    // Off: the level emits nothing, until it is turned on again or one of the calls below changes its entry. On: it
    // emits again as its entry says; false when the entry sends it nowhere, which leaves the level off (NORM at start).
    static bool setLevelOn(uint32_t level, bool on);

    // Sets or clears one flag: Console, Observers or History.
    static bool setLevelFlag(uint32_t level, LevelEntry::Flag flag, bool set);

    // Replaces all three flags; the others are derived.
    static bool setLevelFlags(uint32_t level, uint8_t flags);

    // Replaces the bits that route to the implementation.
    static bool setLevelImplementationBits(uint32_t level, uint8_t implementationBits);

    // `level` is below LevelMask::kLevelCount.
    static LevelEntry levelEntry(uint32_t level);

    static uint32_t levelCount();

    // The records of the levels with the History flag, oldest first, at most kHistoryCapacity.
    static std::vector<HistoryRecord> history();

    // The calling thread's log number: 0 on the main thread, counted from 1 in the order in which others first log.
    static uint32_t threadNumber();

private:
    static std::string compose(std::string_view function, const char* format, varargs::Argument* args, size_t count);
    static void output(uint32_t level, std::string_view text);
    static void outputLimited(LogRate rate, uint32_t level, std::string_view text);
    static bool mayChangeLevel(uint32_t level);
    static bool updateMask(uint32_t level);

    static constinit inline LevelMask g_mask;
    static constinit inline LevelTable g_levels;
};

// Begins and ends the use of the logger. The constructor installs what it is given. The destructor installs the quiet
// failure handler (Assert::setFailureHandler()), removes observers and history, and puts the default implementations
// back. Logging stays possible, to the console alone. If the process ends in the middle of a record, the logger's locks
// are never released, and the destructor leaves everything as it is.
//
// One object lives from static initialisation to static destruction. A program makes another one to end its own use
// earlier.
class Globals {
public:
    Globals(const Globals&) = delete;
    Globals& operator=(const Globals&) = delete;
    virtual ~Globals();

protected:
    Globals(std::unique_ptr<LogImpl> implementation, std::unique_ptr<LogRImpl> rateImplementation);
};

// With a DefaultLogImpl and a DefaultLogRImpl.
class DefaultGlobals : public Globals {
public:
    DefaultGlobals();
};

} // namespace NS_CORE

// MLOG(Warn, "UTL::Service::run", "failed to install service '%s' running '%s'", name, path): logs when the level is
// on, and evaluates nothing otherwise. The function name is given as published, not taken from the compiler.
#define MLOG(level, function, ...) MLOG_LEVEL(::NS_CORE::LogLevel::level, function, __VA_ARGS__)

// The same with the level as a number, for levels of a program's own: MLOG_LEVEL(kTraceLevel, "main", "%d", count).
#define MLOG_LEVEL(level, function, ...)                                                                              \
    do {                                                                                                              \
        const uint32_t mlogLevel = (level);                                                                           \
        if (::NS_CORE::MasterLogger::isOn(mlogLevel)) ::NS_CORE::MasterLogger::log(mlogLevel, function, __VA_ARGS__); \
    } while (false)

// The same through the rate limit: MLOG_LIMITED(LogRate::Hourly, LogLevel::Warn, "main", "'%s' is missing", name).
#define MLOG_LIMITED(rate, level, function, ...)                                         \
    do {                                                                                 \
        const uint32_t mlogLevel = (level);                                              \
        if (::NS_CORE::MasterLogger::isOn(mlogLevel))                                    \
            ::NS_CORE::MasterLogger::logLimited(rate, mlogLevel, function, __VA_ARGS__); \
    } while (false)

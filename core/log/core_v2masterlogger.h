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

// Where the records of the levels that have implementation bits go. Served under the logger's lock, one call at a
// time, on the logging thread: an implementation must not wait for another thread that may log. What it logs
// itself goes to standard error instead of to itself. It must not throw.
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

// Sees every record of level 1 and above that is logged, before it is routed. Called on the logging thread without a
// lock, so on several threads at once; what it logs itself is not shown to it. The parameters are LogImpl::log's.
// It must not throw.
class GlobalLogObserver {
public:
    virtual ~GlobalLogObserver() = default;
    virtual void notify(uint32_t level, uint32_t threadNumber, const LevelEntry& levelEntry, uint8_t implementationBits,
                        const char* text, size_t textLength) = 0;
};

// Sees the records of the levels that have the Observers flag. Served under the logger's lock, with LogImpl's rules.
class LogObserver {
public:
    virtual ~LogObserver() = default;

    // Which levels it wants.
    virtual bool accepts(uint32_t level) const = 0;

    // Calls notify(); an observer that is already inside its own notify() is skipped, which is an internal error.
    void deliver(uint32_t level, uint32_t threadNumber, const LevelEntry& levelEntry, std::string_view text);

protected:
    virtual void notify(uint32_t level, uint32_t threadNumber, const LevelEntry& levelEntry, std::string_view text) = 0;

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
// global observer, to the implementation, to the observers and into the history, as its level's entry says; one of
// level 0 goes to the captures (core_logcapture.h) only.
//
// Logging may be done from any thread, from static initialisers on and in static destructors still. The levels may
// be changed on the main thread only, which is the one that ran static initialisation. Inner faults of the logger
// are told on standard output as "\nERROR in core_v2masterlogger:" and a number; nothing is thrown.
class MasterLogger {
public:
    static constexpr size_t kHistoryCapacity = 400;

    // Whether a record of that level is emitted at all. Call sites ask before they evaluate an argument; MLOG does.
    static bool isOn(uint32_t level) { return g_mask.isOn(level); }

    // function  the calling function's published name. The record is the name alone for an empty message, the name
    //           and the message for one that begins with '(', ':' or '-', else "name - message".
    template <class... Args>
    static void log(uint32_t level, std::string_view function, const char* format, const Args&... args) {
        if (!isOn(level)) return;
        std::array<varargs::Argument, sizeof...(Args)> pack{varargs::argument(args)...};
        output(level, compose(function, format, pack.data(), pack.size()));
    }

    // The same through the rate limit: the installed LogRImpl decides what becomes of a text that repeats. With rate
    // None, at level 0, and when called while this thread's records are being served, there is no limit.
    template <class... Args>
    static void logLimited(LogRate rate, uint32_t level, std::string_view function, const char* format,
                           const Args&... args) {
        if (!isOn(level)) return;
        std::array<varargs::Argument, sizeof...(Args)> pack{varargs::argument(args)...};
        outputLimited(rate, level, compose(function, format, pack.data(), pack.size()));
    }

    // A finished text, without a function name.
    static void logText(uint32_t level, std::string_view text);

    // A location record: "Log at %s:%d (%s) - %s"; `function` and `message` may be empty.
    static void logAt(uint32_t level, std::string_view file, int32_t line, std::string_view function = {},
                      std::string_view message = {});

    // The logger owns it from then on; the one before is destroyed under the logger's lock. What is logged meanwhile,
    // on any thread, goes to standard output. Null stands for a DefaultLogImpl. Must not be called by an
    // implementation or observer that is being served.
    static void setImplementation(std::unique_ptr<LogImpl> implementation);

    // Replaces what limits rates, in the same way; null stands for no limit.
    static void setRateImplementation(std::unique_ptr<LogRImpl> implementation);

    // Null removes it. Another thread may still be inside the one before when this returns, and keeps it alive.
    static void setGlobalObserver(std::shared_ptr<GlobalLogObserver> observer);

    // Borrowed: remove it before it is destroyed; once removed, it is not called any more. Neither may be called by
    // an implementation or observer that is being served.
    static void addObserver(LogObserver* observer);
    static void removeObserver(LogObserver* observer);

    // Names a further level and gives it its bits. False, with the levels as they were, when the name has 16
    // characters or more or the colour 6 or more (both failed checks), the level is registered already, or the level
    // or the thread is refused as below. A level that is registered keeps its name for good.
    static bool registerLevel(uint32_t level, std::string_view name, std::string_view colour,
                              uint8_t implementationBits);

    // Replaces the Console, Observers and History flags of a level; the others are derived. Refused with an internal
    // error, and false, on another thread than the main one (654) and for a level outside 1 to 1023 (660).
    static bool setLevelFlags(uint32_t level, uint8_t flags);

    // Likewise for the bits that route to the implementation.
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

    static constinit inline LevelMask g_mask;
    static constinit inline LevelTable g_levels;
};

// Brackets a program's use of the logger: installs what it was given, and at its end, with static destruction still to
// come, turns failing checks quiet (Assert::setFailureHandler()), drops observers and history and takes the
// installed implementations out. Logging stays possible, to the console alone. One at a time.
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
#define MLOG(level, function, ...)                                                           \
    do {                                                                                     \
        if (::NS_CORE::MasterLogger::isOn(::NS_CORE::LogLevel::level))                       \
            ::NS_CORE::MasterLogger::log(::NS_CORE::LogLevel::level, function, __VA_ARGS__); \
    } while (false)

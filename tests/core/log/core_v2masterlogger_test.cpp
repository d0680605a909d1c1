#include "core/log/core_v2masterlogger.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "core/text/core_checkf.h"
#include "tests/support/child.h"
#include "tests/support/hook_recorder.h"
#include "tests/support/log_recorder.h"
#include "tests/support/self_process.h"
#include "tests/support/stream_capture.h"

using NS_CORE::Assert;
using NS_CORE::DefaultGlobals;
using NS_CORE::DefaultLogImpl;
using NS_CORE::DefaultLogRImpl;
using NS_CORE::GlobalLogObserver;
using NS_CORE::HistoryRecord;
using NS_CORE::LevelEntry;
using NS_CORE::LevelTable;
using NS_CORE::LogCapture;
using NS_CORE::LogImpl;
using NS_CORE::LogObserver;
using NS_CORE::LogRate;
using NS_CORE::MasterLogger;
using test::FailedCheck;
using test::HookRecorder;
using test::LogRecord;
using test::LogRecorder;
using test::Printed;
using test::printedBy;
using test::SelfProcess;

namespace LogLevel = NS_CORE::LogLevel;

namespace {

// Static initialisers of any unit may log and look at the levels, whatever the order of the units.
const std::string g_capturedByInitialiser = [] {
    const LogCapture capture;
    MasterLogger::logText(LogLevel::Log2String, "early");
    return capture.text() + (MasterLogger::isOn(LogLevel::Crit) ? " CRIT" : "");
}();
const uint32_t g_threadNumberOfInitialiser = MasterLogger::threadNumber();

void onOtherThread(const std::function<void()>& action) {
    std::thread(action).join();
}

// Calls back for every record.
class CallingLogImpl : public LogImpl {
public:
    explicit CallingLogImpl(
        std::function<void(const std::string&)> onLog, std::function<void()> onEnd = [] {})
        : m_onLog(std::move(onLog)), m_onEnd(std::move(onEnd)) {}
    ~CallingLogImpl() override { m_onEnd(); }
    void log(uint32_t /*level*/, uint32_t /*threadNumber*/, const LevelEntry& /*levelEntry*/,
             uint8_t /*implementationBits*/, const char* text, size_t textLength) override {
        m_onLog({text, textLength});
    }

private:
    std::function<void(const std::string&)> m_onLog;
    std::function<void()> m_onEnd;
};

class CallingGlobalObserver : public GlobalLogObserver {
public:
    explicit CallingGlobalObserver(std::function<void(const std::string&)> onNotify)
        : m_onNotify(std::move(onNotify)) {}
    void notify(uint32_t level, uint32_t /*threadNumber*/, const LevelEntry& levelEntry, uint8_t implementationBits,
                const char* text, size_t textLength) override {
        EXPECT_EQ(implementationBits, levelEntry.implementationBits);
        m_onNotify(std::to_string(level) + " " + levelEntry.name + " " + std::string(text, textLength));
    }

private:
    std::function<void(const std::string&)> m_onNotify;
};

class RecordingObserver : public LogObserver {
public:
    explicit RecordingObserver(uint32_t level, std::vector<std::string>* seen) : m_level(level), m_seen(seen) {}
    bool accepts(uint32_t level) const override { return level == m_level; }
    std::function<void()> onNotify = [] {};

protected:
    void notify(uint32_t /*level*/, uint32_t /*threadNumber*/, const LevelEntry& levelEntry,
                std::string_view text) override {
        m_seen->push_back(std::string("observer ") + levelEntry.name + " " + std::string(text));
        onNotify();
    }

private:
    uint32_t m_level;
    std::vector<std::string>* m_seen;
};

// Sets a level's flags for a test.
class LevelFlags {
public:
    LevelFlags(uint32_t level, uint8_t flags) : m_level(level), m_before(MasterLogger::levelEntry(level).flags) {
        EXPECT_TRUE(MasterLogger::setLevelFlags(level, flags));
    }
    ~LevelFlags() { MasterLogger::setLevelFlags(m_level, m_before); }
    LevelFlags(const LevelFlags&) = delete;
    LevelFlags& operator=(const LevelFlags&) = delete;

private:
    uint32_t m_level;
    uint8_t m_before;
};

std::string composed(const char* message) {
    LogRecorder log;
    MasterLogger::log(LogLevel::Warn, "UTL::Service::run", "%s", message);
    return log.records().at(0).text;
}

TEST(MasterLogger, WorksInStaticInitialisers) {
    EXPECT_EQ(g_capturedByInitialiser, "early CRIT");
    EXPECT_EQ(g_threadNumberOfInitialiser, 0U);
}

TEST(MasterLogger, StartsWithFiveLevels) {
    struct Row {
        const char* name;
        const char* colour;
        uint8_t flags;
        uint8_t bits;
    };
    const uint8_t routed = LevelEntry::Enabled | LevelEntry::ToImplementation;
    const Row rows[] = {{"LOG2STRING", "", 0, 0},
                        {"CRIT", "1;31", static_cast<uint8_t>(routed | LevelEntry::Console), 1},
                        {"WARN", "1;34", routed, 2},
                        {"INFO", "1", routed, 4},
                        {"NORM", "", 0, 0}};
    for (uint32_t level = 0; level < std::size(rows); ++level) {
        const LevelEntry entry = MasterLogger::levelEntry(level);
        EXPECT_STREQ(entry.name, rows[level].name);
        EXPECT_STREQ(entry.colour, rows[level].colour);
        EXPECT_EQ(entry.flags, rows[level].flags) << entry.name;
        EXPECT_EQ(entry.implementationBits, rows[level].bits) << entry.name;
    }
    EXPECT_EQ(MasterLogger::levelCount(), 5U);
    const LevelEntry unknown = MasterLogger::levelEntry(1023);
    EXPECT_STREQ(unknown.name, "");
    EXPECT_EQ(unknown.flags, 0);
}

TEST(MasterLogger, StartsWithCritWarnAndInfoOn) {
    EXPECT_TRUE(MasterLogger::isOn(0));
    EXPECT_TRUE(MasterLogger::isOn(LogLevel::Crit));
    EXPECT_TRUE(MasterLogger::isOn(LogLevel::Warn));
    EXPECT_TRUE(MasterLogger::isOn(LogLevel::Info));
    for (const uint32_t level : {4U, 5U, 8U, 9U, 1023U, 1024U, 1025U, 0xffffffffU}) {
        EXPECT_FALSE(MasterLogger::isOn(level)) << level;
    }
}

TEST(MasterLogger, DerivesEnabledAndRoutedFromTheOtherBits) {
    constexpr uint8_t console = LevelEntry::Console;
    constexpr uint8_t observers = LevelEntry::Observers;
    constexpr uint8_t history = LevelEntry::History;
    EXPECT_EQ(LevelTable::effectiveFlags(0, 0), 0);
    EXPECT_EQ(LevelTable::effectiveFlags(3, 0), 0);
    EXPECT_EQ(LevelTable::effectiveFlags(0, 0x80), 3);
    EXPECT_EQ(LevelTable::effectiveFlags(console, 0), console | 1);
    EXPECT_EQ(LevelTable::effectiveFlags(console | 2, 0), console | 1);
    EXPECT_EQ(LevelTable::effectiveFlags(console, 1), console | 3);
    EXPECT_EQ(LevelTable::effectiveFlags(observers, 0), observers | 3);
    EXPECT_EQ(LevelTable::effectiveFlags(history, 0), history | 3);
    EXPECT_EQ(LevelTable::effectiveFlags(console | observers | history, 4), 31);
    EXPECT_EQ(LevelTable::effectiveFlags(0xe0, 0), 0);
}

TEST(MasterLogger, TurnsLevelsOnAndOffThroughTheirFlags) {
    {
        const LevelFlags norm(LogLevel::Norm, LevelEntry::Console);
        EXPECT_TRUE(MasterLogger::isOn(LogLevel::Norm));
    }
    EXPECT_FALSE(MasterLogger::isOn(LogLevel::Norm));
    EXPECT_TRUE(MasterLogger::setLevelImplementationBits(LogLevel::Info, 0));
    EXPECT_FALSE(MasterLogger::isOn(LogLevel::Info));
    EXPECT_TRUE(MasterLogger::setLevelImplementationBits(LogLevel::Info, 4));
    EXPECT_TRUE(MasterLogger::isOn(LogLevel::Info));
    EXPECT_TRUE(MasterLogger::isOn(LogLevel::Warn));
}

TEST(MasterLogger, SendsNormEnabledByItsConsoleBitToTheConsoleOnly) {
    LogRecorder log;
    const LevelFlags norm(LogLevel::Norm, LevelEntry::Console);
    EXPECT_EQ(printedBy([] { MLOG(Norm, "A::b", "%d", 7); }).output, "[NORM] A::b - 7\n");
    EXPECT_TRUE(log.records().empty());
}

TEST(MasterLogger, RefusesLevelChangesOnOtherThreads) {
    const Printed printed = printedBy([] {
        onOtherThread([] {
            EXPECT_FALSE(MasterLogger::setLevelFlags(LogLevel::Norm, LevelEntry::Console));
            EXPECT_FALSE(MasterLogger::setLevelImplementationBits(LogLevel::Crit, 0));
            EXPECT_FALSE(MasterLogger::registerLevel(70, "OTHER", "", 1));
        });
    });
    const std::string one = "\nERROR in core_v2masterlogger:654 - log levels change on the main thread only\n";
    EXPECT_EQ(printed.output, one + one + one);
    EXPECT_FALSE(MasterLogger::isOn(LogLevel::Norm));
    EXPECT_TRUE(MasterLogger::isOn(LogLevel::Crit));
    EXPECT_FALSE(MasterLogger::isOn(70));
    EXPECT_EQ(MasterLogger::levelEntry(LogLevel::Norm).flags, 0);
}

TEST(MasterLogger, RefusesLevelsOutOfRange) {
    const Printed printed = printedBy([] {
        EXPECT_FALSE(MasterLogger::setLevelFlags(0, LevelEntry::Console));
        EXPECT_FALSE(MasterLogger::setLevelFlags(1024, LevelEntry::Console));
        EXPECT_FALSE(MasterLogger::registerLevel(0xffffffff, "FAR", "", 1));
    });
    EXPECT_EQ(printed.output,
              "\nERROR in core_v2masterlogger:660 - no log level 0\n"
              "\nERROR in core_v2masterlogger:660 - no log level 1024\n"
              "\nERROR in core_v2masterlogger:660 - no log level 4294967295\n");
    EXPECT_EQ(MasterLogger::levelEntry(0).flags, 0);
}

TEST(MasterLogger, RegistersFurtherLevels) {
    LogRecorder log;
    const uint32_t before = MasterLogger::levelCount();
    EXPECT_TRUE(MasterLogger::registerLevel(1023, "FIFTEEN-LETTERS", "12;34", 8));
    EXPECT_EQ(MasterLogger::levelCount(), before + 1);
    const LevelEntry entry = MasterLogger::levelEntry(1023);
    EXPECT_STREQ(entry.name, "FIFTEEN-LETTERS");
    EXPECT_STREQ(entry.colour, "12;34");
    EXPECT_EQ(entry.flags, 3);
    EXPECT_EQ(entry.implementationBits, 8);
    MasterLogger::logText(1023, "text");
    EXPECT_EQ(log.lines(), std::vector<std::string>{"FIFTEEN-LETTERS text"});
    EXPECT_FALSE(MasterLogger::registerLevel(1023, "AGAIN", "", 1));
    EXPECT_STREQ(MasterLogger::levelEntry(1023).name, "FIFTEEN-LETTERS");
}

TEST(MasterLogger, FailsACheckForALevelNameThatDoesNotFit) {
    HookRecorder hook;
    EXPECT_FALSE(MasterLogger::registerLevel(80, "SIXTEEN-LETTERS-", "", 1));
    EXPECT_EQ(hook.single(), (FailedCheck{"CHECKF", "core_v2masterlogger", 47, 0, "SIXTEEN-LETTERS-"}));
    hook.clear();
    EXPECT_FALSE(MasterLogger::registerLevel(80, "NAME", "123456", 1));
    EXPECT_EQ(hook.single().message, "123456");
    EXPECT_FALSE(MasterLogger::isOn(80));
}

TEST(MasterLogger, ReportsALevelThatIsOnButNotRegistered) {
    LogRecorder log;
    const LevelFlags flags(90, LevelEntry::Console | LevelEntry::History);
    EXPECT_EQ(printedBy([] { MasterLogger::logText(90, "lost"); }).output,
              "\nERROR in core_v2masterlogger:394[90??] lost\n");
    EXPECT_TRUE(log.records().empty());
}

TEST(MasterLogger, EvaluatesNoArgumentOfALevelThatIsOff) {
    int evaluated = 0;
    MLOG(Norm, "A::b", "%d", ++evaluated);
    EXPECT_EQ(evaluated, 0);
    LogRecorder log;
    MLOG(Warn, "A::b", "%d", ++evaluated);
    EXPECT_EQ(evaluated, 1);
    EXPECT_EQ(log.lines(), std::vector<std::string>{"WARN A::b - 1"});
}

TEST(MasterLogger, ComposesFunctionAndMessage) {
    EXPECT_EQ(composed("text"), "UTL::Service::run - text");
    EXPECT_EQ(composed(""), "UTL::Service::run");
    EXPECT_EQ(composed("(x)"), "UTL::Service::run(x)");
    EXPECT_EQ(composed(": x"), "UTL::Service::run: x");
    EXPECT_EQ(composed("-x"), "UTL::Service::run-x");
    EXPECT_EQ(composed(" (x)"), "UTL::Service::run -  (x)");
    EXPECT_EQ(composed("100% sure"), "UTL::Service::run - 100% sure");
}

TEST(MasterLogger, TakesAFinishedTextAsItIs) {
    LogRecorder log;
    MasterLogger::logText(LogLevel::Info, "50% (x)");
    MasterLogger::logText(LogLevel::Info, "");
    MasterLogger::logText(LogLevel::Info, std::string_view("a\0b", 3));
    MasterLogger::logText(LogLevel::Norm, "off");
    EXPECT_EQ(log.lines(), (std::vector<std::string>{"INFO 50% (x)", "INFO ", std::string("INFO a\0b", 8)}));
}

TEST(MasterLogger, WritesLocationRecords) {
    LogRecorder log;
    MasterLogger::logAt(LogLevel::Warn, "core_dir", 12, "CORE::Dir::x", "why");
    MasterLogger::logAt(LogLevel::Warn, "core_dir", 12, "CORE::Dir::x");
    MasterLogger::logAt(LogLevel::Warn, "core_dir", 12, "", "why");
    MasterLogger::logAt(LogLevel::Warn, "core_dir", 12);
    MasterLogger::logAt(LogLevel::Norm, "core_dir", 12);
    EXPECT_EQ(log.lines(), (std::vector<std::string>{"WARN Log at core_dir:12 (CORE::Dir::x) - why",
                                                     "WARN Log at core_dir:12 (CORE::Dir::x)",
                                                     "WARN Log at core_dir:12 - why", "WARN Log at core_dir:12"}));
}

TEST(MasterLogger, WritesCritToTheConsoleWithTheNumberOfOtherThreads) {
    LogRecorder log;
    const Printed printed = printedBy([] {
        MLOG(Crit, "A::b", "main");
        MLOG(Warn, "A::b", "not on the console");
    });
    EXPECT_EQ(printed.output, "[CRIT] A::b - main\n");
    EXPECT_EQ(printed.error, "");
    uint32_t number = 0;
    const Printed other = printedBy([&] {
        onOtherThread([&] {
            number = MasterLogger::threadNumber();
            MLOG(Crit, "A::b", "other");
        });
    });
    EXPECT_GT(number, 0U);
    EXPECT_EQ(other.output, "[CRIT] {" + std::to_string(number) + "} A::b - other\n");
    EXPECT_EQ(log.records().at(0), (LogRecord{LogLevel::Crit, 0, "A::b - main"}));
    EXPECT_EQ(log.records().at(2), (LogRecord{LogLevel::Crit, number, "A::b - other"}));
}

TEST(MasterLogger, ShowsEveryRecordToTheGlobalObserver) {
    LogRecorder log;
    const LevelFlags norm(LogLevel::Norm, LevelEntry::Console);
    std::vector<std::string> seen;
    MasterLogger::setGlobalObserver(
        std::make_shared<CallingGlobalObserver>([&](const std::string& record) { seen.push_back(record); }));
    printedBy([] {
        MLOG(Crit, "A::b", "1");
        MLOG(Norm, "A::b", "2");
        MasterLogger::logText(LogLevel::Log2String, "for captures");
    });
    MasterLogger::setGlobalObserver(nullptr);
    MLOG(Warn, "A::b", "3");
    EXPECT_EQ(seen, (std::vector<std::string>{"1 CRIT A::b - 1", "4 NORM A::b - 2"}));
}

TEST(MasterLogger, DoesNotReenterTheGlobalObserver) {
    LogRecorder log;
    int calls = 0;
    MasterLogger::setGlobalObserver(std::make_shared<CallingGlobalObserver>([&](const std::string& record) {
        ++calls;
        MLOG(Info, "A::inner", "saw %s", record);
    }));
    MLOG(Warn, "A::b", "1");
    MLOG(Warn, "A::b", "2");
    MasterLogger::setGlobalObserver(nullptr);
    EXPECT_EQ(calls, 2);
    EXPECT_EQ(log.lines(), (std::vector<std::string>{"INFO A::inner - saw 2 WARN A::b - 1", "WARN A::b - 1",
                                                     "INFO A::inner - saw 2 WARN A::b - 2", "WARN A::b - 2"}));
}

TEST(MasterLogger, KeepsAReplacedGlobalObserverWhileItIsInside) {
    bool endedInside = false;
    bool ended = false;
    {
        const auto token = std::shared_ptr<int>(new int, [&](int* value) {
            ended = true;
            delete value;
        });
        MasterLogger::setGlobalObserver(std::make_shared<CallingGlobalObserver>([&, token](const std::string&) {
            MasterLogger::setGlobalObserver(nullptr);
            endedInside = ended;
        }));
    }
    MLOG(Warn, "A::b", "1");
    EXPECT_FALSE(endedInside);
    EXPECT_TRUE(ended);
}

TEST(MasterLogger, SendsWhatAnImplementationLogsToStandardError) {
    MasterLogger::setImplementation(
        std::make_unique<CallingLogImpl>([](const std::string&) { MLOG(Warn, "A::inner", "again"); }));
    Printed printed = printedBy([] { MLOG(Info, "A::b", "1"); });
    EXPECT_EQ(printed.error, "MasterLogger:implLog - called recursively!\n  <[WARN] {0} A::inner - again>\n");
    EXPECT_EQ(printed.output, "");
    uint32_t number = 0;
    printed = printedBy([&] {
        onOtherThread([&] {
            number = MasterLogger::threadNumber();
            MLOG(Info, "A::b", "1");
        });
    });
    EXPECT_EQ(printed.error, "MasterLogger:implLog - called recursively!\n  <[WARN] {" + std::to_string(number) +
                                 "} A::inner - again>\n");
    // The guard is down again afterwards.
    LogRecorder log;
    MLOG(Info, "A::b", "2");
    EXPECT_EQ(log.lines(), std::vector<std::string>{"INFO A::b - 2"});
}

TEST(MasterLogger, SendsWhatIsLoggedWhileAnImplementationIsInstalledToStandardOutput) {
    MasterLogger::setImplementation(
        std::make_unique<CallingLogImpl>([](const std::string&) {}, [] { MLOG(Warn, "A::end", "bye"); }));
    Printed printed = printedBy([] { MasterLogger::setImplementation(nullptr); });
    EXPECT_EQ(printed.output, "MasterLogger:implLog - log while setting impl\n  <[WARN] {0} A::end - bye>\n");
    EXPECT_EQ(printed.error, "");
    // On another thread too, which must not wait for the installing one.
    MasterLogger::setImplementation(std::make_unique<CallingLogImpl>(
        [](const std::string&) {}, [] { onOtherThread([] { MLOG(Warn, "A::end", "bye"); }); }));
    printed = printedBy([] { MasterLogger::setImplementation(nullptr); });
    EXPECT_EQ(printed.output.substr(0, printed.output.find('{')),
              "MasterLogger:implLog - log while setting impl\n  <[WARN] ");
    LogRecorder log;
    MLOG(Info, "A::b", "2");
    EXPECT_EQ(log.lines(), std::vector<std::string>{"INFO A::b - 2"});
}

TEST(MasterLogger, DestroysTheImplementationItReplaces) {
    int ended = 0;
    MasterLogger::setImplementation(std::make_unique<CallingLogImpl>([](const std::string&) {}, [&] { ++ended; }));
    EXPECT_EQ(ended, 0);
    MasterLogger::setImplementation(std::make_unique<DefaultLogImpl>());
    EXPECT_EQ(ended, 1);
}

TEST(MasterLogger, RefusesToBeChangedByAnImplementationThatItServes) {
    HookRecorder hook;
    int ended = 0;
    std::vector<std::string> none;
    RecordingObserver observer(LogLevel::Warn, &none);
    MasterLogger::setImplementation(std::make_unique<CallingLogImpl>(
        [&](const std::string&) {
            MasterLogger::setImplementation(nullptr);
            MasterLogger::setRateImplementation(nullptr);
            MasterLogger::addObserver(&observer);
            MasterLogger::removeObserver(&observer);
            EXPECT_TRUE(MasterLogger::history().empty());
        },
        [&] { ++ended; }));
    MLOG(Warn, "A::b", "1");
    EXPECT_EQ(ended, 0);
    ASSERT_EQ(hook.failures().size(), 5U);
    EXPECT_EQ(hook.failures()[0].file, "core_v2masterlogger");
    EXPECT_EQ(hook.failures()[0].message, "logger changed while it serves a record");
    MasterLogger::setImplementation(nullptr);
    EXPECT_EQ(ended, 1);
}

TEST(MasterLogger, ServesImplementationThenObserversThatAcceptTheLevel) {
    std::vector<std::string> seen;
    MasterLogger::setImplementation(
        std::make_unique<CallingLogImpl>([&](const std::string& text) { seen.push_back("implementation " + text); }));
    RecordingObserver warn(LogLevel::Warn, &seen);
    RecordingObserver norm(LogLevel::Norm, &seen);
    MasterLogger::addObserver(&warn);
    MasterLogger::addObserver(&norm);
    MLOG(Warn, "A::b", "0"); // the level does not go to observers yet
    {
        const LevelFlags warnFlags(LogLevel::Warn, LevelEntry::Observers);
        const LevelFlags normFlags(LogLevel::Norm, LevelEntry::Observers);
        MLOG(Warn, "A::b", "1");
        MLOG(Norm, "A::b", "2"); // no implementation bits
        MasterLogger::removeObserver(&warn);
        MLOG(Warn, "A::b", "3");
    }
    MasterLogger::removeObserver(&norm);
    MasterLogger::setImplementation(nullptr);
    EXPECT_EQ(seen,
              (std::vector<std::string>{"implementation A::b - 0", "implementation A::b - 1", "observer WARN A::b - 1",
                                        "observer NORM A::b - 2", "implementation A::b - 3"}));
}

TEST(MasterLogger, SkipsAnObserverThatIsInsideItsOwnCall) {
    std::vector<std::string> seen;
    RecordingObserver observer(LogLevel::Warn, &seen);
    observer.onNotify = [&] { observer.deliver(LogLevel::Warn, 0, MasterLogger::levelEntry(LogLevel::Warn), "again"); };
    MasterLogger::addObserver(&observer);
    const LevelFlags flags(LogLevel::Warn, LevelEntry::Observers);
    const Printed printed = printedBy([] { MLOG(Warn, "A::b", "1"); });
    MasterLogger::removeObserver(&observer);
    EXPECT_EQ(seen, std::vector<std::string>{"observer WARN A::b - 1"});
    EXPECT_EQ(printed.output, "\nERROR in core_v2masterlogger:830 - observer is inside its own call\n");
}

TEST(MasterLogger, SendsWhatAnObserverLogsToStandardError) {
    std::vector<std::string> seen;
    RecordingObserver observer(LogLevel::Warn, &seen);
    observer.onNotify = [] { MLOG(Warn, "A::inner", "x"); };
    MasterLogger::addObserver(&observer);
    const LevelFlags flags(LogLevel::Warn, LevelEntry::Observers);
    const Printed printed = printedBy([] { MLOG(Warn, "A::b", "1"); });
    MasterLogger::removeObserver(&observer);
    EXPECT_EQ(printed.error, "MasterLogger:implLog - called recursively!\n  <[WARN] {0} A::inner - x>\n");
    EXPECT_EQ(seen.size(), 1U);
}

TEST(MasterLogger, KeepsTheLast400RecordsOfLevelsWithHistory) {
    const DefaultGlobals empty;
    const LevelFlags flags(LogLevel::Norm, LevelEntry::History);
    const auto before = std::chrono::system_clock::now().time_since_epoch() / std::chrono::seconds(1);
    MLOG(Warn, "A::b", "not kept");
    for (int i = 0; i < 400; ++i) MLOG(Norm, "A::b", "%d", i);
    std::vector<HistoryRecord> history = MasterLogger::history();
    ASSERT_EQ(history.size(), 400U);
    EXPECT_EQ(history.front().text, "A::b - 0");
    EXPECT_EQ(history.back().text, "A::b - 399");
    for (int i = 400; i < 851; ++i) MLOG(Norm, "A::b", "%d", i);
    const auto after = std::chrono::system_clock::now().time_since_epoch() / std::chrono::seconds(1);
    history = MasterLogger::history();
    ASSERT_EQ(history.size(), 400U);
    for (int i = 0; i < 400; ++i) {
        const HistoryRecord& record = history[static_cast<size_t>(i)];
        EXPECT_EQ(record.text, "A::b - " + std::to_string(451 + i));
        EXPECT_EQ(record.levelName, "NORM");
        EXPECT_GE(record.seconds, before);
        EXPECT_LE(record.seconds, after);
    }
}

TEST(MasterLogger, DoesNotLimitWhatIsLoggedWhileARecordIsServed) {
    // A second served call would wait for a lock that this thread holds, or for one that waits for this thread.
    const auto say = [](const char* text) { MasterLogger::logLimited(LogRate::Hourly, LogLevel::Warn, "A::b", text); };
    const DefaultGlobals globals;
    LogRecorder log;
    MasterLogger::setGlobalObserver(std::make_shared<CallingGlobalObserver>([&](const std::string&) { say("inner"); }));
    say("outer");
    MasterLogger::setGlobalObserver(nullptr);
    EXPECT_EQ(log.lines(), (std::vector<std::string>{"WARN A::b - inner", "WARN A::b - outer"}));
    MasterLogger::setImplementation(std::make_unique<CallingLogImpl>([&](const std::string&) { say("inner"); }));
    EXPECT_EQ(printedBy([] { MLOG(Warn, "A::b", "1"); }).error,
              "MasterLogger:implLog - called recursively!\n  <[WARN] {0} A::b - inner>\n");
}

TEST(LogGlobals, InstallTheDefaultsAndTakeEverythingOutAtTheirEnd) {
    LogRecorder log;
    int ended = 0;
    std::vector<std::string> seen;
    RecordingObserver observer(LogLevel::Norm, &seen);
    const LevelFlags flags(LogLevel::Norm, LevelEntry::History | LevelEntry::Observers);
    {
        const DefaultGlobals globals;
        MLOG(Warn, "A::b", "to the default implementation");
        EXPECT_TRUE(log.records().empty());
        MasterLogger::setImplementation(
            std::make_unique<CallingLogImpl>([&](const std::string& text) { seen.push_back(text); }, [&] { ++ended; }));
        MasterLogger::addObserver(&observer);
        MLOG(Norm, "A::b", "kept");
        MasterLogger::logLimited(LogRate::Hourly, LogLevel::Warn, "A::b", "x");
        MasterLogger::logLimited(LogRate::Hourly, LogLevel::Warn, "A::b", "x");
        EXPECT_EQ(MasterLogger::history().size(), 1U);
    }
    EXPECT_EQ(ended, 1);
    EXPECT_TRUE(MasterLogger::history().empty());
    MLOG(Norm, "A::b", "nobody sees it");
    EXPECT_EQ(seen,
              (std::vector<std::string>{"observer NORM A::b - kept", "A::b - x", "A::b - x [1 times in 0 seconds]"}));
    EXPECT_EQ(Assert::failureHandler(), &Assert::failQuiet);
    Assert::setFailureHandler(&Assert::failDefault);
}

// Logs when this unit's statics are destroyed, which is after the logger's own wind-up or before it.
class LogsAtEnd {
public:
    ~LogsAtEnd() {
        if (!enabled) return;
        MLOG(Crit, "A::end", "static destructor");
        CHECKF(false, "late");
    }
    bool enabled = false;
};
LogsAtEnd g_logsAtEnd;

const test::ChildProgram g_endWithStatics("EndWithStatics", [](const auto&) {
    g_logsAtEnd.enabled = true;
    const DefaultGlobals globals;
    // Destroyed after everything that was constructed by now, and before the statics.
    std::atexit([] { MLOG(Crit, "A::end", "exit handler"); });
    return 7;
});

TEST(LogGlobals, LetStaticDestructorsLogAndFailChecksQuietly) {
    SelfProcess child("EndWithStatics", {}, SelfProcess::StandardError::WithOutput);
    std::string text = child.readAll();
    std::erase(text, '\r');
    EXPECT_EQ(child.wait(), 7);
    EXPECT_NE(text.find("[CRIT] A::end - exit handler\n[CRIT] A::end - static destructor\n"
                        "GASSERT failed at core_v2masterlogger_test:"),
              std::string::npos)
        << text;
    EXPECT_NE(text.find(" (late)\n"), std::string::npos) << text;
}

TEST(LogThreads, GetNumbersInTheOrderOfTheirFirstRecords) {
    EXPECT_EQ(MasterLogger::threadNumber(), 0U);
    uint32_t previous = 0;
    for (int i = 0; i < 3; ++i) {
        onOtherThread([&] {
            const uint32_t number = MasterLogger::threadNumber();
            if (previous != 0) {
                EXPECT_EQ(number, previous + 1);
            }
            EXPECT_EQ(MasterLogger::threadNumber(), number);
            previous = number;
        });
    }
    EXPECT_GE(previous, 3U);
}

TEST(LogThreads, LoseNoRecordAndMixNone) {
    constexpr int kThreads = 10;
    constexpr int kRecords = 1000;
    LogRecorder log;
    const LevelFlags flags(LogLevel::Info, LevelEntry::History);
    std::vector<uint32_t> numbers(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&numbers, t] {
            numbers[static_cast<size_t>(t)] = MasterLogger::threadNumber();
            for (int i = 0; i < kRecords; ++i) MLOG(Info, "T", "%d %d", t, i);
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(std::set(numbers.begin(), numbers.end()).size(), size_t{kThreads});
    const std::vector<LogRecord> records = log.records();
    ASSERT_EQ(records.size(), size_t{kThreads * kRecords});
    std::vector<int> next(kThreads);
    for (const LogRecord& record : records) {
        const auto t = static_cast<size_t>(std::ranges::find(numbers, record.threadNumber) - numbers.begin());
        ASSERT_LT(t, size_t{kThreads});
        EXPECT_EQ(record.text, "T - " + std::to_string(t) + " " + std::to_string(next[t]++));
    }
}

TEST(LogThreads, MayLogWhileEverythingIsBeingChanged) {
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    testing::internal::CaptureStdout();
    for (int t = 0; t < 3; ++t) {
        threads.emplace_back([&] {
            while (!stop) {
                MLOG(Norm, "T", "x");
                MLOG(Warn, "T", "y");
                MasterLogger::logText(LogLevel::Log2String, "z");
                MasterLogger::logLimited(LogRate::Hourly, LogLevel::Warn, "T", "limited");
                MasterLogger::logText(200, "registered meanwhile");
            }
        });
    }
    for (int i = 0; i < 200; ++i) {
        const LevelFlags flags(LogLevel::Norm, LevelEntry::History | LevelEntry::Observers);
        const LogCapture capture(10);
        std::vector<std::string> seen;
        RecordingObserver observer(LogLevel::Norm, &seen);
        MasterLogger::addObserver(&observer);
        MasterLogger::setImplementation(std::make_unique<DefaultLogImpl>());
        MasterLogger::setRateImplementation(std::make_unique<DefaultLogRImpl>());
        MasterLogger::setGlobalObserver(std::make_shared<CallingGlobalObserver>([](const std::string&) {}));
        if (i == 100) {
            EXPECT_TRUE(MasterLogger::registerLevel(200, "LATE", "", 1));
        }
        MasterLogger::removeObserver(&observer);
        MasterLogger::setGlobalObserver(nullptr);
        EXPECT_LE(MasterLogger::history().size(), MasterLogger::kHistoryCapacity);
    }
    stop = true;
    for (std::thread& thread : threads) thread.join();
    MasterLogger::setRateImplementation(nullptr);
    // Records that fell into an installation are told there.
    std::string printed = testing::internal::GetCapturedStdout();
    EXPECT_EQ(printed.find("ERROR in"), std::string::npos) << printed;
}

const test::ChildProgram g_tenThreadsOnTheConsole("TenThreadsOnTheConsole", [](const auto&) {
    std::vector<std::thread> threads;
    for (int t = 0; t < 10; ++t) {
        threads.emplace_back([] {
            for (int i = 0; i < 200; ++i) MLOG(Crit, "T", "%u %d", MasterLogger::threadNumber(), i);
        });
    }
    for (std::thread& thread : threads) thread.join();
    return 0;
});

TEST(LogThreads, WriteWholeConsoleLines) {
    SelfProcess child("TenThreadsOnTheConsole");
    const std::string text = child.readAll();
    EXPECT_EQ(child.wait(), 0);
    std::map<std::string, int> next;
    int lines = 0;
    for (size_t begin = 0; begin < text.size(); ++lines) {
        const size_t end = text.find('\n', begin);
        ASSERT_NE(end, std::string::npos);
        std::string line = text.substr(begin, end - begin);
        if (line.ends_with('\r')) line.pop_back();
        begin = end + 1;
        const std::string number = line.substr(8, line.find('}') - 8);
        EXPECT_EQ(line, "[CRIT] {" + number + "} T - " + number + " " + std::to_string(next[number]++));
    }
    EXPECT_EQ(lines, 2000);
    EXPECT_EQ(next.size(), 10U);
}

} // namespace

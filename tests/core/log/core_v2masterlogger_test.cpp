#include "core/log/core_v2masterlogger.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "absl/cleanup/cleanup.h"
#include "core/text/core_checkf.h"
#include "core/text/core_utf8.h"
#include "tests/support/calling_log.h"
#include "tests/support/child.h"
#include "tests/support/hook_recorder.h"
#include "tests/support/log_recorder.h"
#include "tests/support/self_process.h"
#include "tests/support/stream_capture.h"

using test::FailedCheck;
using test::HookRecorder;
using test::LogRecord;
using test::LogRecorder;
using test::Printed;
using test::printedBy;
using test::refusedRecord;
using test::SelfProcess;
using test::setGlobalObserver;
using test::setImplementation;

namespace NS_CORE {
namespace {

using Lines = std::vector<std::string>;

constexpr char kWhileSetting[] = "MasterLogger:implLog - log while setting impl\n";

// Static initialisers of any unit may log and look at the levels, whatever the order of the units.
const std::string g_capturedByInitialiser = [] {
    const LogCapture capture;
    MasterLogger::logText(LogLevel::Log2String, "early");
    MLOG(Warn, "A::b", "goes nowhere, the console included");
    return capture.text() + (MasterLogger::isOn(LogLevel::Crit) ? " CRIT" : "");
}();
const uint32_t g_threadNumberOfInitialiser = MasterLogger::threadNumber();

void onOtherThread(const std::function<void()>& action) {
    std::thread(action).join();
}

void ignoreRecord(const std::string&) {}

// Sets a level's flags until the returned object is destroyed.
[[nodiscard]] auto withFlags(uint32_t level, uint8_t flags) {
    const uint8_t before = MasterLogger::levelEntry(level).flags;
    EXPECT_TRUE(MasterLogger::setLevelFlags(level, flags));
    return absl::MakeCleanup([level, before] { MasterLogger::setLevelFlags(level, before); });
}

std::unique_ptr<LogObserver> observerOf(uint32_t level, std::function<void(const std::string&)> onRecord) {
    auto observer = std::make_unique<test::Calling<LogObserver>>(std::move(onRecord));
    observer->acceptedLevel = level;
    return observer;
}

// Adds an observer, and removes it when the returned pointer is destroyed.
auto observing(uint32_t level, std::function<void(const std::string&)> onRecord) {
    return std::unique_ptr<LogObserver, void (*)(const LogObserver*)>(
        MasterLogger::addObserver(observerOf(level, std::move(onRecord))), &MasterLogger::removeObserver);
}

void sayLimited(const char* text) {
    MLOG_LIMITED(LogRate::Hourly, LogLevel::Warn, "A::b", "%s", text);
}

// What a child program of this name prints, without carriage returns.
std::string printedByChild(const char* name, int exitCode = 0) {
    SelfProcess child(name, {}, SelfProcess::StandardError::WithOutput);
    std::string text = child.readAll();
    std::erase(text, '\r');
    EXPECT_EQ(child.wait(), exitCode);
    return text;
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
        EXPECT_EQ(MasterLogger::isOn(level), level != LogLevel::Norm) << entry.name;
    }
    EXPECT_EQ(MasterLogger::levelCount(), 5U);
    const LevelEntry unknown = MasterLogger::levelEntry(1023);
    EXPECT_STREQ(unknown.name, "");
    EXPECT_EQ(unknown.flags | unknown.implementationBits, 0);
    for (const uint32_t level : {5U, 8U, 9U, 1023U, 1024U, 1025U, 0xffffffffU}) {
        EXPECT_FALSE(MasterLogger::isOn(level)) << level;
    }
}

TEST(MasterLogger, DerivesEnabledAndRoutedFromTheOtherBits) {
    constexpr uint8_t console = LevelEntry::Console;
    constexpr uint8_t observers = LevelEntry::Observers;
    constexpr uint8_t history = LevelEntry::History;
    struct Row {
        uint8_t flags, implementationBits, effective;
    };
    for (const Row& row :
         {Row{0, 0, 0}, Row{3, 0, 0}, Row{0xe0, 0, 0}, Row{0, 0x80, 3}, Row{console, 0, console | 1},
          Row{console | 2, 0, console | 1}, Row{console, 1, console | 3}, Row{observers, 0, observers | 3},
          Row{history, 0, history | 3}, Row{console | observers | history, 4, 31}})
        EXPECT_EQ(LevelTable::effectiveFlags(row.flags, row.implementationBits), row.effective) << int{row.flags};
}

TEST(MasterLogger, ChangesOneFlagOrTheBitsOfALevel) {
    EXPECT_TRUE(MasterLogger::setLevelFlag(LogLevel::Norm, LevelEntry::Console, true));
    EXPECT_TRUE(MasterLogger::isOn(LogLevel::Norm));
    EXPECT_TRUE(MasterLogger::setLevelFlag(LogLevel::Norm, LevelEntry::History, true));
    EXPECT_EQ(MasterLogger::levelEntry(LogLevel::Norm).flags, LevelEntry::Console | LevelEntry::History | 3);
    EXPECT_TRUE(MasterLogger::setLevelFlag(LogLevel::Norm, LevelEntry::Console, false));
    EXPECT_EQ(MasterLogger::levelEntry(LogLevel::Norm).flags, LevelEntry::History | 3);
    EXPECT_TRUE(MasterLogger::setLevelFlag(LogLevel::Norm, LevelEntry::History, false));
    EXPECT_FALSE(MasterLogger::isOn(LogLevel::Norm));
    EXPECT_TRUE(MasterLogger::setLevelImplementationBits(LogLevel::Info, 0));
    EXPECT_FALSE(MasterLogger::isOn(LogLevel::Info));
    EXPECT_TRUE(MasterLogger::setLevelImplementationBits(LogLevel::Info, 4));
    EXPECT_TRUE(MasterLogger::isOn(LogLevel::Info));
    EXPECT_TRUE(MasterLogger::isOn(LogLevel::Warn));
}

TEST(MasterLogger, TurnsALevelOffWhateverItsEntrySays) {
    LogRecorder log;
    EXPECT_TRUE(MasterLogger::setLevelOn(LogLevel::Warn, false));
    EXPECT_FALSE(MasterLogger::isOn(LogLevel::Warn));
    EXPECT_EQ(MasterLogger::levelEntry(LogLevel::Warn).flags & LevelEntry::Enabled, 0);
    EXPECT_EQ(MasterLogger::levelEntry(LogLevel::Warn).implementationBits, 2);
    MLOG(Warn, "A::b", "1");
    MasterLogger::log(LogLevel::Warn, "A::b", "1");
    MasterLogger::logLimited(LogRate::Hourly, LogLevel::Warn, "A::b", "1");
    MasterLogger::logText(LogLevel::Warn, "1");
    MasterLogger::logAt(LogLevel::Warn, "core_dir", 1, "A::b", "1");
    EXPECT_EQ(log.lines(), Lines{});
    EXPECT_TRUE(MasterLogger::setLevelOn(LogLevel::Warn, true));
    MLOG(Warn, "A::b", "2");
    EXPECT_EQ(log.lines(), Lines{"WARN A::b - 2"});
    EXPECT_FALSE(MasterLogger::setLevelOn(LogLevel::Norm, true)) << "its entry sends it nowhere";
    EXPECT_FALSE(MasterLogger::isOn(LogLevel::Norm));
}

TEST(MasterLogger, RefusesLevelChangesOnOtherThreads) {
    const Printed printed = printedBy([] {
        onOtherThread([] {
            EXPECT_FALSE(MasterLogger::setLevelFlags(LogLevel::Norm, LevelEntry::Console));
            EXPECT_FALSE(MasterLogger::setLevelFlag(LogLevel::Norm, LevelEntry::Console, true));
            EXPECT_FALSE(MasterLogger::setLevelOn(LogLevel::Crit, false));
            EXPECT_FALSE(MasterLogger::setLevelImplementationBits(LogLevel::Crit, 0));
            EXPECT_FALSE(MasterLogger::registerLevel(70, "OTHER", "", 1));
        });
    });
    std::string expected;
    for (int i = 0; i < 5; ++i)
        expected += "\nERROR in core_v2masterlogger:654 - log levels change on the main thread only\n";
    EXPECT_EQ(printed.output, expected);
    EXPECT_FALSE(MasterLogger::isOn(LogLevel::Norm));
    EXPECT_TRUE(MasterLogger::isOn(LogLevel::Crit));
    EXPECT_FALSE(MasterLogger::isOn(70));
    EXPECT_EQ(MasterLogger::levelEntry(LogLevel::Norm).flags, 0);
}

TEST(MasterLogger, RefusesLevelsOutOfRange) {
    const Printed printed = printedBy([] {
        EXPECT_FALSE(MasterLogger::setLevelFlags(0, LevelEntry::Console));
        EXPECT_FALSE(MasterLogger::setLevelFlag(1024, LevelEntry::Console, true));
        EXPECT_FALSE(MasterLogger::setLevelOn(1025, false));
        EXPECT_FALSE(MasterLogger::registerLevel(0xffffffff, "FAR", "", 1));
    });
    std::string expected;
    for (const char* level : {"0", "1024", "1025", "4294967295"})
        expected += std::string("\nERROR in core_v2masterlogger:660 - no log level ") + level + "\n";
    EXPECT_EQ(printed.output, expected);
    EXPECT_EQ(MasterLogger::levelEntry(0).flags, 0);
}

TEST(MasterLogger, RegistersFurtherLevels) {
    LogRecorder log;
    const uint32_t before = MasterLogger::levelCount();
    for (const uint32_t level : {5U, 1023U}) {
        EXPECT_TRUE(MasterLogger::registerLevel(level, "FIFTEEN-LETTERS", "12;34", 8));
        const LevelEntry entry = MasterLogger::levelEntry(level);
        EXPECT_STREQ(entry.name, "FIFTEEN-LETTERS");
        EXPECT_STREQ(entry.colour, "12;34");
        EXPECT_EQ(entry.flags, 3);
        EXPECT_EQ(entry.implementationBits, 8);
    }
    EXPECT_EQ(MasterLogger::levelCount(), before + 2);
    MLOG_LEVEL(1023, "A::b", "%d", 1);
    EXPECT_EQ(log.lines(), Lines{"FIFTEEN-LETTERS A::b - 1"});
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
    const auto flags = withFlags(90, LevelEntry::Console | LevelEntry::History);
    EXPECT_EQ(printedBy([] { MasterLogger::logText(90, "lost"); }).output,
              "\nERROR in core_v2masterlogger:394[90??] lost\n");
    EXPECT_TRUE(log.records().empty());
}

TEST(MasterLogger, EvaluatesNoArgumentOfALevelThatIsOff) {
    LogRecorder log;
    int evaluated = 0;
    for (const uint32_t level : {LogLevel::Norm, LogLevel::Warn}) {
        MLOG_LEVEL(level, "A::b", "%d", ++evaluated);
        MLOG_LIMITED(LogRate::Hourly, level, "A::b", "%d", ++evaluated);
    }
    MLOG(Norm, "A::b", "%d", ++evaluated);
    MLOG(Warn, "A::b", "%d", ++evaluated);
    EXPECT_EQ(log.lines(), (Lines{"WARN A::b - 1", "WARN A::b - 2", "WARN A::b - 3"}));
}

TEST(MasterLogger, ComposesFunctionAndMessage) {
    const std::map<const char*, const char*> composed = {{"text", " - text"}, {"", ""},           {"(x)", "(x)"},
                                                         {": x", ": x"},      {"-x", "-x"},       {" (x)", " -  (x)"},
                                                         {"100%", " - 100%"}, {"\n-x", " - \n-x"}};
    for (const auto& [message, end] : composed) {
        LogRecorder log;
        MasterLogger::log(LogLevel::Warn, "UTL::Service::run", "%s", message);
        EXPECT_EQ(log.records().at(0).text, std::string("UTL::Service::run") + end);
    }
}

TEST(MasterLogger, TakesAFinishedTextAsItIs) {
    LogRecorder log;
    MasterLogger::logText(LogLevel::Info, "50% (x)");
    MasterLogger::logText(LogLevel::Info, "");
    MasterLogger::logText(LogLevel::Info, std::string_view("a\0b", 3));
    EXPECT_EQ(log.lines(), (Lines{"INFO 50% (x)", "INFO ", std::string("INFO a\0b", 8)}));
}

TEST(MasterLogger, WritesLocationRecords) {
    LogRecorder log;
    MasterLogger::logAt(LogLevel::Warn, "core_dir", 12, "CORE::Dir::x", "why");
    MasterLogger::logAt(LogLevel::Warn, "core_dir", 12, "CORE::Dir::x");
    MasterLogger::logAt(LogLevel::Warn, "core_dir", 12, "", "why");
    MasterLogger::logAt(LogLevel::Warn, "core_dir", 12);
    EXPECT_EQ(log.lines(),
              (Lines{"WARN Log at core_dir:12 (CORE::Dir::x) - why", "WARN Log at core_dir:12 (CORE::Dir::x)",
                     "WARN Log at core_dir:12 - why", "WARN Log at core_dir:12"}));
}

TEST(MasterLogger, WritesToTheConsoleWhatItsBitSaysWithTheNumberOfOtherThreads) {
    LogRecorder log;
    const auto norm = withFlags(LogLevel::Norm, LevelEntry::Console);
    const Printed printed = printedBy([] {
        MLOG(Crit, "A::b", "main");
        MLOG(Warn, "A::b", "not on the console");
        MLOG(Norm, "A::b", "only on the console");
    });
    EXPECT_EQ(printed.output, "[CRIT] A::b - main\n[NORM] A::b - only on the console\n");
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
    EXPECT_EQ(log.records(), (std::vector<LogRecord>{{LogLevel::Crit, 0, "A::b - main"},
                                                     {LogLevel::Warn, 0, "A::b - not on the console"},
                                                     {LogLevel::Crit, number, "A::b - other"}}));
}

TEST(MasterLogger, ShowsEveryRecordToTheGlobalObserver) {
    LogRecorder log;
    const auto norm = withFlags(LogLevel::Norm, LevelEntry::Console);
    Lines seen;
    setGlobalObserver([&](const std::string& record) { seen.push_back(record); });
    printedBy([] {
        MLOG(Crit, "A::b", "1");
        MLOG(Norm, "A::b", "2");
        MasterLogger::logText(LogLevel::Log2String, "for captures");
    });
    MasterLogger::setGlobalObserver(nullptr);
    MLOG(Warn, "A::b", "3");
    EXPECT_EQ(seen, (Lines{"CRIT A::b - 1", "NORM A::b - 2"}));
}

TEST(MasterLogger, DoesNotReenterTheGlobalObserver) {
    LogRecorder log;
    setGlobalObserver([&](const std::string& record) { MLOG(Info, "A::inner", "saw %s", record); });
    MLOG(Warn, "A::b", "1");
    MLOG(Warn, "A::b", "2");
    MasterLogger::setGlobalObserver(nullptr);
    EXPECT_EQ(log.lines(), (Lines{"INFO A::inner - saw WARN A::b - 1", "WARN A::b - 1",
                                  "INFO A::inner - saw WARN A::b - 2", "WARN A::b - 2"}));
}

TEST(MasterLogger, KeepsAReplacedGlobalObserverWhileItIsInside) {
    bool ended = false;
    bool endedInside = false;
    setGlobalObserver(
        [&](const std::string&) {
            MasterLogger::setGlobalObserver(nullptr);
            endedInside = ended;
        },
        [&] { ended = true; });
    MLOG(Warn, "A::b", "1");
    EXPECT_FALSE(endedInside);
    EXPECT_TRUE(ended);
}

TEST(MasterLogger, SendsWhatAnImplementationOrObserverLogsToStandardError) {
    const auto sayAgain = [](const std::string&) { MLOG(Warn, "A::inner", "again"); };
    const auto expected = [](uint32_t number) { return refusedRecord("WARN", "A::inner - again", number); };
    setImplementation(sayAgain);
    Printed printed = printedBy([] { MLOG(Info, "A::b", "1"); });
    EXPECT_EQ(printed.error, expected(0));
    EXPECT_EQ(printed.output, "");
    uint32_t number = 0;
    printed = printedBy([&] {
        onOtherThread([&] {
            number = MasterLogger::threadNumber();
            MLOG(Info, "A::b", "1");
        });
    });
    EXPECT_EQ(printed.error, expected(number));
    const auto norm = withFlags(LogLevel::Norm, LevelEntry::Console);
    setImplementation([](const std::string&) { MLOG(Norm, "A::inner", "for the console alone"); });
    printed = printedBy([] { MLOG(Info, "A::b", "1"); });
    EXPECT_EQ(printed.output + printed.error, "[NORM] A::inner - for the console alone\n");
    // The guard is down again afterwards.
    LogRecorder log;
    const auto flags = withFlags(LogLevel::Warn, LevelEntry::Observers);
    const auto observer = observing(LogLevel::Warn, sayAgain);
    EXPECT_EQ(printedBy([] { MLOG(Warn, "A::b", "2"); }).error, expected(0));
    EXPECT_EQ(log.lines(), Lines{"WARN A::b - 2"});
}

TEST(MasterLogger, SendsWhatIsLoggedWhileAnImplementationIsInstalledToStandardOutput) {
    setImplementation(ignoreRecord, [] { MLOG(Warn, "A::end", "bye"); });
    Printed printed = printedBy([] { MasterLogger::setImplementation(nullptr); });
    EXPECT_EQ(printed.output, std::string(kWhileSetting) + "  <[WARN] {0} A::end - bye>\n");
    EXPECT_EQ(printed.error, "");
    // On another thread too, which must not wait for the installing one.
    setImplementation(ignoreRecord, [] { onOtherThread([] { MLOG(Warn, "A::end", "bye"); }); });
    printed = printedBy([] { MasterLogger::setImplementation(nullptr); });
    EXPECT_EQ(printed.output.substr(0, printed.output.find('{')), std::string(kWhileSetting) + "  <[WARN] ");
    LogRecorder log;
    MLOG(Info, "A::b", "2");
    EXPECT_EQ(log.lines(), Lines{"INFO A::b - 2"});
}

TEST(MasterLogger, RefusesToBeChangedWhileItServes) {
    HookRecorder hook;
    int ended = 0;
    const LogObserver* added = nullptr;
    const auto change = [&] {
        MasterLogger::setImplementation(nullptr);
        MasterLogger::setRateImplementation(nullptr);
        added = MasterLogger::addObserver(observerOf(LogLevel::Warn, ignoreRecord));
        MasterLogger::removeObserver(nullptr);
        EXPECT_TRUE(MasterLogger::history().empty());
    };
    setImplementation([&](const std::string&) { change(); }, [&] { ++ended; });
    MLOG(Warn, "A::b", "1");
    EXPECT_EQ(ended, 0);
    EXPECT_EQ(added, nullptr);
    ASSERT_EQ(hook.failures().size(), 5U);
    EXPECT_EQ(hook.failures()[0].file, "core_v2masterlogger");
    EXPECT_EQ(hook.failures()[0].message, "logger changed while it serves a record");
    MasterLogger::setImplementation(nullptr);
    EXPECT_EQ(ended, 1);
    struct Changing : LogRImpl {
        explicit Changing(std::function<void()> action) : onLog(std::move(action)) {}
        void log(LogRate /*rate*/, uint32_t /*level*/, std::string_view /*text*/, const Output& /*output*/) override {
            onLog();
        }
        std::function<void()> onLog;
    };
    MasterLogger::setRateImplementation(std::make_unique<Changing>(change));
    sayLimited("x");
    EXPECT_EQ(hook.failures().size(), 10U);
    MasterLogger::setRateImplementation(nullptr);
}

TEST(MasterLogger, ServesImplementationThenObserversThatAcceptTheLevel) {
    Lines seen;
    setImplementation([&](const std::string& record) { seen.push_back("implementation " + record); });
    const auto observe = [&](const std::string& record) { seen.push_back("observer " + record); };
    const auto norm = observing(LogLevel::Norm, observe);
    {
        const auto warn = observing(LogLevel::Warn, observe);
        MLOG(Warn, "A::b", "0"); // the level does not go to observers yet
        const auto warnFlags = withFlags(LogLevel::Warn, LevelEntry::Observers);
        const auto normFlags = withFlags(LogLevel::Norm, LevelEntry::Observers);
        MLOG(Warn, "A::b", "1");
        MLOG(Norm, "A::b", "2"); // no implementation bits
    }
    const auto warnFlags = withFlags(LogLevel::Warn, LevelEntry::Observers);
    MLOG(Warn, "A::b", "3");
    MasterLogger::setImplementation(nullptr);
    EXPECT_EQ(seen, (Lines{"implementation WARN A::b - 0", "implementation WARN A::b - 1", "observer WARN A::b - 1",
                           "observer NORM A::b - 2", "implementation WARN A::b - 3"}));
}

TEST(MasterLogger, SkipsAnObserverThatIsInsideItsOwnCall) {
    Lines seen;
    std::function<void()> deliverAgain;
    auto observer = observing(LogLevel::Warn, [&](const std::string& record) {
        seen.push_back(record);
        deliverAgain();
    });
    deliverAgain = [&] {
        const LevelEntry entry = MasterLogger::levelEntry(LogLevel::Warn);
        observer->deliver(LogLevel::Warn, 0, entry, entry.implementationBits, "again", 5);
    };
    const auto flags = withFlags(LogLevel::Warn, LevelEntry::Observers);
    const Printed printed = printedBy([] {
        MLOG(Warn, "A::b", "1");
        MLOG(Warn, "A::b", "2");
    });
    const std::string error = "\nERROR in core_v2masterlogger:830 - observer is inside its own call\n";
    EXPECT_EQ(printed.output, error + error);
    EXPECT_EQ(seen, (Lines{"WARN A::b - 1", "WARN A::b - 2"}));
}

TEST(MasterLogger, KeepsTheLast400RecordsOfLevelsWithHistory) {
    const auto flags = withFlags(LogLevel::Norm, LevelEntry::History);
    {
        const DefaultGlobals ended;
        for (int i = 0; i < 401; ++i) MLOG(Norm, "A::b", "before the end");
    }
    const DefaultGlobals empty;
    const auto seconds = [] { return std::chrono::system_clock::now().time_since_epoch() / std::chrono::seconds(1); };
    const auto before = seconds();
    MLOG(Warn, "A::b", "not kept");
    for (int i = 0; i < 851; ++i) {
        MLOG(Norm, "A::b", "%d", i);
        const std::vector<HistoryRecord> history = MasterLogger::history();
        ASSERT_EQ(history.size(), std::min<size_t>(static_cast<size_t>(i) + 1, 400));
        ASSERT_EQ(history.back().text, "A::b - " + std::to_string(i));
    }
    int number = 451;
    for (const HistoryRecord& record : MasterLogger::history()) {
        EXPECT_EQ(record.text, "A::b - " + std::to_string(number++));
        EXPECT_EQ(record.levelName, "NORM");
        EXPECT_TRUE(before <= record.seconds && record.seconds <= seconds()) << record.seconds;
    }
}

TEST(MasterLogger, LimitsWhatIsLoggedWhileARecordIsServed) {
    const DefaultGlobals globals;
    LogRecorder log;
    setGlobalObserver([](const std::string&) { sayLimited("inner"); });
    sayLimited("outer");
    MLOG(Info, "A::b", "1");
    MasterLogger::setGlobalObserver(nullptr);
    EXPECT_EQ(log.lines(), (Lines{"WARN A::b - inner", "WARN A::b - outer", "INFO A::b - 1"}));
    setImplementation([](const std::string&) { sayLimited("inside"); });
    EXPECT_EQ(printedBy([] {
                  MLOG(Info, "A::b", "1");
                  MLOG(Info, "A::b", "2");
              }).error,
              refusedRecord("WARN", "A::b - inside"));
}

TEST(LogGlobals, InstallTheDefaultsAndTakeEverythingOutAtTheirEnd) {
    LogRecorder log;
    std::string ended;
    Lines seen;
    const auto see = [&](const std::string& record) { seen.push_back(record); };
    const auto flags = withFlags(LogLevel::Norm, LevelEntry::History | LevelEntry::Observers);
    {
        const DefaultGlobals globals;
        MLOG(Warn, "A::b", "to the default implementation");
        EXPECT_TRUE(log.records().empty());
        setImplementation(see, [&] { ended += " implementation"; });
        MasterLogger::addObserver(observerOf(LogLevel::Norm, see));
        MLOG(Norm, "A::b", "kept");
        sayLimited("x");
        sayLimited("x");
        setGlobalObserver(see, [&] { ended += "observer"; });
        EXPECT_EQ(MasterLogger::history().size(), 1U);
    }
    EXPECT_EQ(ended, "observer implementation");
    EXPECT_TRUE(MasterLogger::history().empty());
    MLOG(Norm, "A::b", "nobody sees it");
    EXPECT_EQ(seen, (Lines{"NORM A::b - kept", "WARN A::b - x", "WARN A::b - x [1 times in 0 seconds]",
                           "WARN A::b - x [1 times in 0 seconds]"}));
    EXPECT_EQ(Assert::failureHandler(), &Assert::failQuiet);
    Assert::installFailureHandler(&Assert::failDefault);
}

// Logs when this unit's statics are destroyed, before the logger's own or after them.
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
    const std::string text = printedByChild("EndWithStatics", 7);
    EXPECT_NE(text.find("[CRIT] A::end - exit handler\n[CRIT] A::end - static destructor\n"
                        "GASSERT failed at core_v2masterlogger_test:"),
              std::string::npos)
        << text;
    EXPECT_NE(text.find(" (late)\n"), std::string::npos) << text;
}

// Ends inside an implementation. A failed check would end it with another code.
const test::ChildProgram g_endInARecord("EndInARecord", [](const auto&) {
    Assert::installFailureHandler(
        [](const char*, std::string_view, int32_t, int32_t, const std::string&) -> bool { std::_Exit(6); });
    Assert::lockFailureHandler(true);
    setImplementation([](const auto&) { std::exit(5); });
    MLOG(Info, "A::b", "x");
    return 0;
});

TEST(LogGlobals, LeaveEverythingAsItIsWhenTheProcessEndsInTheMiddleOfARecord) {
    EXPECT_EQ(printedByChild("EndInARecord", 5),
              refusedRecord("WARN", "CORE::Assert::setFailureHandler - handler locked"));
}

// A process that has made no Globals: the limit is there, other threads count from 1, and nothing of what was logged
// waits in a buffer when the process is gone. The history begins with the first record.
const test::ChildProgram g_withoutGlobals("WithoutGlobals", [](const auto&) {
    const auto flags = withFlags(LogLevel::Crit, LevelEntry::Console | LevelEntry::History);
    for (int i = 0; i < 100; ++i) MLOG_LIMITED(LogRate::Hourly, LogLevel::Crit, "A::b", "x");
    for (int i = 0; i < 2; ++i) onOtherThread([] { MLOG(Crit, "A::b", "y"); });
    MasterLogger::setLevelOn(1024, true);
    std::u16string unused;
    static_cast<void>(fromUtf8("\xff", unused));
    std::_Exit(MasterLogger::history().front().text == "A::b - x" ? 3 : 4);
    return 0;
});

TEST(LogGlobals, AreNotNeededForALimitAndForThreadNumbers) {
    EXPECT_EQ(printedByChild("WithoutGlobals", 3),
              "[CRIT] A::b - x\n[CRIT] {1} A::b - y\n[CRIT] {2} A::b - y\n"
              "\nERROR in core_v2masterlogger:660 - no log level 1024\n"
              "fromUtf8 conversion failed at byte 0 (0xff): invalid lead byte\n");
}

TEST(LogThreads, KeepTheirNumbers) {
    onOtherThread([&] {
        const uint32_t number = MasterLogger::threadNumber();
        onOtherThread([&] { EXPECT_EQ(MasterLogger::threadNumber(), number + 1); });
        EXPECT_EQ(MasterLogger::threadNumber(), number);
    });
    EXPECT_EQ(MasterLogger::threadNumber(), 0U);
}

// Ten threads log `records` records each at `level`: "T - N 0", "T - N 1" and so on, N being the thread's number.
void logFromTenThreads(uint32_t level, int records) {
    std::vector<std::jthread> threads;
    for (int t = 0; t < 10; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < records; ++i) MLOG_LEVEL(level, "T", "%u %d", MasterLogger::threadNumber(), i);
        });
    }
}

// Expects those records in `texts`, each thread's in order.
void expectRecordsOfTenThreads(const Lines& texts, int records) {
    std::map<std::string, int> next;
    for (const std::string& text : texts) {
        const std::string number = text.substr(4, text.rfind(' ') - 4);
        EXPECT_EQ(text, "T - " + number + " " + std::to_string(next[number]++));
    }
    EXPECT_EQ(texts.size(), static_cast<size_t>(10 * records));
    EXPECT_EQ(next.size(), size_t{10});
    EXPECT_FALSE(next.contains("0")) << "the main thread's number";
}

TEST(LogThreads, LoseNoRecordAndMixNone) {
    LogRecorder log;
    // Under the logger's own lock, unlike the recorder.
    const auto flags = withFlags(LogLevel::Info, LevelEntry::History);
    logFromTenThreads(LogLevel::Info, 1000);
    Lines texts;
    for (const LogRecord& record : log.records()) {
        texts.push_back(record.text);
        EXPECT_TRUE(record.text.starts_with("T - " + std::to_string(record.threadNumber) + " ")) << record.text;
    }
    expectRecordsOfTenThreads(texts, 1000);
}

// A thread for each call, and the main one for the levels, which are its own. Relaxed counters: between two calls
// nothing but the logger's locks may order the threads, or the thread sanitizer would not miss a lock.
TEST(LogThreads, MayDoEverythingAtOnce) {
    const std::function<void()> calls[] = {
        [] { MLOG(Norm, "T", "x"); },
        [] { MLOG(Warn, "T", "y"); },
        [] { MasterLogger::logText(LogLevel::Log2String, "z"); },
        [] { sayLimited("limited"); },
        [] { MasterLogger::logText(200, "registered meanwhile"); },
        [] {
            const LogCapture capture(10);
            for (int i = 0; i < 5; ++i, std::this_thread::yield()) EXPECT_LE(capture.text().size(), size_t{20});
        },
        [] { const auto observer = observing(LogLevel::Norm, ignoreRecord); },
        [] { setImplementation([](const std::string&) { sayLimited("inside"); }); },
        [] { MasterLogger::setRateImplementation(std::make_unique<DefaultLogRImpl>()); },
        [] { setGlobalObserver(ignoreRecord); },
        [] { EXPECT_LE(MasterLogger::history().size(), MasterLogger::kHistoryCapacity); },
        [] { const DefaultGlobals ended; },
    };
    constexpr int kRounds = 200;
    std::atomic<int> missing{std::size(calls) * kRounds};
    std::vector<std::thread> threads;
    testing::internal::CaptureStdout();
    for (const std::function<void()>& call : calls) {
        threads.emplace_back([&] {
            for (int round = 0; missing.load(std::memory_order_relaxed) > 0; ++round) {
                call();
                if (round < kRounds) missing.fetch_sub(1, std::memory_order_relaxed);
                std::this_thread::yield();
            }
        });
    }
    while (missing.load(std::memory_order_relaxed) > 0) {
        const auto flags = withFlags(LogLevel::Norm, LevelEntry::History | LevelEntry::Observers);
        std::this_thread::yield();
        if (missing.load(std::memory_order_relaxed) < kRounds) MasterLogger::registerLevel(200, "LATE", "", 1);
    }
    for (std::thread& thread : threads) thread.join();
    const DefaultGlobals leaveNothingBehind;
    // Records that fell into an installation are there.
    const std::string printed = testing::internal::GetCapturedStdout();
    EXPECT_EQ(printed.find("ERROR in"), std::string::npos) << printed;
}

const test::ChildProgram g_tenThreadsOnTheConsole("TenThreadsOnTheConsole", [](const auto&) {
    logFromTenThreads(LogLevel::Crit, 200);
    return 0;
});

TEST(LogThreads, WriteWholeConsoleLines) {
    const std::string text = printedByChild("TenThreadsOnTheConsole");
    Lines texts;
    for (size_t begin = 0; begin < text.size();) {
        const size_t end = text.find('\n', begin);
        ASSERT_NE(end, std::string::npos);
        const size_t record = text.find("} ", begin) + 2;
        texts.push_back(text.substr(record, end - record));
        EXPECT_EQ(text.substr(begin, record - begin),
                  "[CRIT] {" + texts.back().substr(4, texts.back().rfind(' ') - 4) + "} ");
        begin = end + 1;
    }
    expectRecordsOfTenThreads(texts, 200);
}

} // namespace
} // namespace NS_CORE

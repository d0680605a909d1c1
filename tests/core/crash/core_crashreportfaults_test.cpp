#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <memory>
#include <thread>

#include "core/crash/core_crashguard.h"
#include "core/crash/internal/core_crashreport.h"
#include "core/identity/core_paths.h"
#include "core/log/core_v2masterlogger.h"
#include "core/stack/core_stacktrace.h"
#include "tests/core/crash/crashreportfaults_fixture.h"
#include "tests/support/child.h"
#include "tests/support/crash_kinds.h"
#include "tests/support/planted_code.h"

// Faults of what has to tell of a fault: the report does what it still can, and the process ends as promised.
namespace {

namespace fs = std::filesystem;

// Does something with each record, then hands it to standard output.
class ActingLog : public NS_CORE::LogImpl {
public:
    explicit ActingLog(std::function<void(std::string_view)> act) : m_act(std::move(act)) {}
    void log(uint32_t, uint32_t, const NS_CORE::LevelEntry&, uint8_t, const char* text, size_t length) override {
        m_act({text, length});
    }

private:
    std::function<void(std::string_view)> m_act;
};

void actOn(std::string_view start, std::function<void()> act) {
    NS_CORE::MasterLogger::setImplementation(
        std::make_unique<ActingLog>([start = std::string(start), act = std::move(act)](std::string_view text) {
            if (text.starts_with(start)) act();
        }));
}

[[noreturn]] void waitForever() {
    for (;;) std::this_thread::sleep_for(std::chrono::hours(1));
}

// Writes beyond what it was given, all over the memory that is to be given out next.
[[maybe_unused]] void breakHeap() {
    constexpr size_t kBlocks = 200;
    constexpr size_t kBeyond = 512;
    void* blocks[10][kBlocks];
    for (size_t kind = 0; kind < std::size(blocks); ++kind) {
        for (void*& block : blocks[kind]) block = std::malloc(24U << kind);
    }
    for (size_t kind = 0; kind < std::size(blocks); ++kind) {
        for (size_t index = 0; index < kBlocks; index += 2) std::free(blocks[kind][index]);
        // Volatile, or the compiler may see that nobody reads it.
        for (size_t index = 1; index < kBlocks; index += 2) {
            auto* const bytes = static_cast<volatile char*>(blocks[kind][index]);
            for (size_t at = 0; at < (24U << kind) + kBeyond; ++at) bytes[at] = 'A';
        }
    }
}

// What is spoilt before the guarded application faults.
const test::Preparations& preparations() {
    static const test::Preparations all{
        {"nothing", [] {}},
        {"writer-faults", [] { test::makeFault(test::dumpWriter()); }},
        {"writer-hangs", [] { test::makeHang(test::dumpWriter()); }},
        {"library-held", [] { test::holdSymbolLibrary(); }},
        {"traced",
         [] {
             static std::atomic<bool> begins = false;
             std::thread([] {
                 for (;;) {
                     begins = true;
                     NS_CORE::StackTrace().toText();
                 }
             }).detach();
             while (!begins) std::this_thread::yield();
         }},
        {"log-faults", [] { actOn("Wrote", [] { test::crash("null"); }); }},
        {"log-throws", [] { actOn("Wrote", [] { test::crash("exception"); }); }},
        {"log-hangs", [] { actOn("Wrote", &waitForever); }},
        {"log-held",
         [] {
             static std::atomic<bool> isHeld = false;
             actOn("held", [] {
                 isHeld = true;
                 waitForever();
             });
             std::thread([] { NS_CORE::MasterLogger::logText(NS_CORE::LogLevel::Crit, "held"); }).detach();
             while (!isHeld) std::this_thread::yield();
         }},
        {"exit-faults", [] { std::atexit([] { test::crash("null"); }); }},
        {"exit-aborts", [] { std::atexit([] { test::crash("abort"); }); }},
        {"exit-hangs", [] { std::atexit(&waitForever); }},
    };
    return all;
}

std::string g_preparation;
std::string g_application; // what it does then

void prepare() {
    if (const auto own = preparations().find(g_preparation); own != preparations().end())
        own->second();
    else
        test::platformPreparations().at(g_preparation)();
}

int application(int, char**) {
    prepare();
    if (g_application == "heap") breakHeap();
    if (g_application == "in-log") {
        // Under the logger's lock, which the report needs.
        actOn("", [] { test::crash("null"); });
        NS_CORE::MasterLogger::logText(NS_CORE::LogLevel::Crit, "a record");
    }
    test::crash("null");
    return 55;
}

// preparation, application, working directory, patience in milliseconds
const test::ChildProgram g_spoilt("report-spoilt", [](const std::vector<std::string>& arguments) {
    test::leaveMemoryBehind();
    fs::current_path(arguments.at(2));
    NS_CORE::setDefaultPaths();
    NS_CORE::g_crashPatienceMs = static_cast<uint32_t>(std::stoul(arguments.at(3)));
    g_preparation = arguments.at(0);
    g_application = arguments.at(1);
    char program[] = "program";
    char* argv[] = {program, nullptr};
    return NS_CORE::guard(1, argv, &application);
});

TEST_F(CrashReportFaultsTest, ADumpWriterThatFaultsIsTold) {
    EXPECT_EQ(run("writer-faults"), test::kCrashExitCode);
    EXPECT_EQ(m_output, test::lineOfFaultingWriter(written(), [this](const auto& error) { return failed(error); }));
    EXPECT_EQ(history(), historyLine());
}

// The thread sanitizer keeps signals back from code that makes no calls.
#if !defined(__SANITIZE_THREAD__)
TEST_F(CrashReportFaultsTest, ADumpWriterThatHangsIsLeft) {
    EXPECT_EQ(runImpatiently("writer-hangs"), test::kCrashExitCode);
    if (test::kLeavesWhatHangs) {
        EXPECT_EQ(m_output, written()) << "the addresses are on the disk";
        EXPECT_EQ(history(), historyLine());
    }
}
#endif

TEST_F(CrashReportFaultsTest, AnotherThreadThatGoesOnTracingDisturbsNothing) {
    EXPECT_EQ(run("traced"), test::kCrashExitCode);
    EXPECT_EQ(m_output, written());
    EXPECT_GT(fs::file_size(dumpFile()), 100U);
    EXPECT_EQ(history(), historyLine());
}

TEST_F(CrashReportFaultsTest, AThreadThatIsStuckInAStackTraceKeepsNeitherDumpNorLines) {
    EXPECT_EQ(run("library-held", "null", test::kLeavesWhatHangs ? test::kImpatienceMs : 30'000), test::kCrashExitCode);
    EXPECT_EQ(m_output, written());
    EXPECT_GT(fs::file_size(dumpFile()), 100U);
    EXPECT_EQ(history(), historyLine());
}

TEST_F(CrashReportFaultsTest, ALogThatFaultsCostsItsLineAlone) {
    for (const std::string kind : {"log-faults", "log-throws"}) {
        fs::remove(historyFile());
        EXPECT_EQ(run(kind), test::kCrashExitCode) << kind;
        EXPECT_GT(fs::file_size(dumpFile()), 100U);
        EXPECT_EQ(history(), historyLine()) << kind;
    }
}

TEST_F(CrashReportFaultsTest, ALogThatHangsIsLeft) {
    for (const std::string kind : {"log-hangs", "log-held"}) {
        fs::remove(historyFile());
        EXPECT_EQ(runImpatiently(kind), test::kCrashExitCode) << kind;
        EXPECT_GT(fs::file_size(dumpFile()), 100U);
        if (test::kLeavesWhatHangs) {
            EXPECT_EQ(history(), historyLine()) << kind;
        }
    }
}

TEST_F(CrashReportFaultsTest, AFaultWithinTheLogIsReportedToo) {
    EXPECT_EQ(run("nothing", "in-log"), test::kCrashExitCode);
    EXPECT_GT(fs::file_size(dumpFile()), 100U);
    EXPECT_EQ(history(), historyLine());
}

// The sanitizers' memory is not what ships, and they tell of it in their own way.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
TEST_F(CrashReportFaultsTest, BrokenMemoryCannotKeepTheProcess) {
    EXPECT_EQ(runImpatiently("nothing", "heap"), test::kCrashExitCode);
    if (test::kDumpNeedsNoMemory) {
        EXPECT_GT(fs::file_size(dumpFile()), 100U);
    }
}
#endif

TEST_F(CrashReportFaultsTest, WhatHappensOnTheWayOutDoesNotChangeTheResult) {
    for (const std::string kind : {"exit-faults", "exit-aborts"}) {
        EXPECT_EQ(run(kind), test::kCrashExitCode) << kind;
        EXPECT_EQ(m_output, written()) << kind;
    }
    EXPECT_EQ(runImpatiently("exit-hangs"), test::kCrashExitCode);
    EXPECT_EQ(m_output, written());
    EXPECT_EQ(history(), historyLine() + historyLine() + historyLine());
}

TEST_F(CrashReportFaultsTest, ADumpsDirectoryThatIsMissingIsCreated) {
    EXPECT_EQ(run("nothing"), test::kCrashExitCode);
    EXPECT_EQ(m_output, written());
    EXPECT_TRUE(fs::is_directory(dumps()));
}

TEST_F(CrashReportFaultsTest, ADirectoryOfTheDumpsNameIsTold) {
    fs::create_directories(dumpFile());
    EXPECT_EQ(run("nothing"), test::kCrashExitCode);
    EXPECT_EQ(m_output, failed(test::errorOfDirectoryInPlace()));
    EXPECT_EQ(history(), historyLine());
}

TEST_F(CrashReportFaultsTest, AHistoryThatCannotBeOpenedIsLeftOutSilently) {
    fs::create_directories(historyFile());
    EXPECT_EQ(run("nothing"), test::kCrashExitCode);
    EXPECT_EQ(m_output, written());
}

} // namespace

#include "core/crash/core_crashguard.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <sstream>
#include <thread>

#include "absl/cleanup/cleanup.h"
#include "core/log/core_v2masterlogger.h"
#include "core/stack/core_stacktrace.h"
#include "tests/core/crash/crash_fixture.h"
#include "tests/support/calling_log.h"
#include "tests/support/child.h"

void test::allocateAside() {
    std::thread([] { std::free(std::malloc(1'000'000)); }).join();
    std::printf("allocated\n");
    std::fflush(stdout); // the way out may hang later
}

namespace {

namespace fs = std::filesystem;

constexpr int kUnnoticed = 55; // the crash did nothing

// Does something with each record of CRIT that begins so.
void actOn(const std::string& start, const std::function<void()>& act) {
    test::setImplementation([start = "CRIT " + start, act](const std::string& record) {
        if (record.starts_with(start)) act();
    });
}

[[noreturn]] void waitForever() {
    for (;;) std::this_thread::sleep_for(std::chrono::hours(1));
}

// Runs on a thread of its own for good. Returns when it has called begun().
void inBackground(const std::function<void(const std::function<void()>& begun)>& act) {
    static std::atomic<bool> hasBegun;
    hasBegun = false;
    std::thread([act] { act([] { hasBegun = true; }); }).detach();
    while (!hasBegun) std::this_thread::yield();
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

const test::Preparations& preparations() {
    // Never destroyed: some crash on the way out of the process.
    static const auto& all = *new test::Preparations{
        {"nothing", [] {}},
        {"crit-off",
         [] {
             NS_CORE::MasterLogger::setLevelFlags(NS_CORE::LogLevel::Crit, 0);
             NS_CORE::MasterLogger::setLevelImplementationBits(NS_CORE::LogLevel::Crit, 0);
         }},
        {"traced",
         [] {
             inBackground([](const auto& begun) {
                 for (;;) {
                     begun();
                     NS_CORE::StackTrace().toText();
                 }
             });
         }},
        {"log-looks",
         [] {
             actOn("Wrote", [] {
                 std::printf("dump %d, history %d\n", !fs::is_empty("work/dumps"), fs::exists("work/logs/dumps.log"));
             });
         }},
        {"log-faults", [] { actOn("Wrote", [] { test::crash("null"); }); }},
        {"log-throws", [] { actOn("Wrote", [] { test::crash("exception"); }); }},
        {"log-hangs", [] { actOn("", &waitForever); }},
        {"log-held",
         [] {
             inBackground([](const auto& begun) {
                 actOn("held", [begun] {
                     begun();
                     waitForever();
                 });
                 NS_CORE::MasterLogger::logText(NS_CORE::LogLevel::Crit, "held");
             });
         }},
        {"terminate-faults", [] { std::set_terminate([] { test::crash("null"); }); }},
        {"exit-faults", [] { std::atexit([] { test::crash("null"); }); }},
        {"exit-aborts", [] { std::atexit([] { test::crash("abort"); }); }},
        {"exit-throws", [] { std::atexit([] { test::crash("exception"); }); }},
        {"static-faults", [] { static const absl::Cleanup atExit = [] { test::crash("null"); }; }},
        {"exit-hangs", [] { std::atexit(&waitForever); }},
        {"exit-allocates", [] { std::atexit(&test::allocateAside); }},
    };
    return all;
}

std::string g_act;
std::string g_preparation;

int application(int argc, char** argv) {
    std::istringstream all(g_preparation);
    for (std::string one; std::getline(all, one, '+');) {
        const auto own = preparations().find(one);
        (own != preparations().end() ? own->second : test::platformPreparations().at(one))();
    }
    if (g_act == "arguments") return argc * 10 + static_cast<int>(std::string_view(argv[argc - 1]).size());
    if (g_act == "thread") std::thread([] { test::crash("null"); }).join();
    if (g_act == "heap") breakHeap();
    if (g_act == "in-log") {
        // Under the logger's lock, which the report needs.
        actOn("", [] { test::crash("null"); });
        NS_CORE::MasterLogger::logText(NS_CORE::LogLevel::Crit, "a record");
    }
    if (g_act == "heap" || g_act == "twice" || g_act == "aside") test::crash("null");
    test::crash(g_act);
    return kUnnoticed;
}

int guardWith(const std::vector<std::string>& words) {
    std::vector<std::string> owned{"program"};
    owned.insert(owned.end(), words.begin(), words.end());
    std::vector<char*> argv;
    for (std::string& word : owned) argv.push_back(word.data());
    return NS_CORE::guard(static_cast<int>(argv.size()), argv.data(), &application);
}

// act, working directory; then, if they matter: preparation, patience in milliseconds, words for the command line
const test::ChildProgram g_guarded("guarded", [](const std::vector<std::string>& arguments) {
    test::leaveMemoryBehind();
    test::endQuietlyOnUnhandledFaults();
    fs::current_path(arguments.at(1));
    NS_CORE::setDefaultPaths();
    g_act = "arguments";
    g_preparation = "nothing";
    if (arguments.at(0) == "twice" && guardWith({"one"}) != 23) return 1;
    g_act = arguments.at(0);
    if (arguments.size() > 2) g_preparation = arguments[2];
    if (arguments.size() > 3) NS_CORE::g_crashPatienceMs = static_cast<uint32_t>(std::stoul(arguments[3]));
    int result = 0;
    const auto run = [&arguments, &result] {
        result = guardWith({arguments.begin() + std::min<std::ptrdiff_t>(4, std::ssize(arguments)), arguments.end()});
    };
    if (g_act == "aside")
        std::thread(run).join(); // which is over when the process exits
    else
        run();
    return result;
});

class CrashKindTest : public CrashTest, public testing::WithParamInterface<std::string> {};

TEST_P(CrashKindTest, LeavesADumpALogLineAHistoryLineAndTheResult) {
    expectFullReport({.act = GetParam()});
}

INSTANTIATE_TEST_SUITE_P(All, CrashKindTest, testing::ValuesIn(test::crashKinds()),
                         [](const auto& kind) { return kind.param; });

TEST_F(CrashTest, SecondCrashOverwritesTheDumpAndAddsToTheHistory) {
    fs::create_directories(dumps());
    test::writeFile(dumpFile(), std::string(50'000'000, 'x'));
    EXPECT_EQ(run({}), test::kCrashExitCode);
    EXPECT_EQ(run({}), test::kCrashExitCode);
    EXPECT_EQ(std::distance(fs::directory_iterator(dumps()), fs::directory_iterator()), 1);
    EXPECT_LT(fs::file_size(dumpFile()), 50'000'000U);
    EXPECT_NE(fs::status(dumpFile()).permissions() & fs::perms::owner_write, fs::perms::none);
    EXPECT_EQ(history(), historyLine() + historyLine());
}

TEST_F(CrashTest, WithCritOffStillWritesDumpAndHistory) {
    expectCrash({.preparation = "crit-off"});
    EXPECT_EQ(m_output, "");
}

TEST_F(CrashTest, WritesTheDumpBeforeTheLogAndTheLogBeforeTheHistory) {
    expectCrash({.preparation = "log-looks"});
    EXPECT_EQ(m_output, written() + "dump 1, history 0\n");
}

TEST_F(CrashTest, HandsArgumentsAndResultThrough) {
    EXPECT_EQ(NS_CORE::g_crashPatienceMs, 30'000U);
    EXPECT_EQ(run({.act = "arguments", .words = {"one", "seven77"}}), 37);
    EXPECT_EQ(run({.act = "arguments", .words = {"jitd"}}), 24);
    EXPECT_FALSE(fs::exists(historyFile()));
}

TEST_F(CrashTest, GuardsAgainAfterARunWithoutFault) {
    expectFullReport({.act = "twice"});
}

TEST_F(CrashTest, IsSwitchedOffByOneWordInOneSpelling) {
    expectNoReport({.words = {"jitd"}});
    expectNoReport({.words = {"install", "jitd"}});
    expectFullReport({.words = {"JITD", "-jitd"}});
}

TEST_F(CrashTest, DoesNotCoverOtherThreads) {
    expectNoReport({.act = "thread"});
}

// What the files' places are like.

TEST_F(CrashTest, ADirectoryInTheDumpsPlaceIsLogged) {
    fs::create_directories(dumpFile());
    expectCrash({}, /*hasDump=*/false);
    EXPECT_EQ(m_output, failed(test::kErrorOfDirectoryInPlace));
}

TEST_F(CrashTest, AFileInTheDirectorysPlaceIsLogged) {
    test::writeFile(dumps(), "");
    EXPECT_EQ(run({}), test::kCrashExitCode);
    EXPECT_TRUE(m_output.starts_with("[CRIT] Failed to write minidump for ")) << m_output;
    EXPECT_EQ(history(), historyLine());
}

TEST_F(CrashTest, AHistoryThatCannotBeOpenedIsSkippedSilently) {
    fs::create_directories(historyFile());
    EXPECT_EQ(run({}), test::kCrashExitCode);
    EXPECT_EQ(m_output, written());
}

// Faults of what reports a fault: the report does what it still can, and the process ends as promised.

// The thread sanitizer delays signals in code that makes no calls.
#if !defined(__SANITIZE_THREAD__)
TEST_F(CrashTest, ADumpWriterThatHangsIsGivenUp) {
    EXPECT_EQ(run({.preparation = "writer-hangs", .patienceMs = kImpatienceMs}), test::kCrashExitCode);
    EXPECT_EQ(m_output, test::kContinuesAfterHang ? written() : "");
    EXPECT_EQ(fs::exists(historyFile()), test::kContinuesAfterHang);
}
#endif

TEST_F(CrashTest, AWriterThatIsSlowIsNotGivenUp) {
    EXPECT_EQ(run({.preparation = "writer-slow", .patienceMs = kImpatienceMs}), test::kCrashExitCode);
    EXPECT_EQ(m_output, written());
    EXPECT_EQ(history(), historyLine());
}

TEST_F(CrashTest, ThreadsThatTraceDisturbNothing) {
    expectFullReport({.preparation = "traced"});
    expectCrash({.preparation = "library-held+exit-allocates",
                 .patienceMs = (test::kContinuesAfterHang ? 1 : 2) * kImpatienceMs});
    EXPECT_EQ(m_output, written() + "allocated\n");
}

TEST_F(CrashTest, ALogThatFaultsCostsItsLineAlone) {
    expectCrash({.preparation = "log-faults"});
    expectCrash({.preparation = "log-throws"});
    expectCrash({.act = "in-log"});
}

TEST_F(CrashTest, ALogThatHangsIsGivenUp) {
    for (const char* kind : {"exit-allocates+log-hangs", "exit-allocates+log-held"}) {
        expectCrash({.act = "aside", .preparation = kind, .patienceMs = kImpatienceMs}, true,
                    test::kContinuesAfterHang);
        EXPECT_EQ(m_output.ends_with("allocated\n"), test::kContinuesAfterHang) << "no way out for " << kind;
    }
}

TEST_F(CrashTest, ATerminateHandlerThatFaultsIsReported) {
    expectFullReport({.act = "exception", .preparation = "terminate-faults"});
}

// The sanitizers' memory is not what ships, and they report its faults themselves.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
TEST_F(CrashTest, BrokenMemoryDoesNotHoldTheProcess) {
    EXPECT_EQ(run({.act = "heap", .patienceMs = kImpatienceMs}), test::kCrashExitCode);
    if (test::kContinuesAfterHang) {
        EXPECT_GT(fs::file_size(dumpFile()), 100U);
    }
}
#endif

TEST_F(CrashTest, WhatHappensOnTheWayOutDoesNotChangeTheResult) {
    for (const char* act : {"null", "abort", "exception"}) {
        for (const char* kind : {"exit-faults", "exit-aborts", "exit-throws", "static-faults"})
            expectFullReport({.act = act, .preparation = kind});
    }
    expectFullReport({.preparation = "exit-hangs", .patienceMs = kImpatienceMs});
}

} // namespace

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "core/log/core_v2masterlogger.h"
#include "core/stack/core_stacktrace_linux.h"
#include "tests/support/child.h"
#include "tests/support/log_recorder.h"
#include "tests/support/temp_dir.h"

namespace {

using NS_CORE::StackTrace;

[[gnu::noinline]] std::string traceHere() {
    std::string text = StackTrace().toText();
    EXPECT_FALSE(text.empty());
    return text;
}

const std::string kExpected = "#01 in (anonymous namespace)::traceHere() at core_stacktrace_test_linux.cpp:";

TEST(StackTrace, StaysWholeWhenModulesComeAndGo) {
    EXPECT_EQ(traceHere().substr(0, kExpected.size()), kExpected);
    void* const library = ::dlopen("libresolv.so.2", RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(library, nullptr);
    EXPECT_EQ(traceHere().substr(0, kExpected.size()), kExpected);
    ::dlclose(library);
    EXPECT_EQ(traceHere().substr(0, kExpected.size()), kExpected);
}

const test::ChildProgram g_tracesWithoutItsFile("traces_without_its_file", [](const auto& arguments) {
    EXPECT_TRUE(std::filesystem::remove(arguments.at(0)));
    return traceHere().starts_with(kExpected) ? 0 : 1;
});

TEST(StackTrace, StaysWholeWhenTheProgramsFileGoes) {
    const test::TempDir dir;
    const std::string program = dir.file("program");
    test::linkThisProgram(program);
    EXPECT_EQ(test::runAndWait(test::childCommandLineOf(program, "traces_without_its_file", {program})), 0);
}

void describeHere() {
    NS_CORE::RawFrame walked[8];
    std::vector<NS_CORE::StackFrame> frames;
    NS_CORE::describeFrames(walked, NS_CORE::walkRaw(walked, std::size(walked)), frames);
    EXPECT_FALSE(frames.at(0).symbol.empty());
}

// The crash guard looks names up without the SymbolLock, so the two meet at the session.
TEST(StackTrace, IsTakenWhileOtherThreadsLookNamesUpAndModulesComeAndGo) {
    std::atomic<int> modules{0}; // relaxed, so that nothing but the session's lock orders the threads
    std::atomic<bool> isOver{false};
    const std::function<void()> others[] = {
        &describeHere,
        [] { EXPECT_FALSE(StackTrace::loadModule(nullptr, "/no/such/file", "none", 0x1000, 1)); },
        [&modules] {
            void* const library = ::dlopen("libresolv.so.2", RTLD_NOW | RTLD_LOCAL);
            describeHere();
            ::dlclose(library);
            modules.fetch_add(1, std::memory_order_relaxed);
        },
    };
    std::vector<std::thread> threads;
    for (const std::function<void()>& call : others)
        threads.emplace_back([&isOver, &call] {
            while (!isOver) call();
        });
    for (int round = 1; round <= 5; ++round) {
        while (modules.load(std::memory_order_relaxed) < 2 * round) const StackTrace trace;
        traceHere();
    }
    isOver = true;
    for (std::thread& thread : threads) thread.join();
}

TEST(StackTrace, QuicklyFindsTheProgramsOwnLinesAlone) {
    const NS_CORE::RawFrame places[] = {{reinterpret_cast<uintptr_t>(&describeHere), false},
                                        {reinterpret_cast<uintptr_t>(&::a64l), false}};
    std::vector<NS_CORE::StackFrame> frames;
    NS_CORE::describeFrames(places, std::size(places), frames, NS_CORE::LineLookup::Quick);
    EXPECT_GT(frames.at(0).line, 0U);
    EXPECT_EQ(frames.at(1).symbol, "a64l()");
    EXPECT_EQ(frames.at(1).line, 0U) << frames.at(1).file;
}

TEST(StackTrace, LogsAtNormWhatItDoesNotFind) {
    NS_CORE::MasterLogger::setLevelImplementationBits(NS_CORE::LogLevel::Norm, 8);
    const test::LogRecorder log;
    const NS_CORE::RawFrame nowhere{16, false};
    std::vector<NS_CORE::StackFrame> frames;
    NS_CORE::describeFrames(&nowhere, 1, frames);
    NS_CORE::MasterLogger::setLevelImplementationBits(NS_CORE::LogLevel::Norm, 0);
    EXPECT_EQ(frames, std::vector<NS_CORE::StackFrame>(1));
    const std::string function = "NORM NS_CORE::StackTrace::getStack - ";
    ASSERT_EQ(log.lines().size(), 2U);
    EXPECT_TRUE(log.lines()[0].starts_with(function + "failed to get symbol from addr 16 : ")) << log.lines()[0];
    EXPECT_EQ(log.lines()[1], function + "failed to get module info");
}

TEST(StackTrace, LoadsNothingIntoTheProcess) {
    traceHere();
    void* const networkReader = ::dlopen("libdebuginfod.so.1", RTLD_NOW | RTLD_NOLOAD);
    EXPECT_EQ(networkReader, nullptr);
}

} // namespace

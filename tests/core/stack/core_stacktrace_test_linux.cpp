#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <functional>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "core/stack/core_stacktrace_linux.h"
#include "core/text/core_varargs.h"
#include "tests/support/child.h"
#include "tests/support/hook_recorder.h"
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

NS_CORE::StackFrame frameAt(const void* address, NS_CORE::LineLookup lines = NS_CORE::LineLookup::All) {
    const NS_CORE::RawFrame place{reinterpret_cast<uintptr_t>(address), false};
    std::vector<NS_CORE::StackFrame> frames;
    NS_CORE::describeFrames(&place, 1, frames, lines);
    return frames.at(0);
}

TEST(StackTrace, StaysWholeWhenModulesComeAndGo) {
    for (const auto& [file, name] :
         {std::pair("libresolv.so.2", "ns_format_ttl"), {BASED_LIBRARY, "functionOfBasedLibrary"}}) {
        EXPECT_EQ(traceHere().substr(0, kExpected.size()), kExpected);
        void* const library = ::dlopen(file, RTLD_NOW | RTLD_LOCAL);
        ASSERT_NE(library, nullptr) << ::dlerror();
        EXPECT_EQ(traceHere().substr(0, kExpected.size()), kExpected);
        const void* const function = ::dlsym(library, name);
        EXPECT_EQ(frameAt(function).symbol, std::string(name) + "()");
        ::dlclose(library);
        EXPECT_EQ(traceHere().substr(0, kExpected.size()), kExpected);
        EXPECT_EQ(frameAt(function), NS_CORE::StackFrame());
    }
}

// The symbol library keeps the modules' files open.
TEST(StackTrace, LeavesNoModuleOpenForOtherPrograms) {
    traceHere();
    int modules = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        if (std::filesystem::read_symlink(entry).filename() != "core_tests") continue;
        ++modules;
        EXPECT_EQ(::fcntl(std::stoi(entry.path().filename()), F_GETFD), FD_CLOEXEC);
    }
    EXPECT_GT(modules, 0);
}

TEST(StackTrace, LogsAtNormAModuleWhoseFileIsGone) {
    const test::TempDir dir;
    const std::string file = dir.file("library.so");
    void* const original = ::dlopen("libresolv.so.2", RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(original, nullptr);
    std::filesystem::copy_file(frameAt(::dlsym(original, "ns_format_ttl")).image, file);
    void* const library = ::dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(library, nullptr) << ::dlerror();
    EXPECT_TRUE(StackTrace::loadModule(nullptr, file, "library", 0x10000, 1));
    std::filesystem::remove(file);
    dl_find_object found;
    ASSERT_EQ(::_dl_find_object(::dlsym(library, "ns_format_ttl"), &found), 0);
    const auto base = reinterpret_cast<uintptr_t>(found.dlfo_map_start);
    const test::LogRecorder log(/*hasNorm=*/true);
    const test::HookRecorder hook;                          // the name is given for a number
    for (int i = 0; i < 2; ++i) StackTrace().loadModules(); // the second finds the same modules
    EXPECT_EQ(log.lines(),
              std::vector<std::string>{NS_CORE::formatString(
                  "NORM NS_CORE::StackTrace::loadModule - failed to load image=%s module=0 base_addr=%d, size=%d", file,
                  base, reinterpret_cast<uintptr_t>(found.dlfo_map_end) - base)});
    EXPECT_EQ(hook.single().line, 15);
    ::dlclose(library);
    ::dlclose(original);
}

const test::ChildProgram g_tracesWithoutItsFile("traces_without_its_file", [](const auto& arguments) {
    EXPECT_TRUE(std::filesystem::remove(arguments.at(0)));
    return traceHere().starts_with(kExpected) ? 0 : 1;
});

// For symbols_test: what becomes of the program's input, and of the files with debug information beside it. A new
// module closes them, and they are opened again.
const test::ChildProgram g_tracesAndCounts("trace_and_count", [](const auto&) {
    const char* const input = "/proc/self/fd/0";
    const auto before = std::filesystem::read_symlink(input);
    traceHere();
    // The language's library has no debug information. What is not found must not be taken for the input.
    frameAt(reinterpret_cast<const void*>(&std::terminate));
    EXPECT_NE(::dlopen("libresolv.so.2", RTLD_NOW | RTLD_LOCAL), nullptr);
    traceHere();
    const std::string symbols = std::filesystem::path(test::thisProgram()).parent_path() / "symbols";
    int open = 0;
    int inherited = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        if (!std::filesystem::read_symlink(entry).native().starts_with(symbols)) continue;
        ++open;
        if (::fcntl(std::stoi(entry.path().filename()), F_GETFD) != FD_CLOEXEC) ++inherited;
    }
    std::printf("%d open, %d inherited, input %s\n", open, inherited,
                std::filesystem::read_symlink(input) == before ? "kept" : "lost");
    return 0;
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
    std::vector<std::jthread> threads;
    for (const std::function<void()>& call : others)
        threads.emplace_back([&call](const std::stop_token& stop) {
            while (!stop.stop_requested()) call();
        });
    for (int round = 1; round <= 5; ++round) {
        while (modules.load(std::memory_order_relaxed) < 2 * round) const StackTrace trace;
        traceHere();
    }
}

NS_CORE::StackFrame quicklyDescribed() {
    return frameAt(reinterpret_cast<const void*>(&describeHere), NS_CORE::LineLookup::Quick);
}

// For symbols_test, which compresses the program's debug information.
const test::ChildProgram g_describesQuickly("describe_quickly", [](const auto&) {
    const NS_CORE::StackFrame frame = quicklyDescribed();
    std::printf("%s at line %u by %s\n", frame.symbol.c_str(), frame.line, frame.pdb.c_str());
    return 0;
});

TEST(StackTrace, QuicklyFindsTheProgramsOwnLinesAlone) {
    EXPECT_GT(quicklyDescribed().line, 0U);
    const NS_CORE::StackFrame other = frameAt(reinterpret_cast<const void*>(&::a64l), NS_CORE::LineLookup::Quick);
    EXPECT_EQ(other.symbol, "a64l()");
    EXPECT_EQ(other.line, 0U) << other.file;
}

TEST(StackTrace, WithoutSymbolsLogsWhereItLooksForThem) {
    const test::LogRecorder log(/*hasNorm=*/true);
    const StackTrace none(/*process=*/nullptr);
    const std::string directory = std::filesystem::path(test::thisProgram()).parent_path();
    EXPECT_EQ(log.lines(),
              std::vector<std::string>{"NORM NS_CORE::StackTrace::StackTrace - failed to initialise symbols from " +
                                       directory + ":" + directory + "/symbols:/usr/lib/debug"});
}

TEST(StackTrace, LogsAtNormWhatItDoesNotFind) {
    const test::LogRecorder log(/*hasNorm=*/true);
    EXPECT_EQ(frameAt(reinterpret_cast<const void*>(16)), NS_CORE::StackFrame());
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

#include "core/stack/core_stacktrace.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <functional>
#include <mutex>
#include <source_location>
#include <thread>

#include "absl/strings/str_split.h"
#include "core/log/core_v2masterlogger.h"
#include "core/stack/core_stacktrace_platform.h"
#include "core/stack/core_stacktracetext.h"
#include "tests/support/calling_log.h"
#include "tests/support/child.h"
#include "tests/support/hook_recorder.h"
#include "tests/support/log_recorder.h"

namespace {

using NS_CORE::StackTrace;
using Frame = StackTrace::Frame;
using Lines = std::vector<std::string>;

Frame known(const std::string& symbol) {
    return {.image = "", .pdb = "", .symbol = symbol, .file = "", .line = 0};
}

Frame unknown(const std::string& image = "") {
    return {.image = image, .pdb = "", .symbol = "", .file = "", .line = 0};
}

// The tracer's own three, and `rest`.
std::vector<Frame> trace(std::vector<Frame> rest) {
    rest.insert(rest.begin(), {known("getStack()"), known("logStack()"), known("toText()")});
    return rest;
}

Lines linesOf(const std::vector<Frame>& rest, char separator = '\\') {
    return NS_CORE::traceLines(trace(rest), StackTrace::kDiscardedFrames, separator);
}

Lines split(const std::string& text) {
    return absl::StrSplit(text, '\n');
}

TEST(TraceLines, ShowWhatIsKnownAndEndEachRunOfUnknownFramesWithItsRawPosition) {
    const Frame whole{.image = "C:\\svc\\bin\\quorkeri_service.exe",
                      .pdb = "C:\\svc\\bin\\symbols\\quorkeri_service.pdb",
                      .symbol = "NS_UTL::Service::run()",
                      .file = "d:\\build\\utl\\utl_service.cpp",
                      .line = 120};
    const Frame posix{
        .image = "/opt/svc/bin/service", .pdb = "", .symbol = "f()", .file = "/src/core/core_x.cpp", .line = 1};
    const Frame f = known("f()");
    const struct {
        std::vector<Frame> frames;
        char separator;
        Lines lines;
    } rows[] = {
        {{whole}, '\\', {"#01 in NS_UTL::Service::run() at utl_service.cpp:120 (quorkeri_service.exe)"}},
        {{posix}, '/', {"#01 in f() at core_x.cpp:1 (service)"}},
        {{posix}, '\\', {"#01 in f() at /src/core/core_x.cpp:1 (/opt/svc/bin/service)"}},
        {{f,
          {.image = "C:\\a.dll", .pdb = "", .symbol = "g()", .file = "", .line = 7},
          {.image = "", .pdb = "", .symbol = "h()", .file = "h.cpp", .line = 8}},
         '\\',
         {"#01 in f()", "#02 in g() (a.dll)", "#03 in h() at h.cpp:8"}},
        {{unknown("C:\\Windows\\kernel32.dll"), f}, '\\', {"#01 in ? (kernel32.dll)", "#04 in ?", "#02 in f()"}},
        // Positions: 4 known, 5 to 7 unknown, 8 known.
        {{f, unknown("a.dll"), unknown("b.dll"), unknown(), f},
         '\\',
         {"#01 in f()", "#02 in ? (a.dll)", "#07 in ?", "#05 in f()"}},
        {{f, unknown(), unknown()}, '\\', {"#01 in f()", "#02 in ?", "#06 in ?"}},
        {{unknown(), f, unknown(), unknown(), f},
         '\\',
         {"#01 in ?", "#04 in ?", "#02 in f()", "#03 in ?", "#07 in ?", "#05 in f()"}},
    };
    for (const auto& row : rows) EXPECT_EQ(linesOf(row.frames, row.separator), row.lines);
}

TEST(TraceLines, LeaveTheDiscardedFramesOutAndSayHowManyWhenNothingIsLeft) {
    const std::vector<Frame> frames{unknown(), unknown(), unknown(), known("f()")};
    EXPECT_EQ(NS_CORE::traceLines(frames, 3, '\\'), Lines{"#01 in f()"}) << "they begin no run";
    for (size_t count = 0; count <= 3; ++count) {
        EXPECT_EQ(NS_CORE::traceLines(std::vector<Frame>(count, known("f()")), 3, '\\'),
                  Lines{"Stack with 0 frames (discarded 3)"});
    }
}

TEST(SymbolSearchPath, ListsTheWorkingDirectoryTheModulesAndTheSystemsAsFarAsTheyAreKnown) {
    const char* const rows[][4] = {
        {"C:\\run", "C:\\prog", "C:\\Windows", "C:\\run;C:\\prog;C:\\prog\\symbols;C:\\Windows;C:\\Windows\\system32;"},
        {"C:\\prog", "C:\\prog", "C:\\Windows", "C:\\prog;C:\\prog\\symbols;C:\\Windows;C:\\Windows\\system32;"},
        {"c:\\prog", "C:\\prog", "", "c:\\prog;C:\\prog;C:\\prog\\symbols;"}, // bytes are compared
        {"", "C:\\prog", "", "C:\\prog;C:\\prog\\symbols;"},
        {"C:\\run", "", "C:\\W", "C:\\run;C:\\W;C:\\W\\system32;"},
        {"", "", "", ""},
    };
    for (const auto& row : rows) EXPECT_EQ(NS_CORE::symbolSearchPath(row[0], row[1], row[2]), row[3]);
}

TEST(ModuleDirectory, EndsBeforeTheLastSeparatorOfAnyKind) {
    EXPECT_EQ(NS_CORE::moduleDirectory("C:\\prog\\x.exe"), "C:\\prog");
    EXPECT_EQ(NS_CORE::moduleDirectory("C:/prog/x.exe"), "C:/prog");
    EXPECT_EQ(NS_CORE::moduleDirectory("C:x.exe"), "C");
    EXPECT_EQ(NS_CORE::moduleDirectory("x.exe"), "x.exe");
    EXPECT_EQ(NS_CORE::moduleDirectory("\\x.exe"), "");
    EXPECT_EQ(NS_CORE::moduleDirectory(""), "");
}

TEST(FunctionName, LeavesOutReturnTypeParametersAndQualifiers) {
    using NS_CORE::functionName;
    EXPECT_EQ(functionName("main"), "main");
    EXPECT_EQ(functionName("ns::f(int, char const*)"), "ns::f");
    EXPECT_EQ(functionName("ns::C::f() const"), "ns::C::f");
    EXPECT_EQ(functionName("ns::C::f() const &"), "ns::C::f");
    EXPECT_EQ(functionName("f(int) [clone .cold]"), "f");
    EXPECT_EQ(functionName("f(void (*)(int), int (&) [3])"), "f");
    EXPECT_EQ(functionName("void f<int>(int)"), "f<int>");
    EXPECT_EQ(functionName("std::string const& ns::f<int, char>(int)"), "ns::f<int, char>");
    EXPECT_EQ(functionName("(anonymous namespace)::C::f(int)"), "(anonymous namespace)::C::f");
    EXPECT_EQ(functionName("void (anonymous namespace)::f<long long>(long long)"),
              "(anonymous namespace)::f<long long>");
    EXPECT_EQ(functionName("C::operator()(int) const"), "C::operator()");
    EXPECT_EQ(functionName("C::operator bool() const"), "C::operator bool");
    EXPECT_EQ(functionName("C::operator<<(int)"), "C::operator<<");
    EXPECT_EQ(functionName("bool operator< <int>(int, int)"), "operator< <int>");
    EXPECT_EQ(functionName("operator new(unsigned int)"), "operator new");
    EXPECT_EQ(functionName("f(int)::{lambda(int)#1}::operator()(int) const"), "f(int)::{lambda(int)#1}::operator()");
    EXPECT_EQ(functionName("C::f(int) const::{lambda()#1}::operator()() const"),
              "C::f(int) const::{lambda()#1}::operator()");
    EXPECT_EQ(functionName("ns::f[abi:cxx11](int)"), "ns::f");
    EXPECT_EQ(functionName(std::string_view("f x", 1)), "f");
    EXPECT_EQ(functionName(""), "");
    EXPECT_EQ(functionName(")"), ")");
}

TEST(ReadableName, DemanglesTheCompilersNamesAndKeepsOthers) {
    EXPECT_EQ(NS_CORE::readableName("_ZN2ns1fEiPKc"), "ns::f");
    EXPECT_EQ(NS_CORE::readableName("__ZN2ns1fEiPKc"), "ns::f");
    EXPECT_EQ(NS_CORE::readableName("main"), "main");
    EXPECT_EQ(NS_CORE::readableName("_Zbroken"), "_Zbroken");
    EXPECT_EQ(NS_CORE::readableName("__libc_start_main@@GLIBC_2.34"), "__libc_start_main");
    EXPECT_EQ(NS_CORE::readableName("_ZSt9terminatev@GLIBCXX_3.4"), "std::terminate");
    EXPECT_EQ(NS_CORE::readableName(""), "");
}

TEST(WalkStep, EndsBehindTheOutermostFrameAndBeforeOneThatLeadsNowhere) {
    using NS_CORE::stacktrace_platform::walkStep;
    using Step = NS_CORE::stacktrace_platform::WalkStep;
    const test::LogRecorder log;
    EXPECT_EQ(walkStep(0x1000, 0x2000), Step::TakeAndGoOn);
    EXPECT_EQ(walkStep(0x1000, 0), Step::TakeAndStop);
    EXPECT_EQ(log.lines(), Lines{});
    EXPECT_EQ(walkStep(0x1000, 0x1000), Step::Stop);
    EXPECT_EQ(walkStep(0, 0), Step::Stop);
    EXPECT_EQ(walkStep(0, 0x1000), Step::Stop);
    EXPECT_EQ(log.lines(), (Lines{"WARN NS_CORE::StackTrace::getStack - endless callstack",
                                  "WARN NS_CORE::StackTrace::getStack - endless callstack",
                                  "WARN NS_CORE::StackTrace::getStack - offset==0"}));
}

} // namespace

// Functions with known names at known depths. This file is compiled without tail calls, so each call keeps its frame.
namespace tracetest {

using NS_CORE::StackTrace;

using Action = std::string (*)();

[[gnu::noipa]] std::string innermost(Action action) {
    return action();
}

[[gnu::noipa]] std::string middle(Action action) {
    return innermost(action);
}

[[gnu::noipa]] std::string outermost(Action action) {
    return middle(action);
}

thread_local uint32_t g_askingLine = 0;

[[gnu::noipa]] std::string ask() {
    g_askingLine = std::source_location::current().line() + 1;
    return StackTrace().toText();
}

// What a thread is asked by, so that its traces can be told from another's.
template <int thread>
[[gnu::noipa]] std::string askAs() {
    return ask();
}

// Two functions in turn, since one that calls itself straight away looks like an endless stack.
std::string pingPong(int calls, Action action);

[[gnu::noipa]] std::string pong(int calls, Action action) {
    return pingPong(calls - 1, action);
}

[[gnu::noipa]] std::string pingPong(int calls, Action action) {
    return calls > 0 ? pong(calls - 1, action) : action();
}

[[gnu::noipa]] std::string recurse(int calls) {
    return calls > 0 ? recurse(calls - 1) : ask();
}

} // namespace tracetest

namespace {

// For symbols_test, which gives it to programs with and without symbols.
const test::ChildProgram g_trace("trace", [](const std::vector<std::string>&) {
    std::printf("%s\n", tracetest::outermost(&tracetest::ask).c_str());
    return 0;
});

// Wine's symbol library insists on the size of the record for a line, which is left open on purpose.
#if defined(_WIN32)
constexpr bool kHasLines = false;
#else
constexpr bool kHasLines = true;
#endif

// "#02 in tracetest::innermost() at core_stacktrace_test.cpp:205 (core_tests)" with any line.
void expectFrame(const std::string& line, const std::string& number, const std::string& function) {
    const std::string place = kHasLines ? " at core_stacktrace_test.cpp:" : " (";
    EXPECT_TRUE(line.starts_with(number + " in tracetest::" + function + "()" + place)) << line;
    EXPECT_TRUE(line.ends_with(" (core_tests)") || line.ends_with(" (core_tests.exe)")) << line;
}

TEST(StackTrace, BeginsAtTheFunctionThatAsks) {
    const std::string text = tracetest::outermost(&tracetest::ask);
    EXPECT_EQ(text.find("StackTrace::"), std::string::npos) << "something of the tracer itself";
    const Lines lines = split(text);
    ASSERT_GE(lines.size(), 5U);
    expectFrame(lines[0], "#01", "ask");
    EXPECT_EQ(lines[0].find(".cpp:" + std::to_string(tracetest::g_askingLine) + " (") != std::string::npos, kHasLines)
        << lines[0];
    expectFrame(lines[1], "#02", "innermost");
    expectFrame(lines[2], "#03", "middle");
    expectFrame(lines[3], "#04", "outermost");
}

TEST(StackTrace, LogsTheSameLinesAtTheLevelAskedForUnlessItIsOff) {
    const test::LogRecorder log;
    StackTrace().logStack(NS_CORE::LogLevel::Norm);
    EXPECT_EQ(log.lines(), Lines{});
    StackTrace().logStack(NS_CORE::LogLevel::Info);
    const Lines lines = log.lines();
    ASSERT_FALSE(lines.empty());
    // One frame less than with toText, so the function that asks is the third discarded one.
    EXPECT_TRUE(lines[0].starts_with("INFO #01 in ")) << lines[0];
}

TEST(StackTrace, WalksAtMostSixtyThreeFrames) {
    const Lines lines = split(tracetest::pingPong(200, &tracetest::ask));
    ASSERT_EQ(lines.size(), 60U);
    expectFrame(lines[0], "#01", "ask");
    expectFrame(lines[1], "#02", "pingPong");
    expectFrame(lines[2], "#03", "pong");
    EXPECT_TRUE(lines[59].starts_with("#60 in ")) << lines[59];
}

TEST(StackTrace, AppendsToWhatIsThereUpToTheLimit) {
    StackTrace trace;
    std::vector<Frame> frames{known("before")};
    ASSERT_TRUE(trace.getStack(frames, 4));
    ASSERT_EQ(frames.size(), 4U);
    EXPECT_EQ(frames[0], known("before"));
    EXPECT_EQ(frames[1].symbol, "NS_CORE::StackTrace::getStack()");
    ASSERT_TRUE(trace.getStack(frames, 4));
    EXPECT_EQ(frames.size(), 4U);
}

TEST(StackTrace, NamesTheImageOfEachFrame) {
    StackTrace trace;
    std::vector<Frame> frames;
    ASSERT_TRUE(trace.getStack(frames, 2));
    ASSERT_EQ(frames.size(), 2U);
    EXPECT_NE(frames[1].image.find("core_tests"), std::string::npos) << frames[1].image;
    EXPECT_EQ(frames[1].file.find("core_stacktrace_test.cpp") != std::string::npos, kHasLines) << frames[1].file;
}

TEST(StackTrace, KeepsTheTracesOfSeveralThreadsApart) {
    constexpr size_t kTraces = 2;
    std::vector<std::string> texts[2];
    std::mutex turn;
    const auto trace = [&turn](tracetest::Action action, std::vector<std::string>& into) {
        std::unique_lock alone(turn, std::defer_lock);
        while (into.size() < kTraces) {
            std::string text = tracetest::outermost(action);
            // On a busy machine a trace takes longer than the other thread waits, and what that one logs gets into the
            // text. Then they take turns.
            if (text.find("Failed to get stack") == std::string::npos)
                into.push_back(std::move(text));
            else if (!alone)
                alone.lock();
        }
    };
    std::thread other(trace, &tracetest::askAs<1>, std::ref(texts[1]));
    trace(&tracetest::askAs<0>, texts[0]);
    other.join();
    for (int thread = 0; thread < 2; ++thread) {
        for (const std::string& text : texts[thread]) {
            const Lines lines = split(text);
            ASSERT_GE(lines.size(), 5U) << text;
            expectFrame(lines[0], "#01", "ask");
            expectFrame(lines[1], "#02", "askAs<" + std::to_string(thread) + ">");
            expectFrame(lines[2], "#03", "innermost");
            expectFrame(lines[4], "#05", "outermost");
        }
    }
}

// What a line of a trace may be: "#07 in ?" alone ends a run of unknown frames.
struct TraceLine {
    size_t number = 0;
    bool isEndOfRun = false;
    bool isUnknown = false;
};

// "#07 in name() at file.cpp:12 (image)", with "?" for a name that is not known, and without what else is not.
TraceLine parsed(const std::string& line) {
    const size_t number = std::stoul(line.substr(1, 2));
    const std::string begin = (number < 10 ? "#0" : "#") + std::to_string(number) + " in ";
    EXPECT_TRUE(line.starts_with(begin)) << line;
    const std::string rest = line.substr(begin.size());
    const bool isUnknown = rest == "?" || rest.starts_with("? (");
    EXPECT_TRUE(isUnknown || rest.find("()") != std::string::npos) << line;
    EXPECT_TRUE(rest == "?" || rest.ends_with(')')) << line;
    EXPECT_EQ(rest.find('\\'), std::string::npos) << "a directory in " << line;
    return {number, rest == "?", isUnknown};
}

// Numbers count frames from the first behind the tracer's three. The end of a run bears its last frame's position
// from the walk's start, so three more than it would have as a line.
TEST(StackTrace, NumbersTheLinesOfAWalkThroughUnknownCode) {
    std::string text;
    // A new thread begins in code that has no symbols for us, on both platforms.
    std::thread([&text] { text = tracetest::outermost(&tracetest::ask); }).join();
    const Lines lines = split(text);
    size_t runs = 0;
    size_t lastNumber = 0;
    for (size_t index = 0; index < lines.size(); ++index) {
        const TraceLine line = parsed(lines[index]);
        if (!line.isEndOfRun) {
            EXPECT_GT(line.number, lastNumber) << text;
            lastNumber = line.number;
            continue;
        }
        ++runs;
        ASSERT_GT(index, 0U);
        EXPECT_TRUE(parsed(lines[index - 1]).isUnknown) << "a run has a line of its own first:\n" << text;
        EXPECT_GE(line.number, lastNumber + StackTrace::kDiscardedFrames) << text;
        if (index + 1 < lines.size()) {
            EXPECT_EQ(parsed(lines[index + 1]).number + StackTrace::kDiscardedFrames, line.number + 1) << text;
        }
    }
    EXPECT_GE(runs, 1U) << text;
    EXPECT_EQ(parsed(lines.front()).number, 1U);
}

TEST(StackTrace, EndsAtAFunctionThatCallsItself) {
    const test::LogRecorder log;
    const Lines lines = split(tracetest::recurse(10));
    EXPECT_EQ(log.lines(), Lines{"WARN NS_CORE::StackTrace::getStack - endless callstack"});
    // The innermost call returns to ask's caller, so it differs from the others.
    ASSERT_EQ(lines.size(), 2U);
    expectFrame(lines[0], "#01", "ask");
    expectFrame(lines[1], "#02", "recurse");
}

TEST(StackTrace, WithoutSymbolsFailsEachTime) {
    const test::LogRecorder log(/*hasNorm=*/true);
    StackTrace trace(reinterpret_cast<StackTrace::ProcessHandle>(uintptr_t{0xdead0}));
    ASSERT_EQ(log.lines().size(), 1U);
    EXPECT_EQ(trace.toText(), "Failed to get stack");
    EXPECT_EQ(trace.toText(), "Failed to get stack");
    trace.logStack(NS_CORE::LogLevel::Crit);
    std::vector<Frame> frames{known("before")};
    EXPECT_FALSE(trace.getStack(frames, StackTrace::kMaxFrames));
    EXPECT_EQ(frames, std::vector<Frame>{known("before")});
    const std::string place = "WARN Log at core_stacktrace_win32:186 (NS_CORE::StackTrace::getStack)";
    EXPECT_EQ(log.lines(), (Lines{log.lines()[0], place, place, place, "CRIT Failed to get stack", place}));
}

TEST(StackTrace, LogsAModuleThatCannotBeReadAndMayBeTracedMeanwhile) {
    const test::LogRecorder log(/*hasNorm=*/true);
    const test::HookRecorder hook;
    std::string traceOfRecord;
    StackTrace trace;
    std::vector<Frame> frames;
    ASSERT_TRUE(trace.getStack(frames, 5));
    const StackTrace::ProcessHandle process = NS_CORE::stacktrace_platform::processHandle();
    test::setGlobalObserver([&](const auto& /*record*/) { traceOfRecord = StackTrace().toText(); });
    EXPECT_FALSE(StackTrace::loadModule(process, "no-such-image.dll", "no-such-image", 0x60000000, 4096));
    // The name is given for a number, and comes out as one.
    EXPECT_EQ(log.lines().back(),
              "NORM NS_CORE::StackTrace::loadModule - failed to load image=no-such-image.dll "
              "module=0 base_addr=1610612736, size=4096");
    EXPECT_EQ(hook.single().message,
              "core_varargs:261: ch=d format='failed to load image=%s module=%d base_addr=%d, size=%d'");
    NS_CORE::MasterLogger::setGlobalObserver(nullptr);
    EXPECT_NE(traceOfRecord.find("LogsAModuleThatCannotBeReadAndMayBeTracedMeanwhile"), std::string::npos);
    EXPECT_NE(trace.toText().find("LogsAModuleThatCannotBeReadAndMayBeTracedMeanwhile"), std::string::npos)
        << "the inner trace has taken the outer one's symbols away";
}

} // namespace
